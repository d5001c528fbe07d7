// All a server holds, as one string that two moments compare: the FileIDs
// it gave and deleted, each session's row, position and flags with its
// download entries, every stored file with its bytes, and the catalogue.
#pragma once

#include "ZV_FileShareMgrPeer.h"
#include "ZV_FileShareSessionPeer.h"
#include "ZV_RecordingHost.h"

#include "QB_TestSupport.h"

#include <filesystem>
#include <string>
#include <vector>

inline std::string ZV_ServerHeld(ZV_FileShareMgr& mgr, const std::string& sStore, const std::string& sCatalog)
{
    using S = ZV_FileShareSessionPeer;
    auto fnText = [](const std::vector<uint8_t>& vb) { return std::string(vb.begin(), vb.end()); };
    std::string s = std::to_string(ZV_FileShareMgrPeer::NextFileID(mgr)) + " deleted " +
                    std::to_string(ZV_FileShareMgrPeer::DeletedFileIDs(mgr).GetSize());
    ZV_FileShareMgrPeer::ForEach(mgr, [&](uint16_t usFileID, ZV_FileShareSession* lpFsSession) {
        s += "\nsession " + std::to_string(usFileID) + " " + std::to_string(S::MaxPos(*lpFsSession)) + " " +
             std::to_string(S::StopUpload(*lpFsSession)) + std::to_string(S::UploadDone(*lpFsSession)) + " " +
             fnText(ZV_Pdu().Record(S::FileInfo(*lpFsSession)).b);
        ZV_DownloadMap& map = S::Downloads(*lpFsSession);
        for (QB_POSITION pos = map.GetStartPosition(); pos != nullptr;)
        {
            QB_UserID user;
            s += "\nentry " + fnText(ZV_Pdu().Record(*map.GetNextAssoc(pos, user)).b);
        }
    });
    std::error_code ec;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sStore, ec))
        s += "\n" + entry.path().string() + " " +
             fnText(entry.is_regular_file() ? QB_ReadWholeFile(entry.path().string()) : Bytes());
    // A save goes to the catalogue's journal first.
    return s + "\ncatalogue " + fnText(QB_ReadWholeFile(sCatalog)) + "\njournal " +
           fnText(QB_ReadWholeFile(sCatalog + ".journal"));
}
