// minimal_host: the smallest whole host of the file-sharing module.
//
// One program runs a conference of one server and two clients, Alice and
// Bob, each with a manager of its own from libroomcrate.so. Alice shares a
// file, her client uploads it, Bob downloads it, and the program compares
// the two copies byte for byte. It uses the public header and the library's
// five exports, nothing else of the project; docs/host-guide.md explains
// each rule it keeps.
//
//     minimal_host [--keep]
//
// Exit status 0 when Bob's copy is identical to Alice's file. The scratch
// folder below the system's temporary folder goes at the end unless --keep.
#include <roomcrate/IZV_FileShare.h>
#include <roomcrate/ZV_Version.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kConfID = 7;
constexpr uint32_t kServerID = 1;
constexpr uint32_t kFileSize = 300000;  // nine blocks and a part of one
constexpr uint32_t kNoConnection = 16;   // the module's code for a send that found no link

class Node;

// What the host owes the module for OnSend: one pump per data connection
// that a kick woke, running while the module keeps sending on it.
struct Pump
{
    Node* lpNode;
    uint32_t ulConn;
    bool operator<(const Pump& p) const { return lpNode != p.lpNode ? lpNode < p.lpNode : ulConn < p.ulConn; }
};

// A PDU on its way. The host copies the payload before the send returns.
struct Delivery
{
    Node* lpTo;
    uint32_t ulConn;  // the receiver's number for the connection
    uint16_t usConnType;
    uint16_t usPdu;
    std::vector<uint8_t> vbData;
    QB_UserID client;  // the client the link serves
};

std::deque<Delivery> g_queue;
std::set<Pump> g_pumps;
uint32_t g_ulTick = 0;  // one more at each OnTimer round

// One end of a client's link to its server: a command and a data connection,
// numbered by this end.
class LinkEnd final : public IZV_ConfLink
{
public:
    Node* lpPeer = nullptr;
    LinkEnd* lpPeerEnd = nullptr;
    QB_UserID client;
    uint32_t ulCommand = zvConnNone;
    uint32_t ulData = zvConnNone;

    uint32_t LinkReserved0() override { return 0; }
    uint32_t GetConn(uint16_t usConnType) override
    {
        if (usConnType == zvConfClientTypeCommand)
            return ulCommand;
        return usConnType == zvConfClientTypeData ? ulData : zvConnNone;
    }
};

// One node of the conference: its manager, and the host as that manager sees
// it. All nodes share one user table, as one conference does.
class Node final : public IZV_ConfHost, public IZV_ConfSink
{
public:
    Node(const char* pszName, bool bServer, QB_UserID self) : m_sName(pszName), m_bServer(bServer), m_self(self) {}

    IZV_ConfModule* m_lpModule = nullptr;
    std::vector<std::unique_ptr<LinkEnd>> m_links;  // a client has one, to its server
    uint64_t m_ullSends = 0;                        // kicks included
    // What the user side keeps of the events.
    uint16_t m_usSharedFileID = 0xFFFF;
    bool m_bDownloadFinished = false;
    double m_dProgress = 0;

    bool Start()
    {
        m_lpModule = zvCreateInstance(ZV_FILESHARE_INTERFACE_NAME);
        if (!m_lpModule)
            return false;
        // The module never sets these itself; they go in before any call.
        m_lpModule->m_lpConf = this;
        m_lpModule->m_lpConfSink = this;
        return m_lpModule->Initialize() == 0;
    }

    IZV_FileShareMgr* UserSide()
    {
        void* lpFace = nullptr;
        return m_lpModule->GetInterface(zvInterfaceFileShareMgr, &lpFace) ? static_cast<IZV_FileShareMgr*>(lpFace)
                                                                           : nullptr;
    }

    LinkEnd* FindLink(uint32_t ulConn, uint16_t* lpusType)
    {
        for (auto& lpEnd : m_links)
        {
            if (lpEnd->ulCommand == ulConn)
                *lpusType = zvConfClientTypeCommand;
            else if (lpEnd->ulData == ulConn)
                *lpusType = zvConfClientTypeData;
            else
                continue;
            return lpEnd.get();
        }
        return nullptr;
    }

