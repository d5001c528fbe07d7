#include "ZV_RandomScenario.h"
#include "ZV_UserView.h"
#include "wire/ZV_PduTable.h"

#include "ZV_SimBuilder.h"
#include "ZV_SimMachine.h"

#include "delete/ZV_DeletePdu.h"
#include "core/ZV_FileShareMgr.h"
#include "ZV_FileShareMgrPeer.h"
#include "core/ZV_FileShareSession.h"
#include "ZV_FileShareSessionPeer.h"

#include "QB_ByteStream.h"
#include "QB_TestSupport.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <sstream>

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kConfID = ZV_SimBuilder::kConfID;
// Sizes around the block, so that ends of blocks and of PDUs are met.
constexpr uint32_t kSizes[] = {0, 1, 1000, 32767, 32768, 32769, 65543, 98304, 98305, 150000, 250007};

template <typename T> std::string Num(T n) { return std::to_string(n); }

ZV_FileShareMgr* Manager(ZV_SimHost* lpNode)
{
    return static_cast<ZV_FileShareMgr*>(lpNode->GetModule());
}

ZV_FileShareSession* FindSession(ZV_SimHost* lpNode, uint16_t usFileID)
{
    return ZV_FileShareMgrPeer::Find(*Manager(lpNode), usFileID);
}

// fn(usFileID, session) for every session a node holds.
void ForEachSession(ZV_SimHost* lpNode, const std::function<void(uint16_t, ZV_FileShareSession&)>& fn)
{
    ZV_FileShareMgrPeer::ForEach(*Manager(lpNode), [&](uint16_t usFileID, ZV_FileShareSession* lpFsSession) {
        fn(usFileID, *lpFsSession);
    });
}

// What a client and each server hold of a file, for a problem's line.
std::string DescribeFile(ZV_SimHost* lpClient, const std::vector<ZV_SimHost*>& vecServers, uint16_t usFileID)
{
    std::string sText = " (no session)";
    if (ZV_FileShareSession* lpOwn = FindSession(lpClient, usFileID))
    {
        const ZV_FileDownloadInfo& d = lpOwn->LocalDownload();
        const ZV_FileBriefInfo& b = lpOwn->BriefInfo();
        sText = " (" + Narrow(b.m_sFileOldName) + ", " + (b.m_CreatorID == lpClient->GetUserID() ? "creator, " : "") +
                (b.m_bPublic ? "public, " : "") + (lpOwn->IsFileVisible(b) ? "" : "hidden, ") + "file state " +
                Num(b.m_usFileState) + ", length " + Num(b.m_ulFileLenth) + ", max " + Num(lpOwn->MaxPos()) +
                ", download state " + Num(d.m_usState) + " at " + Num(d.m_ulDownloadPos) +
                (ZV_FileShareSessionPeer::DownloadFailed(*lpOwn) ? ", failed" : "") + ")";
    }
    for (size_t n = 1; n <= vecServers.size(); ++n)
    {
        ZV_FileShareSession* lpHeld = FindSession(vecServers[n - 1], usFileID);
        sText += "; server " + Num(n) + ": " + (lpHeld ? "" : "none");
        if (lpHeld == nullptr)
            continue;
        const ZV_FileUploadInfo& info = lpHeld->FileInfo();
        const ZV_FileBriefInfo& b = info.m_BriefInfo;
        sText += Narrow(b.m_sFileOldName) + ", state " + Num(b.m_usFileState) + ", written " +
                 Num(info.m_ulFileWritePos) + ", max " + Num(lpHeld->MaxPos()) +
                 (lpHeld->IsUploadStopped() ? ", stopped" : "") + (b.m_bPublic ? ", public" : "") + ", rights " +
                 Num(b.m_arrRight.GetSize()) + ", fetch " + Num(lpHeld->LocalDownload().m_usState) + " at " +
                 Num(lpHeld->LocalDownload().m_ulDownloadPos);
        ZV_DownloadMap& map = ZV_FileShareSessionPeer::Downloads(*lpHeld);
        for (QB_POSITION pos = map.GetStartPosition(); pos != nullptr;)
        {
            QB_UserID user;
            ZV_FileDownloadInfo* pEntry = map.GetNextAssoc(pos, user);
            sText += ", entry " + Num(user.m_ulMain) + " " + Num(pEntry->m_usState) + "@" +
                     Num(pEntry->m_ulDownloadPos) + (pEntry->m_bActive ? " active" : "") +
                     (pEntry->m_bStopped ? " stopped" : "");
        }
    }
    return sText;
}

// nodes/NODE/: "confsrv.ini", catalogue, share ledger, logs, and a server's
// store of its conference's files.
bool IsNodeFile(const std::vector<std::string>& vecPart)
{
    return (vecPart.size() == 3 && (vecPart[2] == "confsrv.ini" || vecPart[2].rfind("fsinfo.ini", 0) == 0 ||
                                    vecPart[2].rfind("fsshared.ini", 0) == 0)) ||
           (vecPart.size() >= 4 && vecPart[2] == "log") ||
           (vecPart[1].rfind("srv", 0) == 0 && vecPart.size() == 5 && vecPart[2] == "store" &&
            vecPart[3] == Num(kConfID));
}

} // namespace

