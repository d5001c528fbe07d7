// What the system can share: a path whose name and folder the records, the
// catalogue and the platform's path buffers can all hold unchanged. FsAdd and
// FsFilesAdd refuse anything else with 60 before a PDU goes out, and a user
// side can ask the same question first to say why in words.
#pragma once

#include "QB_String.h"

// Why a path cannot be shared; None when it can.
enum class ZV_SharePathProblem
{
    None,
    TooLong,          // the full path needs more than 259 characters
    EmptyName,        // the path names a folder, not a file
    SeparatorInName,  // a batch's file name holds a "\" or "/"
    NotInCodePage,    // a character the ANSI code page (Windows-1252) lacks
};

// Longest full path, in UTF-16 units: a buffer of 260 with its terminator,
// as Windows' MAX_PATH.
constexpr int ZV_MAX_SHARE_PATH = 259;

// sFullPath: the absolute path in Windows form. The name always goes into
// the server's catalogue through the ANSI code page; bFolderThroughAnsi says
// that the folder does too (FsAdd's record), so that it must also survive.
ZV_SharePathProblem ZV_CheckSharePath(const QB_StringW& sFullPath, bool bFolderThroughAnsi);
// A file name of a batch, which must name a file of the batch's folder.
ZV_SharePathProblem ZV_CheckBatchName(const QB_StringW& sName);