    // IZV_ConfHost
    uint32_t GetConfID() override { return kConfID; }
    uint32_t GetClientCount() override { return m_bServer ? (uint32_t)m_links.size() : 0; }
    const QB_UserID* GetLocalUserID() override { return &m_self; }
    uint32_t GetLocalServerID() override { return kServerID; }
    bool IsServerMode() override { return m_bServer; }
    bool IsClientMode() override { return !m_bServer; }
    bool CanShareFiles(const QB_UserID*) override { return true; }
    uint16_t GetFileIDMin() override { return 1; }
    uint16_t GetFileIDMax() override { return 1000; }
    uint32_t GetUserConn(const QB_UserID* lpUser, uint16_t usConnType) override
    {
        IZV_ConfLink* lpLink = GetUserLink(lpUser);
        return lpLink ? lpLink->GetConn(usConnType) : zvConnNone;
    }
    uint32_t GetServerConn(uint32_t, uint16_t, uint32_t) override { return zvConnNone; }
    IZV_ConfLink* GetUserLink(const QB_UserID* lpUser) override
    {
        for (auto& lpEnd : m_links)
            if (m_bServer && lpUser && lpEnd->client == *lpUser)
                return lpEnd.get();
        return nullptr;
    }
    IZV_ConfLink* GetServerLink() override { return m_bServer || m_links.empty() ? nullptr : m_links[0].get(); }
    const ZV_ConfUserInfo* GetUser(const QB_UserID* lpUser) override;

    uint32_t SendPdu(uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen, uint8_t, uint8_t) override
    {
        uint16_t usType = 0;
        LinkEnd* lpEnd = FindLink(ulConn, &usType);
        if (!lpEnd || (!pData && ulLen > 0))
            return kNoConnection;
        ++m_ullSends;
        if (usPdu == PDU_CONF_FS_KICK)  // a request to the host, never delivered
        {
            if (usType == zvConfClientTypeData)
                g_pumps.insert({this, ulConn});
            return 0;
        }
        uint32_t ulPeerConn = lpEnd->lpPeerEnd->GetConn(usType);
        g_queue.push_back({lpEnd->lpPeer, ulPeerConn, usType, usPdu,
                           std::vector<uint8_t>(pData, pData + ulLen), lpEnd->client});
        return 0;
    }
    uint32_t SendPduToGroup(uint32_t ulSkipConn, uint32_t, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                            uint8_t bFlag1, uint8_t bFlag2) override
    {
        if (!m_bServer)
            return kNoConnection;
        for (auto& lpEnd : m_links)
            if (lpEnd->ulCommand != ulSkipConn)
                SendPdu(lpEnd->ulCommand, usPdu, pData, ulLen, bFlag1, bFlag2);
        return 0;
    }
    // This conference has one server: the three server routes find no link.
    uint32_t SendPduOnLink(uint32_t, uint16_t, const uint8_t*, uint32_t, uint8_t, uint8_t) override
    {
        return kNoConnection;
    }
    uint32_t SendPduToServerData(uint32_t, uint16_t, uint16_t, const uint8_t*, uint32_t, uint8_t, uint8_t) override
    {
        return kNoConnection;
    }
    uint32_t SendPduToServers(uint32_t, uint16_t, uint16_t, const uint8_t*, uint32_t, uint8_t, uint8_t) override
    {
        return kNoConnection;
    }
    bool HasServerLinks() override { return false; }
    uint32_t NewFloodSeq(const QB_UserID*, uint32_t) override { return ++m_ulFloodSeq; }
    bool IsFloodSeen(const QB_UserID* lpOrigin, uint32_t ulSeq) override { return !FirstSight(m_seen, lpOrigin, ulSeq); }
    bool IsResponseFloodSeen(const QB_UserID* lpOrigin, uint32_t ulSeq) override
    {
        return !FirstSight(m_seenResponse, lpOrigin, ulSeq);
    }

    // IZV_ConfSink: the user side. Every payload starts with the event number.
    void OnConfEvent(IZV_ConfHost*, uint16_t usEvent, uint32_t ulLen, const uint8_t* pData) override;

private:
    using Seen = std::set<std::pair<std::pair<uint32_t, uint32_t>, uint32_t>>;
    static bool FirstSight(Seen& seen, const QB_UserID* lpOrigin, uint32_t ulSeq)
    {
        QB_UserID origin = lpOrigin ? *lpOrigin : QB_UserID();
        return seen.insert({{origin.m_ulMain, origin.m_ulSub}, ulSeq}).second;
    }

    std::string m_sName;
    bool m_bServer;
    QB_UserID m_self;
    uint32_t m_ulFloodSeq = 0;
    Seen m_seen;
    Seen m_seenResponse;
};

// The conference's users; a server is no user.
const QB_UserID kAlice(10001, 0);
const QB_UserID kBob(10002, 0);
const ZV_ConfUserInfo kUsers[] = {{kServerID, "Alice", 0, 0}, {kServerID, "Bob", 0, 0}};

const ZV_ConfUserInfo* Node::GetUser(const QB_UserID* lpUser)
{
    if (lpUser && *lpUser == kAlice)
        return &kUsers[0];
    return lpUser && *lpUser == kBob ? &kUsers[1] : nullptr;
}

