// A server and a client start on hostile files: "confsrv.ini" (its store
// folder kept inside the home, as an administrator would set it), the
// catalogue "fsinfo.ini" and the client's record of its shares
// "fsshared.ini". Each comes from the input behind a 16-bit length. The
// server then takes a peer's request for its file list, which reads every
// catalogue row, and both run their timers.
//
// The oracle, besides the sanitizers: start-up returns, nothing appears
// beside the home, and the server still routes afterwards.
#include "ZV_FuzzCheck.h"
#include "ZV_FuzzInput.h"

#include "ZV_RecordingHost.h"
#include "core/ZV_FileShareMgr.h"
#include "lists/ZV_ListPdu.h"
#include "wire/ZV_PduFrame.h"

#include "QB_Env.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

namespace fs = std::filesystem;

namespace {

const fs::path& Home()
{
    static const fs::path home = [] {
        const fs::path made = ZV_FuzzScratch("roomcrate-startfuzz");
        const fs::path node = made / "node";
        fs::create_directories(node);
        QB_SetEnvironmentVariable("ROOMCRATE_HOME", node.c_str());
        fs::current_path(node);
        ZV_SetTraceStream(std::fopen("/dev/null", "w"));
        return node;
    }();
    return home;
}

// The store folder is the administrator's word, not an attacker's: lines
// that could name one are left out and the home's own is set.
std::string TameConfig(const std::string& sText)
{
    std::string sOut;
    size_t nStart = 0;
    while (nStart < sText.size())
    {
        size_t nEnd = sText.find('\n', nStart);
        nEnd = nEnd == std::string::npos ? sText.size() : nEnd + 1;
        std::string sLine = sText.substr(nStart, nEnd - nStart);
        std::string sLower = sLine;
        std::transform(sLower.begin(), sLower.end(), sLower.begin(), [](unsigned char c) { return std::tolower(c); });
        if (sLower.find("path") == std::string::npos && sLower.find('\0') == std::string::npos)
            sOut += sLine;
        nStart = nEnd;
    }
    return "[FileShare]\r\nPath=" + (Home() / "store").string() + "\r\n" + sOut;
}

std::string Text(const std::vector<uint8_t>& vb)
{
    return std::string(vb.begin(), vb.end());
}

void Write(const fs::path& path, const std::string& sText)
{
    std::ofstream(path, std::ios::binary).write(sText.data(), (std::streamsize)sText.size());
}

uint32_t Deliver(ZV_FileShareMgr& mgr, uint16_t usPdu, uint16_t usConnType, const std::vector<uint8_t>& vb)
{
    ConfPduData cpd{20001, 0, 5, 0, usConnType, usPdu, 0, 0, 0, (uint32_t)vb.size(), vb.empty() ? nullptr : vb.data()};
    return mgr.HandlePdu(&cpd);
}

void Start(bool bServer)
{
    ZV_RecordingHost host;
    host.m_bServer = bServer;
    host.AddUser(QB_UserID(10001, 0), 1, "Alice");
    host.AddUser(QB_UserID(20001, 0), 2, "a server");
    auto lpMgr = std::make_unique<ZV_FileShareMgr>();
    host.Attach(lpMgr.get());
    lpMgr->Initialize();
    if (bServer)
    {
        ZV_FileListRequest ask;
        ask.requester = QB_UserID(20001, 0);
        uint8_t abBuf[16];
        QB_ByteStream stream(abBuf, sizeof abBuf, false);
        ask.Save(stream);
        Deliver(*lpMgr, PDU_CONF_GET_FILE_LIST_REQUEST, zvConfServerTypeCommand,
                std::vector<uint8_t>(abBuf, abBuf + stream.GetPos()));
    }
    lpMgr->OnTimer(1000);
    lpMgr->OnTimer(70000);
    FUZZ_CHECK(Deliver(*lpMgr, PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, zvConfClientTypeCommand, {0x01}) ==
                   zvResultNoHandler,
               "the %s stopped routing", bServer ? "server" : "client");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    const fs::path& home = Home();
    for (const auto& entry : fs::directory_iterator(home))
        fs::remove_all(entry.path());
    fs::create_directories(home / "store");
    ZV_FuzzReader in(pData, nSize);
    Write(home / "confsrv.ini", TameConfig(Text(in.Bytes(in.Int<uint16_t>()))));
    Write(home / "fsinfo.ini", Text(in.Bytes(in.Int<uint16_t>())));
    Write(home / "fsshared.ini", in.Rest());
    Start(true);
    Start(false);
    for (const auto& entry : fs::directory_iterator(home.parent_path()))
        FUZZ_CHECK(entry.path() == home, "a file appeared beside the home: %s", entry.path().c_str());
    return 0;
}