struct ZV_RandomScenario::Client
{
    ZV_SimHost* lpNode = nullptr;
    ZV_SimHost* lpHome = nullptr;
    std::unique_ptr<ZV_UserView> lpView;
    std::string sName;
    std::string sSources;
    // Every path the user asked to download to, in host form.
    std::set<std::string> setTargets;
    // The user's own files whose delete went: the user took them back.
    std::set<std::string> setWithdrawn;
    bool bPresent = true;

    IZV_FileShareMgr* Fs() const { return lpNode->GetFileShareMgr(); }
    const QB_UserID& Self() const { return lpNode->GetUserID(); }
};

// A delete a user asked for, and where the journal stood then.
struct ZV_RandomScenario::Deleted
{
    const Client* lpClient = nullptr;
    uint16_t usFileID = 0;
    std::string sName;
    size_t nJournalAt = 0;
};

std::string ZV_RandomReport::Describe() const
{
    std::ostringstream out;
    out << "seed " << ulSeed << ", " << nSteps << " steps: " << (Passed() ? "passed" : "FAILED") << "\n";
    for (const std::string& sProblem : vecProblems)
        out << "  " << sProblem << "\n";
    if (!Passed())
        out << "replay: random_scenarios --seed " << ulSeed << " --steps " << nSteps
            << (bSmallFileIDs ? " --few-ids" : "") << " --verbose\n"
            << "steps:\n" << sSteps << "journal tail:\n" << sJournalTail;
    return out.str();
}

ZV_RandomScenario::ZV_RandomScenario(ZV_RandomOptions options)
    : m_options(std::move(options)), m_rng(m_options.ulSeed) {}

ZV_RandomScenario::~ZV_RandomScenario() = default;

uint32_t ZV_RandomScenario::Random(uint32_t ulBelow)
{
    if (ulBelow == 0)
        return 0;
    return m_options.fnDraw ? m_options.fnDraw(ulBelow) % ulBelow : (uint32_t)(m_rng() % ulBelow);
}

ZV_RandomReport ZV_RandomScenario::Run()
{
    ZV_RandomReport report{m_options.ulSeed, m_options.nSteps, m_options.bSmallFileIDs, {}, {}, {}};
    if (Build())
    {
        for (int i = 0; i < m_options.nSteps && m_vecProblems.empty(); ++i)
            TakeStep();
        // The disk mends before the conference settles.
        m_lpSim->GetEnv().ClearFaults();
        if (m_vecProblems.empty())
            Settle();
        using S = ZV_RandomScenario;
        if (m_vecProblems.empty())
            for (auto fnCheck : {&S::CheckDownloads, &S::CheckCatalogues, &S::CheckDeletes, &S::CheckWrites,
                                 &S::CheckIdle, &S::CheckFlags, &S::CheckViews})
                (this->*fnCheck)();
    }
    report.vecProblems = m_vecProblems;
    const size_t nKept = m_options.bWholeJournal ? SIZE_MAX : 40;
    for (size_t i = m_vecSteps.size() > nKept ? m_vecSteps.size() - nKept : 0; i < m_vecSteps.size(); ++i)
        report.sSteps += "  " + Num(i) + ": " + m_vecSteps[i] + "\n";
    const size_t nSize = m_lpSim->Journal().Size();
    report.sJournalTail = m_lpSim->Journal().Dump(m_options.bWholeJournal || nSize <= 60 ? 0 : nSize - 60);
    return report;
}

bool ZV_RandomScenario::Build()
{
    ZV_SimOptions options;
    options.sRoot = m_options.sRoot + "/nodes";
    options.nJournalPayloadBytes = 64;
    options.nJournalEntries = m_options.bWholeJournal ? SIZE_MAX : 4000;
    m_lpSim = std::make_unique<ZV_SimConference>(ZV_SimModuleApi::Linked(), options);
    m_nServers = 2 + (int)Random(2);
    for (int n = 1; n <= m_nServers; ++n)
        m_lpSim->SetFileIDRange((uint32_t)n, (uint16_t)((n - 1) * FileIDsPerServer() + 1),
                                (uint16_t)(n * FileIDsPerServer()));
    const ZV_SimShape shape = ZV_SimBuilder::ServersInALine(*m_lpSim, m_nServers, 0);
    Expect(shape.IsComplete(), "the conference could not be built");
    m_vecServers = shape.vecServers;
    for (int n = 1; n <= m_nServers && m_vecProblems.empty(); ++n)
        for (int i = 0, nCount = 1 + (int)Random(2); i < nCount && m_vecProblems.empty(); ++i)
        {
            const ZV_SimUser user = ZV_SimBuilder::MakeUser((uint32_t)n, i);
            const std::string sName = "u" + Num(user.id.m_ulMain);
            ZV_SimHost* lpNode = m_lpSim->AddClient(kConfID, user);
            Expect(lpNode != nullptr, "a client could not join");
            if (lpNode == nullptr)
                break;
            auto lpView = std::make_unique<ZV_UserView>(lpNode, m_lpSim->Journal(), sName,
                                                        [this](const std::string& s) { Problem(s); });
            const std::string sSources = m_options.sRoot + "/src/" + sName;
            fs::create_directories(sSources);
            m_vecClients.push_back(std::make_unique<Client>(
                Client{lpNode, m_vecServers[n - 1], std::move(lpView), sName, sSources, {}, {}, true}));
        }
    if (!m_vecProblems.empty())
        return false;
    Note("servers " + Num(m_nServers) + ", clients " + Num(m_vecClients.size()));
    Deliver();
    return m_vecProblems.empty();
}