uint16_t U16At(const uint8_t* pb) { return (uint16_t)(pb[0] | pb[1] << 8); }
uint32_t U32At(const uint8_t* pb) { return (uint32_t)U16At(pb) | (uint32_t)U16At(pb + 2) << 16; }
double F64At(const uint8_t* pb)
{
    uint64_t ull = (uint64_t)U32At(pb) | (uint64_t)U32At(pb + 4) << 32;
    double d;
    std::memcpy(&d, &ull, sizeof(d));
    return d;
}

// Events 3000 to 3009 begin with the number, a u32 result and the u16
// FileID; 3008 and 3009 carry a f64 percent behind them.
void Node::OnConfEvent(IZV_ConfHost*, uint16_t usEvent, uint32_t ulLen, const uint8_t* pData)
{
    if (ulLen < 8)
        return;
    const uint32_t ulResult = U32At(pData + 2);
    const uint16_t usFileID = U16At(pData + 6);
    if (usEvent == zvFsEventFileAdded && ulResult == 0)
    {
        m_usSharedFileID = usFileID;
        std::cout << m_sName << ": file " << usFileID << " is shared\n";
    }
    else if ((usEvent == zvFsEventDownloadProgress || usEvent == zvFsEventUploadProgress) && ulLen >= 16)
        m_dProgress = F64At(pData + 8);
    else if (usEvent == zvFsEventDownloadFinished)
    {
        m_bDownloadFinished = ulResult == 0;
        std::cout << m_sName << ": download of file " << usFileID << " ended with result " << ulResult << "\n";
    }
}

// A link comes up: both connections, the command one first, told to both ends.
void Connect(Node& server, Node& client, uint32_t ulFirstConn)
{
    auto lpAtServer = std::make_unique<LinkEnd>();
    auto lpAtClient = std::make_unique<LinkEnd>();
    lpAtServer->lpPeer = &client;
    lpAtServer->lpPeerEnd = lpAtClient.get();
    lpAtClient->lpPeer = &server;
    lpAtClient->lpPeerEnd = lpAtServer.get();
    lpAtServer->client = lpAtClient->client = *client.GetLocalUserID();
    lpAtServer->ulCommand = ulFirstConn;
    lpAtServer->ulData = ulFirstConn + 1;
    lpAtClient->ulCommand = ulFirstConn + 100;
    lpAtClient->ulData = ulFirstConn + 101;
    LinkEnd* lpServerEnd = lpAtServer.get();
    LinkEnd* lpClientEnd = lpAtClient.get();
    server.m_links.push_back(std::move(lpAtServer));
    client.m_links.push_back(std::move(lpAtClient));
    const QB_UserID serverID(kServerID, 0);
    for (uint16_t usType : {zvConfClientTypeCommand, zvConfClientTypeData})
    {
        client.m_lpModule->OnConnect(&serverID, lpClientEnd->GetConn(usType), usType, 0);
        server.m_lpModule->OnConnect(&lpServerEnd->client, lpServerEnd->GetConn(usType), usType, 0);
    }
    QB_UserID user = lpServerEnd->client;
    server.m_lpModule->OnEvent(zvConfEventUserEnter, 0, (uintptr_t)&user, 0, 0);
}

// On a client link the user fields name the client at both ends.
void Deliver(Delivery& d)
{
    ConfPduData cpd{};
    cpd.ulUserMain = d.client.m_ulMain;
    cpd.ulUserSub = d.client.m_ulSub;
    cpd.ulConn = d.ulConn;
    cpd.conn_type = d.usConnType;
    cpd.usPdu = d.usPdu;
    cpd.ulLen = (uint32_t)d.vbData.size();
    cpd.pData = d.vbData.data();
    d.lpTo->m_lpModule->HandlePdu(&cpd);
}

// One OnSend call for a woken pump; it goes back to rest when the call sent
// nothing, and the next kick wakes it.
void RunPump(const Pump& pump)
{
    uint16_t usType = 0;
    LinkEnd* lpEnd = pump.lpNode->FindLink(pump.ulConn, &usType);
    ConfPduData cpd{};
    cpd.ulUserMain = lpEnd->client.m_ulMain;
    cpd.ulUserSub = lpEnd->client.m_ulSub;
    cpd.ulConn = pump.ulConn;
    cpd.conn_type = usType;
    const uint64_t ullBefore = pump.lpNode->m_ullSends;
    pump.lpNode->m_lpModule->OnSend(&cpd);
    if (pump.lpNode->m_ullSends == ullBefore)
        g_pumps.erase(pump);
}

// The host's loop, on one thread: deliver what is queued, then give each
// woken pump one OnSend, and every node a timer tick per round.
template <typename Done>
bool RunUntil(const std::vector<Node*>& nodes, Done fnDone)
{
    for (int nRound = 0; nRound < 100000 && !fnDone(); ++nRound)
    {
        while (!g_queue.empty())
        {
            Delivery d = std::move(g_queue.front());
            g_queue.pop_front();
            Deliver(d);
        }
        for (Pump pump : std::set<Pump>(g_pumps))
            RunPump(pump);
        ++g_ulTick;
        for (Node* lpNode : nodes)
            lpNode->m_lpModule->OnTimer(g_ulTick);
    }
    return fnDone();
}

