// The module's result codes in plain words, for whatever a program shows a
// person: the demo, a host's user side, a log reader. Header-only and
// standard C++17, so that any program can take it with the public header.
#pragma once

#include "IZV_FileShare.h"

#include <cstdint>

// A sentence fragment that fits after "... failed: ".
inline const char* zvResultText(uint32_t ulResult)
{
    switch (ulResult)
    {
    case zvResultOk:
        return "done";
    case zvResultException:
        return "the operation stopped on an unexpected error";
    case zvResultNoHandler:
        return "no part of the module takes this message";
    case zvResultNoConfig:
        return "the configuration file confsrv.ini could not be opened";
    case zvResultNoConnection:
        return "there is no connection to the server for this";
    case zvResultNoHost:
        return "the module has no conference host";
    case zvResultNotInConf:
        return "the user is not in the conference";
    case zvResultNotEntitled:
        return "the user is not allowed to do this";
    case zvResultNoCreatorLink:
        return "the user who shared the file is not connected";
    case zvResultCannotOpen:
        return "a file could not be opened or named, or a folder could not be made";
    case zvResultCannotAccess:
        return "a file could not be read or written";
    case zvResultCannotDelete:
        return "a local file could not be deleted";
    case zvResultUnknownFile:
        return "the conference has no such file";
    case zvResultReservedFile:
        return "the file is still being added";
    case zvResultNoFileID:
        return "the conference has no free file number left";
    case zvResultUntrusted:
        return "the server asked for a file the user did not share, or to write where the user did not ask";
    case zvResultOverLimit:
        return "the user would share more files or bytes than the server allows";
    }
    return "the module gave a result it does not name";
}