// All of the delivery, or a few steps of it: the next step may meet PDUs.
void ZV_RandomScenario::Deliver()
{
    if (Chance(50))
        return Expect(m_lpSim->Run(), "the conference never settled");
    for (uint32_t nSteps = Random(400); nSteps > 0 && m_lpSim->Step(); --nSteps)
        continue;
}

void ZV_RandomScenario::TakeStep()
{
    // With few FileIDs, shares and deletes come more often, so that numbers
    // run out, free up and are given out again in every run.
    const bool bFew = m_options.bSmallFileIDs;
    using S = ZV_RandomScenario;
    std::vector<std::pair<uint32_t, std::function<void()>>> aSteps = {
        {bFew ? 22u : 14u, [this] { StepShare(); }},
        {4, [this] { StepShareBatch(); }},
        {4, [this] { WithFile(Whose::Own, std::bind_front(&S::StepUpload, this)); }},
        {18, [this] { WithFile(Whose::Any, std::bind_front(&S::StepDownload, this)); }},
        {8, [this] { WithFile(Whose::Any, std::bind_front(&S::StepStopOrResume, this, false)); }},
        {5, [this] { WithFile(Whose::Own, std::bind_front(&S::StepStopOrResume, this, true)); }},
        {6, [this] { WithFile(Whose::Own, std::bind_front(&S::StepRights, this)); }},
        {bFew ? 16u : 5u, [this] { WithFile(Whose::MostlyOwn, std::bind_front(&S::StepDelete, this)); }},
        {3, [this] { WithFile(Whose::Any, std::bind_front(&S::StepDropDownload, this)); }},
        {10, [this] { StepCutOrRestore(); }},
        {6, [this] { StepLeaveOrRejoin(); }},
        {3, [this] { StepRestartServer(); }},
        {2, [this] { StepRestartClient(); }},
        {2, [this] { StepRole(); }},
        {8, [this] { StepTime(); }},
    };
    if (m_options.fnDraw)
    {
        aSteps.push_back({8, [this] { StepHostilePdu(); }});
        aSteps.push_back({3, [this] { StepFileFault(); }});
    }
    uint32_t ulTotal = 0;
    for (const auto& step : aSteps)
        ulTotal += step.first;
    auto it = aSteps.begin();
    for (uint32_t ulPick = Random(ulTotal); ulPick >= it->first; ++it)
        ulPick -= it->first;
    it->second();
    Deliver();
}

ZV_RandomScenario::Client& ZV_RandomScenario::AnyClient()
{
    return *m_vecClients[Random((uint32_t)m_vecClients.size())];
}

// A step on any client and a file it holds, if it holds one of those asked:
// any, its user's own, or its user's own but now and then another's.
void ZV_RandomScenario::WithFile(Whose eWhose, const std::function<void(Client&, uint16_t)>& fnStep)
{
    Client& client = AnyClient();
    const bool bOwnOnly = eWhose == Whose::MostlyOwn ? !Chance(20) : eWhose == Whose::Own;
    std::vector<uint16_t> vecFileID;
    ForEachSession(client.lpNode, [&](uint16_t usFileID, ZV_FileShareSession& session) {
        if (!bOwnOnly || session.BriefInfo().m_CreatorID == client.Self())
            vecFileID.push_back(usFileID);
    });
    if (!vecFileID.empty())
        fnStep(client, vecFileID[Random((uint32_t)vecFileID.size())]);
}

// A new file of the client's, of a name and bytes unique in the run.
std::string ZV_RandomScenario::MakeSource(const Client& client)
{
    const std::string sName = "f" + Num(++m_nNextShare) + "_" + client.sName + ".bin";
    std::vector<uint8_t> vbData(kSizes[Random(sizeof kSizes / sizeof kSizes[0])]);
    std::mt19937 rngBytes(m_options.ulSeed * 7919u + (uint32_t)m_nNextShare);
    for (uint8_t& b : vbData)
        b = (uint8_t)rngBytes();
    const std::string sPath = client.sSources + "/" + sName;
    QB_WriteWholeFile(sPath, vbData);
    m_mapShares[sName] = sPath;
    return sName;
}

std::vector<QB_UserID> ZV_RandomScenario::SomeUsers()
{
    std::vector<QB_UserID> vecUsers;
    for (const auto& lpClient : m_vecClients)
        if (Chance(40))
            vecUsers.push_back(lpClient->Self());
    return vecUsers;
}

std::vector<ZV_SimLink*> ZV_RandomScenario::ServerLinks() const
{
    std::vector<ZV_SimLink*> vecLinks;
    for (int n = 1; n < m_nServers; ++n)
        vecLinks.push_back(m_lpSim->GetServerLink((uint32_t)n, (uint32_t)n + 1));
    return vecLinks;
}

const std::string* ZV_RandomScenario::FindShare(const std::string& sName) const
{
    const auto it = m_mapShares.find(sName);
    return it == m_mapShares.end() ? nullptr : &it->second;
}