std::u16string Utf16(const std::string& s)
{
    std::u16string sOut;
    for (size_t i = 0; i < s.size();)
    {
        unsigned char c = (unsigned char)s[i];
        int nMore = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
        char32_t ch = nMore ? c & (0x3F >> nMore) : c;
        for (++i; nMore-- > 0 && i < s.size(); ++i)
            ch = ch << 6 | ((unsigned char)s[i] & 0x3F);
        if (ch >= 0x10000)
            sOut += {(char16_t)(0xD800 + ((ch - 0x10000) >> 10)), (char16_t)(0xDC00 + (ch & 0x3FF))};
        else
            sOut += (char16_t)ch;
    }
    return sOut;
}

std::vector<char> ReadAll(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

int Run(const fs::path& root)
{
    // The server reads "confsrv.ini" from the home folder; the clients only
    // log there. One process has one home, so all three share it.
    fs::create_directories(root / "home" / "log");
    fs::create_directories(root / "alice");
    fs::create_directories(root / "bob");
    std::ofstream(root / "home" / "confsrv.ini") << "[FileShare]\r\nPath=" << (root / "store").string() << "/\r\n";
    setenv("ROOMCRATE_HOME", (root / "home").c_str(), 1);

    const fs::path source = root / "alice" / "report.bin";
    const fs::path target = root / "bob" / "report.bin";
    {
        std::ofstream out(source, std::ios::binary);
        for (uint32_t i = 0; i < kFileSize; ++i)
            out.put((char)(i * 7 + i / 251));
    }

    Node server("server", true, QB_UserID(kServerID, 0));
    Node alice("Alice", false, kAlice);
    Node bob("Bob", false, kBob);
    if (!zvInitialize() || !server.Start() || !alice.Start() || !bob.Start())
    {
        std::cerr << "the module did not start\n";
        return 1;
    }
    Connect(server, alice, 1);
    Connect(server, bob, 11);
    const std::vector<Node*> nodes = {&server, &alice, &bob};

    // Alice shares the file for everybody and starts its upload at once.
    const uint32_t ulAdd = alice.UserSide()->FsAdd(Utf16(source.string()).c_str(), nullptr, 0, 1, 1);
    if (ulAdd != 0 || !RunUntil(nodes, [&] { return bob.m_usSharedFileID != 0xFFFF; }))
    {
        std::cerr << "FsAdd answered " << ulAdd << " and Bob heard of no file\n";
        return 1;
    }
    // Bob asks for it while it may still be arriving at the server.
    const uint32_t ulDownload = bob.UserSide()->FsDownload(bob.m_usSharedFileID, Utf16(target.string()).c_str());
    if (ulDownload != 0 || !RunUntil(nodes, [&] { return bob.m_bDownloadFinished; }))
    {
        std::cerr << "FsDownload answered " << ulDownload << " and the download did not finish\n";
        return 1;
    }
    for (Node* lpNode : {&bob, &alice, &server})
        zvDestroyInstance(lpNode->m_lpModule);
    zvUninitialize();

    const bool bSame = ReadAll(source) == ReadAll(target);
    std::cout << "Bob's copy (" << fs::file_size(target) << " bytes, " << bob.m_dProgress << "%) is "
              << (bSame ? "identical to" : "DIFFERENT from") << " Alice's file\n";
    return bSame ? 0 : 1;
}

}  // namespace

const char kUsage[] = "usage: minimal_host [--keep]\n"
                      "  One server and two clients in this process, on roomcrate " ROOMCRATE_VERSION ": Alice\n"
                      "  shares a file, Bob downloads it, and the two copies are compared.\n"
                      "  --keep  keep the scratch folder (homes, store, both copies) at the end\n"
                      "  --help  this text\n";

int main(int argc, char** argv)
{
    const std::string sArg = argc > 1 ? argv[1] : "";
    if (sArg == "--help" || sArg == "-h")
    {
        std::cout << kUsage;
        return 0;
    }
    if (argc > 2 || (argc == 2 && sArg != "--keep"))
    {
        std::cerr << kUsage;
        return 2;
    }
    const bool bKeep = sArg == "--keep";
    std::string sTemplate = (fs::temp_directory_path() / "roomcrate-example-XXXXXX").string();
    if (!mkdtemp(sTemplate.data()))
    {
        std::perror("mkdtemp");
        return 1;
    }
    const int nStatus = Run(sTemplate);
    if (bKeep)
        std::cout << "kept " << sTemplate << "\n";
    else
        fs::remove_all(sTemplate);
    return nStatus;
}
