// All a server holds, as one string that two moments compare: the FileIDs
// it gave and deleted, each session's row, position and flags with its
// download entries, every stored file with its bytes, and the catalogue.
#pragma once

#include "ZV_FileShareMgrPeer.h"
#include "ZV_FileShareSessionPeer.h"
#include "wire/ZV_RecordStream.h"

#include "QB_TestSupport.h"

#include <filesystem>
#include <string>
#include <vector>

template <class TRecord>
std::string ZV_RecordBytes(const TRecord& record)
{
    std::vector<uint8_t> vb(QB_PDU_BUFFER_SIZE);
    QB_ByteStream stream(vb.data(), (int32_t)vb.size(), false);
    SaveDelimited(stream, record);
    return std::string(vb.begin(), vb.begin() + stream.GetPos());
}

inline std::string ZV_ServerHeld(ZV_FileShareMgr& mgr, const std::string& sStore, const std::string& sCatalog)
{
    using S = ZV_FileShareSessionPeer;
    std::string s = std::to_string(ZV_FileShareMgrPeer::NextFileID(mgr)) + " deleted " +
                    std::to_string(ZV_FileShareMgrPeer::DeletedFileIDs(mgr).GetSize());
    ZV_FileShareMgrPeer::ForEach(mgr, [&](uint16_t usFileID, ZV_FileShareSession* lpFsSession) {
        s += "\nsession " + std::to_string(usFileID) + " " + std::to_string(S::MaxPos(*lpFsSession)) + " " +
             std::to_string(S::StopUpload(*lpFsSession)) + std::to_string(S::UploadDone(*lpFsSession)) + " " +
             ZV_RecordBytes(S::FileInfo(*lpFsSession));
        ZV_DownloadMap& map = S::Downloads(*lpFsSession);
        for (QB_POSITION pos = map.GetStartPosition(); pos != nullptr;)
        {
            QB_UserID user;
            s += "\nentry " + ZV_RecordBytes(*map.GetNextAssoc(pos, user));
        }
    });
    std::error_code ec;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sStore, ec))
    {
        const std::vector<uint8_t> vb = entry.is_regular_file() ? QB_ReadWholeFile(entry.path().string())
                                                                : std::vector<uint8_t>();
        s += "\n" + entry.path().string() + " " + std::string(vb.begin(), vb.end());
    }
    // A save goes to the catalogue's journal first.
    const std::vector<uint8_t> vbCatalog = QB_ReadWholeFile(sCatalog);
    const std::vector<uint8_t> vbJournal = QB_ReadWholeFile(sCatalog + ".journal");
    return s + "\ncatalogue " + std::string(vbCatalog.begin(), vbCatalog.end()) + "\njournal " +
           std::string(vbJournal.begin(), vbJournal.end());
}