void ZV_RandomScenario::StepShare()
{
    Client& client = AnyClient();
    const std::string sName = MakeSource(client);
    const std::vector<QB_UserID> vecRight = SomeUsers();
    const uint8_t bPublic = Chance(70) ? 1 : 0;
    const uint8_t bStart = Chance(70) ? 1 : 0;
    const uint32_t ulResult = client.Fs()->FsAdd(QB_ToWindowsPath(client.sSources + "/" + sName).GetString(), vecRight.data(),
                                                 (uint32_t)vecRight.size(), bPublic, bStart);
    Note(client.sName + " shares " + sName + (bPublic ? " public" : " to some") + (bStart ? ", starting" : "") +
         ": " + Num(ulResult));
}

void ZV_RandomScenario::StepShareBatch()
{
    Client& client = AnyClient();
    std::vector<std::string> vecNames;
    std::vector<QB_StringW> vecWide;
    for (uint32_t i = 0, nCount = 2 + Random(3); i < nCount; ++i)
        vecWide.push_back(QB_ToWindowsPath(vecNames.emplace_back(MakeSource(client))));
    std::vector<const char16_t*> vecPtr;
    for (const QB_StringW& s : vecWide)
        vecPtr.push_back(s.GetString());
    const uint32_t ulResult = client.Fs()->FsFilesAdd(QB_ToWindowsPath(client.sSources + "/").GetString(), vecPtr.data(),
                                                      (uint32_t)vecPtr.size(), nullptr, 0, 1, Chance(70) ? 1 : 0);
    Note(client.sName + " shares " + Num(vecNames.size()) + " files from " + vecNames.front() + ": " + Num(ulResult));
}

void ZV_RandomScenario::StepUpload(Client& client, uint16_t usFileID)
{
    Note(client.sName + " uploads " + Num(usFileID) + ": " + Num(client.Fs()->FsUpload(usFileID)));
}

void ZV_RandomScenario::StepDownload(Client& client, uint16_t usFileID)
{
    const std::string sTarget = m_options.sRoot + "/dl/" + client.sName + "/d" + Num(++m_nNextTarget) + ".bin";
    client.setTargets.insert(sTarget);
    const uint32_t ulResult = client.Fs()->FsDownload(usFileID, QB_ToWindowsPath(sTarget).GetString());
    Note(client.sName + " downloads " + Num(usFileID) + " to " + fs::path(sTarget).filename().string() + ": " +
         Num(ulResult));
}

// A download of any file, or an upload of the user's own.
void ZV_RandomScenario::StepStopOrResume(bool bUpload, Client& client, uint16_t usFileID)
{
    const bool bStop = Chance(50);
    IZV_FileShareMgr* lpFs = client.Fs();
    const uint32_t ulResult = bUpload ? (bStop ? lpFs->FsStopUpload(usFileID) : lpFs->FsResumeUpload(usFileID))
                                      : (bStop ? lpFs->FsStopDownload(usFileID) : lpFs->FsResumeDownload(usFileID));
    Note(client.sName + (bStop ? " stops" : " resumes") + (bUpload ? " upload " : " download ") + Num(usFileID) +
         ": " + Num(ulResult));
}

void ZV_RandomScenario::StepRights(Client& client, uint16_t usFileID)
{
    const std::vector<QB_UserID> vecAdd = SomeUsers();
    const std::vector<QB_UserID> vecRemove = SomeUsers();
    const uint8_t bPublic = Chance(40) ? 1 : 0;
    const uint32_t ulResult = client.Fs()->FsSetRight(usFileID, bPublic, vecAdd.data(), (uint32_t)vecAdd.size(),
                                                         vecRemove.data(), (uint32_t)vecRemove.size());
    Note(client.sName + " sets the rights of " + Num(usFileID) + (bPublic ? " public" : " to a list") + ": " +
         Num(ulResult));
}

void ZV_RandomScenario::StepDelete(Client& client, uint16_t usFileID)
{
    const ZV_FileShareSession* lpFsSession = FindSession(client.lpNode, usFileID);
    const std::string sName = lpFsSession ? Narrow(lpFsSession->BriefInfo().m_sFileOldName) : std::string();
    m_vecDeleted.push_back({&client, usFileID, sName, m_lpSim->Journal().Size()});
    const bool bOwn = lpFsSession != nullptr && lpFsSession->BriefInfo().m_CreatorID == client.Self();
    const uint32_t ulResult = client.Fs()->FsDelUpload(usFileID);
    if (ulResult == zvResultOk && bOwn)
        client.setWithdrawn.insert(sName);
    Note(client.sName + " deletes " + Num(usFileID) + " (" + sName + "): " + Num(ulResult));
}

void ZV_RandomScenario::StepDropDownload(Client& client, uint16_t usFileID)
{
    const uint8_t bDelete = Chance(50) ? 1 : 0;
    Note(client.sName + " drops download " + Num(usFileID) + (bDelete ? " and its file" : "") + ": " +
         Num(client.Fs()->FsDelDownload(usFileID, bDelete)));
}

// A server link, whole or its data only, or a client's data connection.
void ZV_RandomScenario::StepCutOrRestore()
{
    const bool bServerLink = Chance(50) && m_nServers > 1;
    const uint32_t n = bServerLink ? 1 + Random((uint32_t)m_nServers - 1) : 0;
    const Client* lpClient = bServerLink ? nullptr : &AnyClient();
    if (lpClient != nullptr && !lpClient->bPresent)
        return;
    ZV_SimLink* lpLink = lpClient ? m_lpSim->GetClientLink(lpClient->lpNode) : m_lpSim->GetServerLink(n, n + 1);
    const std::string sWhat = lpClient ? lpClient->sName + "'s link" : "server link " + Num(n) + "-" + Num(n + 1);
    // A client's command connection going is the step of leaving.
    const bool bDataOnly = !lpLink->IsServerLink() || Chance(30);
    const uint16_t usData = lpLink->IsServerLink() ? zvConfServerTypeData : zvConfClientTypeData;
    const bool bUp = lpLink->IsUp(zvSimCommand) && lpLink->IsUp(zvSimData);
    if (bUp)
        bDataOnly ? m_lpSim->Cut(lpLink, usData) : m_lpSim->CutLink(lpLink);
    else if (!lpLink->IsUp(zvSimCommand))
        m_lpSim->RestoreLink(lpLink);
    else
        m_lpSim->Restore(lpLink, usData);
    Note(std::string(bUp ? "cut " : "restore ") + (bUp && bDataOnly ? "the data of " : "") + sWhat);
}

void ZV_RandomScenario::StepLeaveOrRejoin()
{
    Client& client = AnyClient();
    if (client.bPresent)
    {
        client.bPresent = !m_lpSim->Leave(client.lpNode);
        return Note(client.sName + " leaves");
    }
    const bool bReturning = Chance(50);
    client.bPresent = m_lpSim->Rejoin(client.lpNode, bReturning);
    Note(client.sName + (bReturning ? " returns" : " rejoins"));
}

// A restarted server forgets its deletes; they may come back from a server
// cut off or whose lists are still on their way.
void ZV_RandomScenario::StepRestartServer()
{
    const uint32_t n = 1 + Random((uint32_t)m_nServers);
    const bool bAllUp = std::ranges::all_of(ServerLinks(), [](ZV_SimLink* lpLink) {
        return lpLink->IsUp(zvSimCommand) && lpLink->IsUp(zvSimData);
    });
    if (!bAllUp || m_lpSim->GetPending() != 0)
        m_nDeletesMayReturn = m_vecDeleted.size();
    ZV_SimHost* lpServer = m_vecServers[n - 1];
    Expect(m_lpSim->RestartServer(lpServer), "server " + Num(n) + " could not restart");
    Note("server " + Num(n) + " restarts");
    // A manager that could not read its configuration runs no conference (a
    // network server stops there): it starts again once the disk is sound.
    if (lpServer->GetInitializeResult() == zvResultOk)
        return;
    m_lpSim->GetEnv().ClearFaults();
    Expect(m_lpSim->RestartServer(lpServer) && lpServer->GetInitializeResult() == zvResultOk,
           "server " + Num(n) + " could not start again");
    Note("server " + Num(n) + " could not read its configuration and starts again");
}

void ZV_RandomScenario::StepRestartClient()
{
    Client& client = AnyClient();
    if (!client.bPresent)
        return;
    client.lpView->Forget();
    Expect(m_lpSim->RestartClient(client.lpNode), client.sName + " could not restart");
    Note(client.sName + " restarts");
}

void ZV_RandomScenario::StepRole()
{
    Client& client = AnyClient();
    if (!client.bPresent)
        return;
    const uint16_t usRole = client.lpNode->GetUserRecord().usRole == zvUserRolePrivileged ? 0 : zvUserRolePrivileged;
    m_lpSim->SetUserRole(client.lpNode, usRole);
    Note(client.sName + (usRole ? " becomes privileged" : " is no longer privileged"));
}

void ZV_RandomScenario::StepTime()
{
    const uint32_t ulMs = Chance(30) ? 16000 + Random(10000) : 100 + Random(3000);
    Expect(m_lpSim->AdvanceTime(ulMs), "the conference never settled while the clock moved");
    Note("the clock moves " + Num(ulMs) + " ms");
}

// A PDU of any number and payload from a client on either link: its server
// takes it only in the link user's name, so every check still holds.
void ZV_RandomScenario::StepHostilePdu()
{
    Client& client = AnyClient();
    if (!client.bPresent)
        return;
    const uint32_t ulRow = Random((uint32_t)std::size(kPduTable) + 1);
    const uint16_t usPdu = ulRow < std::size(kPduTable) ? kPduTable[ulRow].usPdu : (uint16_t)Random(65536);
    const uint16_t usConnType = Chance(50) ? zvConfClientTypeCommand : zvConfClientTypeData;
    std::vector<uint8_t> vbPayload(Random(Chance(10) ? 70000 : 120));
    for (uint8_t& b : vbPayload)
        b = (uint8_t)Random(256);
    const uint32_t ulConn = client.lpHome->GetUserConn(&client.Self(), usConnType);
    if (ulConn == zvConnNone)
        return;
    client.lpHome->DeliverPdu(*client.lpNode->GetMachine(), ulConn, usConnType, usPdu, vbPayload.data(),
                              (uint32_t)vbPayload.size());
    Note(client.sName + " sends its server " + Num(usPdu) + " of " + Num(vbPayload.size()) + " bytes");
    Deliver();
}

// The next file operation of a kind fails, once or until the next such step.
void ZV_RandomScenario::StepFileFault()
{
    QB_FaultEnv& env = m_lpSim->GetEnv();
    env.ClearFaults();
    if (Chance(30))
        return Note("file operations succeed");
    const auto op = (QB_EnvOp)Random((uint32_t)QB_EnvOp::Count_);
    const int nNth = 1 + (int)Random(20);
    env.FailAt(op, nNth, Chance(20));
    Note("file operation " + Num((int)op) + " fails at the " + Num(nNth) + "th");
}

// Everything comes back, what stands still goes on, the conference settles.

void ZV_RandomScenario::Settle()
{
    Note("settle");
    for (ZV_SimLink* lpLink : ServerLinks())
        m_lpSim->RestoreLink(lpLink);
    for (const auto& lpClient : m_vecClients)
        if (!lpClient->bPresent)
            lpClient->bPresent = m_lpSim->Rejoin(lpClient->lpNode, false);
        else
            m_lpSim->RestoreLink(m_lpSim->GetClientLink(lpClient->lpNode));
    Expect(m_lpSim->Run(), "the conference never settled after everything came back");
    if (!m_vecProblems.empty())
        return;
    for (const auto& lpClient : m_vecClients)
    {
        const std::map<uint16_t, ZV_ToldFile>& mapTold = lpClient->lpView->Files();
        std::vector<std::pair<uint16_t, bool>> vecResume;
        // A stopped upload goes on, and one its user was told had failed (a
        // store the server could not write, say) is tried again.
        ForEachSession(lpClient->lpNode, [&](uint16_t usFileID, ZV_FileShareSession& session) {
            const auto it = mapTold.find(usFileID);
            const bool bToldFailed = it != mapTold.end() && it->second.usState == zvFileStateFailed;
            if (session.BriefInfo().m_CreatorID == lpClient->Self() &&
                (session.BriefInfo().m_usFileState == zvFileStateStopped || bToldFailed))
                vecResume.push_back({usFileID, true});
            if (session.LocalDownload().m_usState == zvDownloadStateStopped)
                vecResume.push_back({usFileID, false});
        });
        for (const auto& [usFileID, bUpload] : vecResume)
            bUpload ? lpClient->Fs()->FsResumeUpload(usFileID) : lpClient->Fs()->FsResumeDownload(usFileID);
    }
    // Long enough for every stall to be looked at more than once.
    for (int i = 0; i < 6 && m_vecProblems.empty(); ++i)
        Expect(m_lpSim->AdvanceTime(25000), "the conference never settled");
}

// A finished download is compared with the file its record names.
void ZV_RandomScenario::CheckDownloads()
{
    for (const auto& lpClient : m_vecClients)
        ForEachSession(lpClient->lpNode, [&](uint16_t usFileID, ZV_FileShareSession& session) {
            const ZV_FileDownloadInfo& download = session.LocalDownload();
            if (download.m_usState != zvDownloadStateFinished)
                return;
            const std::string sShare = Narrow(download.m_sFileFullName);
            const std::string* lpSource = FindShare(sShare);
            std::string sLocal = Narrow(download.m_sFilePath + download.m_sFileName);
            std::replace(sLocal.begin(), sLocal.end(), '\\', '/');
            if (lpSource == nullptr)
                Problem(lpClient->sName + " finished a download of " + Num(usFileID) + " from a file nobody shared: " +
                        Narrow(download.m_sFileFullName));
            else if (fs::exists(sLocal) && QB_ReadWholeFile(sLocal) != QB_ReadWholeFile(*lpSource))
                Problem(lpClient->sName + "'s download of " + Num(usFileID) + " (" + sShare +
                        ") differs from its source");
        });
}

// Each catalogue row names a stored file in the conference's folder; a
// complete row's file has every byte of its source.
void ZV_RandomScenario::CheckCatalogues()
{
    for (int n = 1; n <= m_nServers; ++n)
    {
        ZV_SimHost* lpServer = m_vecServers[n - 1];
        ZV_FileCatalog& catalog = ZV_FileShareMgrPeer::Catalog(*Manager(lpServer));
        for (uint32_t ulFileID = 1; ulFileID <= (uint32_t)m_nServers * FileIDsPerServer(); ++ulFileID)
        {
            ZV_FileUploadInfo row;
            QB_StringW sSection;
            if (!catalog.LoadFile((uint16_t)kConfID, (uint16_t)ulFileID, row, sSection))
                continue;
            const ZV_FileBriefInfo& brief = row.m_BriefInfo;
            const std::string sName = Narrow(brief.m_sFileOldName);
            const std::string sWhere = "server " + Num(n) + ", row " + Num(ulFileID) + " (" + sName + ")";
            const std::string sStored =
                lpServer->GetHome() + "store/" + Num(kConfID) + "/" + Narrow(row.m_sFileNewName);
            std::error_code ec;
            const uintmax_t nSize = fs::file_size(sStored, ec);
            // A row of a file no longer held is a removal the disk refused
            // to save: nothing reads it, and a restart drops it.
            if (ec && FindSession(lpServer, (uint16_t)ulFileID) != nullptr)
                Problem(sWhere + ": no stored file " + Narrow(row.m_sFileNewName));
            else if (!ec && nSize > brief.m_ulFileLenth)
                Problem(sWhere + ": the stored file is longer than the file");
            else if (!ec && brief.m_usFileState == zvFileStateComplete && nSize != brief.m_ulFileLenth)
                Problem(sWhere + ": complete, but " + Num(nSize) + " of " + Num(brief.m_ulFileLenth) + " bytes stored");
            else if (!ec && brief.m_usFileState == zvFileStateComplete &&
                     (!FindShare(sName) || QB_ReadWholeFile(sStored) != QB_ReadWholeFile(*FindShare(sName))))
                Problem(sWhere + ": the stored bytes differ from the source");
        }
    }
}

// Once an 8009 with result 0 for its FileID reached the user who asked, no
// node holds the file again, unless a server forgot the delete while a
// linked server was still cut off.
void ZV_RandomScenario::CheckDeletes()
{
    for (size_t i = m_nDeletesMayReturn; i < m_vecDeleted.size(); ++i)
    {
        const Deleted& deleted = m_vecDeleted[i];
        ZV_SimFilter filter;
        filter.usNumber = PDU_CONF_FS_DEL_UPLOAD_RESPONSE;
        filter.sPeer = deleted.lpClient->lpNode->GetName();
        filter.eFate = ZV_SimFate::Delivered;
        filter.nFrom = deleted.nJournalAt;
        const bool bConfirmed = std::ranges::any_of(m_lpSim->Journal().Find(filter), [&](const ZV_SimEntry& entry) {
            QB_ByteStream stream(entry.vbData.data(), (int32_t)entry.vbData.size());
            ZV_DelUploadResponse answer;
            try
            {
                answer.Load(stream);
            }
            catch (...)
            {
                return false;
            }
            return answer.head.ulResult == 0 && answer.head.usFileID == deleted.usFileID &&
                   answer.head.user == deleted.lpClient->Self();
        });
        if (!bConfirmed)
            continue;
        for (ZV_SimHost* lpNode : m_lpSim->GetNodes())
            ForEachSession(lpNode, [&](uint16_t usFileID, ZV_FileShareSession& session) {
                const auto& brief = lpNode->IsServer() ? session.FileInfo().m_BriefInfo : session.BriefInfo();
                if (usFileID == deleted.usFileID && Narrow(brief.m_sFileOldName) == deleted.sName)
                    Problem(lpNode->GetName() + " holds " + Num(usFileID) + " (" + deleted.sName + "), which " +
                            deleted.lpClient->sName + " deleted");
            });
    }
}

// Servers write in their own home folder; a client writes in its home
// folder and at the paths its user asked for, nowhere else.
void ZV_RandomScenario::CheckWrites()
{
    std::set<std::string> setAllowed;
    for (const auto& lpClient : m_vecClients)
        setAllowed.insert(lpClient->setTargets.begin(), lpClient->setTargets.end());
    for (const auto& entry : fs::recursive_directory_iterator(m_options.sRoot))
    {
        if (entry.is_directory())
            continue;
        const fs::path relative = fs::relative(entry.path(), m_options.sRoot);
        const std::vector<std::string> vecPart(relative.begin(), relative.end());
        if (vecPart[0] != "src" && !setAllowed.count(entry.path().string()) &&
            !(vecPart[0] == "nodes" && IsNodeFile(vecPart)))
            Problem("written where no user asked: " + relative.string());
    }
}

// No client is busy once settled, but a downloader of a file whose upload
// never began and never can (its creator withdrew it or left first, and a
// server that missed that kept it): no time-out ends a transfer.
void ZV_RandomScenario::CheckIdle()
{
    for (const auto& lpClient : m_vecClients)
    {
        const QB_Array<uint16_t>& arrBusy = ZV_FileShareMgrPeer::BusyFileIDs(*Manager(lpClient->lpNode));
        for (int i = 0; i < arrBusy.GetSize(); ++i)
            if (!IsWaitingForAnUpload(*lpClient, arrBusy[i]))
                Problem(lpClient->sName + " is still busy with " + Num(arrBusy[i]) +
                        DescribeFile(lpClient->lpNode, m_vecServers, arrBusy[i]));
    }
}

bool ZV_RandomScenario::IsWaitingForAnUpload(const Client& client, uint16_t usFileID)
{
    const ZV_FileShareSession* lpOwn = FindSession(client.lpNode, usFileID);
    const ZV_FileShareSession* lpHeld = FindSession(client.lpHome, usFileID);
    if (lpOwn == nullptr || lpHeld == nullptr || lpOwn->BriefInfo().m_CreatorID == client.Self())
        return false;
    const ZV_FileUploadInfo& held = lpHeld->FileInfo();
    const std::string sName = Narrow(held.m_BriefInfo.m_sFileOldName);
    const bool bWithdrawn = std::ranges::any_of(m_vecDeleted, [&](const Deleted& d) { return d.sName == sName; });
    const bool bDropped = std::ranges::any_of(m_vecClients, [&](const auto& lpCreator) {
        const ZV_FileShareSession* lpThere = FindSession(lpCreator->lpHome, usFileID);
        return lpCreator->Self() == held.m_BriefInfo.m_CreatorID &&
               (lpThere == nullptr || !lpThere->FileInfo().m_BriefInfo.IsSameFile(held.m_BriefInfo));
    });
    return (bWithdrawn || bDropped) && lpOwn->LocalDownload().m_usState == zvDownloadStateRunning &&
           held.m_BriefInfo.m_usFileState == zvFileStateAdded && held.m_ulFileWritePos == 0 &&
           held.m_BriefInfo.IsSameFile(lpOwn->BriefInfo());
}

// Every PDU ends in the two flags of its kind; a group progress report may
// be 0, 0 while the transfer runs, an 8037 1, 0 from the upload list.
void ZV_RandomScenario::CheckFlags()
{
    using Flags = std::pair<uint8_t, uint8_t>;
    ZV_SimFilter filter;
    filter.eKind = ZV_SimEntryKind::Pdu;
    for (const ZV_SimEntry& entry : m_lpSim->Journal().Find(filter))
    {
        const Flags flags(entry.bFlag1, entry.bFlag2);
        const bool bRunningReport = entry.usNumber == PDU_CONF_FS_PROGRESSING_RESPONSE &&
                                    entry.eRoute == ZV_SimRoute::Group && flags == Flags(0, 0);
        const bool bListNotice = entry.usNumber == PDU_CONF_FS_NOTICE_DEL_DOWNLOAD_INFO_REQUEST && flags == Flags(1, 0);
        const Flags expected = entry.usNumber == 257                           ? Flags(0, 0)
                               : entry.usNumber == PDU_CONF_FS_PROGRESSING_REQUEST ? Flags(1, 0)
                                                                                  : Flags(1, 1);
        if (flags != expected && !bRunningReport && !bListNotice)
            Problem("PDU " + Num(entry.usNumber) + " from " + entry.sNode + " to " + entry.sPeer + " sent with flags " +
                    Num(flags.first) + ", " + Num(flags.second));
    }
}

// Once settled, each user side holds the files its server holds that the
// user may see, by name, length and state. A creator keeps its own state of
// its file unless complete, and a list may have told it "stopped" or
// "uploading" of a file the server holds whole (an upload asked again while
// away that the server, holding every byte, never answers).
void ZV_RandomScenario::CheckViews()
{
    for (const auto& lpClient : m_vecClients)
    {
        const QB_UserID user = lpClient->Self();
        const bool bPrivileged = lpClient->lpNode->GetUserRecord().usRole == zvUserRolePrivileged;
        std::map<uint16_t, ZV_ToldFile> mapHeld;
        ForEachSession(lpClient->lpHome, [&](uint16_t usFileID, ZV_FileShareSession& session) {
            const ZV_FileBriefInfo& brief = session.FileInfo().m_BriefInfo;
            // A server that missed the delete may bring a withdrawn file back;
            // its creator may show it or not.
            if (brief.m_CreatorID == user && lpClient->setWithdrawn.count(Narrow(brief.m_sFileOldName)))
                return;
            if (brief.m_bPublic || brief.m_arrRight.Find(user) >= 0 || brief.m_CreatorID == user || bPrivileged)
                mapHeld[usFileID] = {Narrow(brief.m_sFileOldName), brief.m_ulFileLenth, brief.m_usFileState, {}, {}};
        });
        const std::map<uint16_t, ZV_ToldFile>& mapTold = lpClient->lpView->Files();
        for (auto& [usFileID, held] : mapHeld)
        {
            auto it = mapTold.find(usFileID);
            auto fnAbout = [&, usFileID = usFileID] { return DescribeFile(lpClient->lpNode, m_vecServers, usFileID); };
            if (it == mapTold.end())
            {
                Problem(lpClient->sName + " was never told of " + Num(usFileID) + " (" + held.sName + ")" + fnAbout());
                continue;
            }
            const ZV_ToldFile& told = it->second;
            ZV_FileShareSession* lpOwn = FindSession(lpClient->lpNode, usFileID);
            const bool bCreator = lpOwn != nullptr && lpOwn->BriefInfo().m_CreatorID == user;
            if (bCreator && lpOwn->BriefInfo().m_usFileState != zvFileStateComplete &&
                told.usState == lpOwn->BriefInfo().m_usFileState)
                held.usState = told.usState;
            if (bCreator && held.usState == zvFileStateComplete && told.usByEvent == zvFsEventFilesAdded &&
                (told.usState == zvFileStateUploading || told.usState == zvFileStateStopped))
                held.usState = told.usState;
            if (told.sName != held.sName || told.ulLength != held.ulLength || told.usState != held.usState)
                Problem(lpClient->sName + " was told " + Num(usFileID) + " is " + told.sName + ", " +
                        Num(told.ulLength) + " bytes, state " + Num(told.usState) + "; its server holds " + held.sName +
                        ", " + Num(held.ulLength) + " bytes, state " + Num(held.usState) + "; told by" +
                        told.sHistory + fnAbout());
        }
        for (const auto& [usFileID, told] : mapTold)
            if (!mapHeld.count(usFileID) && !lpClient->setWithdrawn.count(told.sName))
                Problem(lpClient->sName + " was told of " + Num(usFileID) + " (" + told.sName +
                        "), which its server does not hold for it" +
                        DescribeFile(lpClient->lpNode, m_vecServers, usFileID));
    }
}
