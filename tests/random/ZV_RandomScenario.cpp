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
// FileIDs of server n run from FileIDsPerServer() * (n - 1) + 1.
constexpr uint16_t kFileIDsPerServer = 1000;
constexpr uint16_t kFewFileIDsPerServer = 3;
// Sizes around the block, so that ends of blocks and of PDUs are met.
constexpr uint32_t kSizes[] = {0, 1, 1000, 32767, 32768, 32769, 65543, 98304, 98305, 150000, 250007};

std::u16string Wide(const std::string& sPath)
{
    QB_StringW sWide = QB_ToWindowsPath(sPath);
    return std::u16string(sWide.GetString(), (size_t)sWide.GetLength());
}

std::string Narrow(const QB_StringU8& s)
{
    return std::string(s.GetString(), (size_t)s.GetLength());
}

ZV_FileShareMgr* Manager(ZV_SimHost* lpNode)
{
    return static_cast<ZV_FileShareMgr*>(lpNode->GetModule());
}

// fn(usFileID, session) for every session a node holds.
void ForEachSession(ZV_SimHost* lpNode, const std::function<void(uint16_t, ZV_FileShareSession&)>& fn)
{
    ZV_SessionMap& map = ZV_FileShareMgrPeer::Sessions(*Manager(lpNode));
    for (QB_POSITION pos = map.GetStartPosition(); pos != nullptr;)
    {
        uint16_t usFileID = 0;
        ZV_FileShareSession* lpFsSession = nullptr;
        map.GetNextAssoc(pos, usFileID, lpFsSession);
        if (lpFsSession != nullptr)
            fn(usFileID, *lpFsSession);
    }
}

} // namespace

struct ZV_RandomScenario::Client
{
    ZV_SimHost* lpNode = nullptr;
    ZV_SimHost* lpHome = nullptr;
    std::unique_ptr<ZV_UserView> lpView;
    std::string sName;
    std::string sSources;
    std::string sDownloads;
    // Every path the user asked to download to, in host form.
    std::set<std::string> setTargets;
    // The user's own files whose delete went: the user took them back.
    std::set<std::string> setWithdrawn;
    bool bPresent = true;
};

// A file a user shared: its name is unique in the run, so any record that
// names it names its source.
struct ZV_RandomScenario::Share
{
    std::string sName;
    std::string sPath;
};

// A delete a user asked for, and where the journal stood then.
struct ZV_RandomScenario::Deleted
{
    const Client* lpClient = nullptr;
    uint16_t usFileID = 0;
    std::string sName;
    size_t nJournalAt = 0;
    bool bConfirmed = false;
};

std::string ZV_RandomReport::Describe() const
{
    std::ostringstream out;
    out << "seed " << ulSeed << ", " << nSteps << " steps: " << (Passed() ? "passed" : "FAILED") << "\n";
    for (const std::string& sProblem : vecProblems)
        out << "  " << sProblem << "\n";
    if (!Passed())
    {
        out << "replay: random_scenarios --seed " << ulSeed << " --steps " << nSteps
            << (bSmallFileIDs ? " --few-ids" : "") << " --verbose\n";
        out << "steps:\n" << sSteps << "journal tail:\n" << sJournalTail;
    }
    return out.str();
}

ZV_RandomScenario::ZV_RandomScenario(ZV_RandomOptions options) : m_options(std::move(options)), m_rng(m_options.ulSeed)
{
}

ZV_RandomScenario::~ZV_RandomScenario() = default;

uint16_t ZV_RandomScenario::FileIDsPerServer() const
{
    return m_options.bSmallFileIDs ? kFewFileIDsPerServer : kFileIDsPerServer;
}

uint32_t ZV_RandomScenario::Random(uint32_t ulBelow)
{
    if (ulBelow == 0)
        return 0;
    return m_options.fnDraw ? m_options.fnDraw(ulBelow) % ulBelow : (uint32_t)(m_rng() % ulBelow);
}

bool ZV_RandomScenario::Chance(uint32_t ulPercent)
{
    return Random(100) < ulPercent;
}

void ZV_RandomScenario::Note(const std::string& sStep)
{
    m_vecSteps.push_back(sStep);
}

void ZV_RandomScenario::Problem(const std::string& sProblem)
{
    if (m_vecProblems.size() < 20)
        m_vecProblems.push_back(sProblem);
}

ZV_RandomReport ZV_RandomScenario::Run()
{
    ZV_RandomReport report;
    report.ulSeed = m_options.ulSeed;
    report.nSteps = m_options.nSteps;
    report.bSmallFileIDs = m_options.bSmallFileIDs;
    if (Build())
    {
        for (int i = 0; i < m_options.nSteps && m_vecProblems.empty(); ++i)
            TakeStep();
        // The disk mends before the conference settles.
        if (m_lpSim)
            m_lpSim->GetEnv().ClearFaults();
        if (m_vecProblems.empty())
            Settle();
        if (m_vecProblems.empty())
        {
            CheckDownloads();
            CheckCatalogues();
            CheckDeletes();
            CheckWrites();
            CheckIdle();
            CheckFlags();
            CheckViews();
        }
    }
    report.vecProblems = m_vecProblems;
    const size_t nKept = m_options.bWholeJournal ? SIZE_MAX : 40;
    const size_t nFirst = m_vecSteps.size() > nKept ? m_vecSteps.size() - nKept : 0;
    for (size_t i = nFirst; i < m_vecSteps.size(); ++i)
        report.sSteps += "  " + std::to_string(i) + ": " + m_vecSteps[i] + "\n";
    if (m_lpSim)
    {
        const size_t nSize = m_lpSim->Journal().Size();
        const size_t nTail = m_options.bWholeJournal ? nSize : 60;
        report.sJournalTail = m_lpSim->Journal().Dump(nSize > nTail ? nSize - nTail : 0);
    }
    return report;
}

// Two or three servers in a line, one or two users on each.
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
    if (!shape.IsComplete())
    {
        Problem("the conference could not be built: " + m_lpSim->GetError());
        return false;
    }
    m_vecServers = shape.vecServers;
    for (int n = 1; n <= m_nServers; ++n)
        for (int i = 0, nCount = 1 + (int)Random(2); i < nCount; ++i)
        {
            auto lpClient = std::make_unique<Client>();
            const ZV_SimUser user = ZV_SimBuilder::MakeUser((uint32_t)n, i);
            lpClient->lpNode = m_lpSim->AddClient(kConfID, user);
            lpClient->lpHome = m_vecServers[n - 1];
            lpClient->sName = "u" + std::to_string(user.id.m_ulMain);
            if (lpClient->lpNode)
                lpClient->lpView = std::make_unique<ZV_UserView>(lpClient->lpNode, m_lpSim->Journal(), lpClient->sName,
                                                                 [this](const std::string& s) { Problem(s); });
            lpClient->sSources = m_options.sRoot + "/src/" + lpClient->sName;
            lpClient->sDownloads = m_options.sRoot + "/dl/" + lpClient->sName;
            if (!lpClient->lpNode)
            {
                Problem("a client could not join: " + m_lpSim->GetError());
                return false;
            }
            fs::create_directories(lpClient->sSources);
            m_vecClients.push_back(std::move(lpClient));
        }
    Note("servers " + std::to_string(m_nServers) + ", clients " + std::to_string(m_vecClients.size()));
    Deliver();
    return m_vecProblems.empty();
}

// Some delivery after each step: all of it, or a few steps of it, so that
// the next step may meet PDUs on their way.
void ZV_RandomScenario::Deliver()
{
    if (Chance(50))
    {
        if (!m_lpSim->Run())
            Problem("the conference never settled: " + m_lpSim->GetError());
        return;
    }
    for (uint32_t i = 0, nSteps = Random(400); i < nSteps && m_lpSim->Step(); ++i)
    {
    }
}

void ZV_RandomScenario::TakeStep()
{
    using Fn = void (ZV_RandomScenario::*)();
    // With few FileIDs, shares and deletes come more often, so that numbers
    // run out, free up and are given out again in every run.
    const bool bFew = m_options.bSmallFileIDs;
    const uint32_t ulShares = bFew ? 22 : 14;
    const uint32_t ulDeletes = bFew ? 16 : 5;
    std::vector<std::pair<uint32_t, Fn>> aSteps = {
        {ulShares, &ZV_RandomScenario::StepShare},
        {4, &ZV_RandomScenario::StepShareBatch},
        {4, &ZV_RandomScenario::StepUpload},
        {18, &ZV_RandomScenario::StepDownload},
        {8, &ZV_RandomScenario::StepStopOrResumeDownload},
        {5, &ZV_RandomScenario::StepStopOrResumeUpload},
        {6, &ZV_RandomScenario::StepRights},
        {ulDeletes, &ZV_RandomScenario::StepDelete},
        {3, &ZV_RandomScenario::StepDropDownload},
        {10, &ZV_RandomScenario::StepCutOrRestore},
        {6, &ZV_RandomScenario::StepLeaveOrRejoin},
        {3, &ZV_RandomScenario::StepRestartServer},
        {2, &ZV_RandomScenario::StepRestartClient},
        {2, &ZV_RandomScenario::StepRole},
        {8, &ZV_RandomScenario::StepTime},
    };
    if (m_options.fnDraw)
    {
        aSteps.push_back({8, &ZV_RandomScenario::StepHostilePdu});
        aSteps.push_back({3, &ZV_RandomScenario::StepFileFault});
    }
    uint32_t ulTotal = 0;
    for (const auto& step : aSteps)
        ulTotal += step.first;
    uint32_t ulPick = Random(ulTotal);
    for (const auto& step : aSteps)
    {
        if (ulPick < step.first)
        {
            (this->*step.second)();
            break;
        }
        ulPick -= step.first;
    }
    Deliver();
}

// ---------------------------------------------------------------------------
// Helpers

ZV_RandomScenario::Client& ZV_RandomScenario::AnyClient()
{
    return *m_vecClients[Random((uint32_t)m_vecClients.size())];
}

bool ZV_RandomScenario::IsPresent(const Client& client)
{
    return client.bPresent;
}

IZV_FileShareMgr* ZV_RandomScenario::Fs(const Client& client)
{
    return client.lpNode->GetFileShareMgr();
}

std::vector<uint16_t> ZV_RandomScenario::KnownFiles(const Client& client, bool bOwnOnly)
{
    std::vector<uint16_t> vecFileID;
    const QB_UserID self = client.lpNode->GetUserID();
    ForEachSession(client.lpNode, [&](uint16_t usFileID, ZV_FileShareSession& session) {
        if (!bOwnOnly || session.BriefInfo().m_CreatorID == self)
            vecFileID.push_back(usFileID);
    });
    return vecFileID;
}

bool ZV_RandomScenario::PickFile(const Client& client, bool bOwnOnly, uint16_t& usFileID)
{
    const std::vector<uint16_t> vecFileID = KnownFiles(client, bOwnOnly);
    if (vecFileID.empty())
        return false;
    usFileID = vecFileID[Random((uint32_t)vecFileID.size())];
    return true;
}

// A new file of the client's with a name no other file of the run has and
// bytes of its own.
std::string ZV_RandomScenario::MakeSource(const Client& client)
{
    const std::string sName = "f" + std::to_string(++m_nNextShare) + "_" + client.sName + ".bin";
    const uint32_t ulSize = kSizes[Random(sizeof kSizes / sizeof kSizes[0])];
    std::vector<uint8_t> vbData(ulSize);
    std::mt19937 rngBytes(m_options.ulSeed * 7919u + (uint32_t)m_nNextShare);
    for (uint8_t& b : vbData)
        b = (uint8_t)rngBytes();
    const std::string sPath = client.sSources + "/" + sName;
    QB_WriteWholeFile(sPath, vbData);
    m_vecShares.push_back({sName, sPath});
    return sName;
}

std::vector<QB_UserID> ZV_RandomScenario::SomeUsers()
{
    std::vector<QB_UserID> vecUsers;
    for (const auto& lpClient : m_vecClients)
        if (Chance(40))
            vecUsers.push_back(lpClient->lpNode->GetUserID());
    return vecUsers;
}

std::vector<ZV_SimLink*> ZV_RandomScenario::ServerLinks() const
{
    std::vector<ZV_SimLink*> vecLinks;
    for (int n = 1; n < m_nServers; ++n)
        vecLinks.push_back(m_lpSim->GetServerLink((uint32_t)n, (uint32_t)n + 1));
    return vecLinks;
}

bool ZV_RandomScenario::AllServerLinksUp() const
{
    for (ZV_SimLink* lpLink : ServerLinks())
        if (!lpLink->IsUp(zvSimCommand) || !lpLink->IsUp(zvSimData))
            return false;
    return true;
}

const ZV_RandomScenario::Share* ZV_RandomScenario::FindShare(const std::string& sName) const
{
    for (const Share& share : m_vecShares)
        if (share.sName == sName)
            return &share;
    return nullptr;
}

// ---------------------------------------------------------------------------
// The steps

void ZV_RandomScenario::StepShare()
{
    Client& client = AnyClient();
    const std::string sName = MakeSource(client);
    const std::vector<QB_UserID> vecRight = SomeUsers();
    const uint8_t bPublic = Chance(70) ? 1 : 0;
    const uint8_t bStart = Chance(70) ? 1 : 0;
    const uint32_t ulResult = Fs(client)->FsAdd(Wide(client.sSources + "/" + sName).c_str(), vecRight.data(),
                                                (uint32_t)vecRight.size(), bPublic, bStart);
    Note(client.sName + " shares " + sName + (bPublic ? " public" : " to some") + (bStart ? ", starting" : "") +
         ": " + std::to_string(ulResult));
}

void ZV_RandomScenario::StepShareBatch()
{
    Client& client = AnyClient();
    std::vector<std::string> vecNames;
    for (uint32_t i = 0, nCount = 2 + Random(3); i < nCount; ++i)
        vecNames.push_back(MakeSource(client));
    std::vector<std::u16string> vecWide;
    std::vector<const char16_t*> vecPtr;
    for (const std::string& sName : vecNames)
        vecWide.push_back(Wide(sName));
    for (const std::u16string& s : vecWide)
        vecPtr.push_back(s.c_str());
    const uint32_t ulResult = Fs(client)->FsFilesAdd(Wide(client.sSources + "/").c_str(), vecPtr.data(),
                                                     (uint32_t)vecPtr.size(), nullptr, 0, 1, Chance(70) ? 1 : 0);
    Note(client.sName + " shares " + std::to_string(vecNames.size()) + " files from " + vecNames.front() + ": " +
         std::to_string(ulResult));
}

void ZV_RandomScenario::StepUpload()
{
    Client& client = AnyClient();
    uint16_t usFileID = 0;
    if (!PickFile(client, true, usFileID))
        return;
    Note(client.sName + " uploads " + std::to_string(usFileID) + ": " + std::to_string(Fs(client)->FsUpload(usFileID)));
}

void ZV_RandomScenario::StepDownload()
{
    Client& client = AnyClient();
    uint16_t usFileID = 0;
    if (!PickFile(client, false, usFileID))
        return;
    const std::string sTarget = client.sDownloads + "/d" + std::to_string(++m_nNextTarget) + ".bin";
    client.setTargets.insert(sTarget);
    const uint32_t ulResult = Fs(client)->FsDownload(usFileID, Wide(sTarget).c_str());
    Note(client.sName + " downloads " + std::to_string(usFileID) + " to " + fs::path(sTarget).filename().string() +
         ": " + std::to_string(ulResult));
}

void ZV_RandomScenario::StepStopOrResumeDownload()
{
    Client& client = AnyClient();
    uint16_t usFileID = 0;
    if (!PickFile(client, false, usFileID))
        return;
    const bool bStop = Chance(50);
    const uint32_t ulResult = bStop ? Fs(client)->FsStopDownload(usFileID) : Fs(client)->FsResumeDownload(usFileID);
    Note(client.sName + (bStop ? " stops" : " resumes") + " download " + std::to_string(usFileID) + ": " +
         std::to_string(ulResult));
}

void ZV_RandomScenario::StepStopOrResumeUpload()
{
    Client& client = AnyClient();
    uint16_t usFileID = 0;
    if (!PickFile(client, true, usFileID))
        return;
    const bool bStop = Chance(50);
    const uint32_t ulResult = bStop ? Fs(client)->FsStopUpload(usFileID) : Fs(client)->FsResumeUpload(usFileID);
    Note(client.sName + (bStop ? " stops" : " resumes") + " upload " + std::to_string(usFileID) + ": " +
         std::to_string(ulResult));
}

void ZV_RandomScenario::StepRights()
{
    Client& client = AnyClient();
    uint16_t usFileID = 0;
    if (!PickFile(client, true, usFileID))
        return;
    const std::vector<QB_UserID> vecAdd = SomeUsers();
    const std::vector<QB_UserID> vecRemove = SomeUsers();
    const uint8_t bPublic = Chance(40) ? 1 : 0;
    const uint32_t ulResult = Fs(client)->FsSetRight(usFileID, bPublic, vecAdd.data(), (uint32_t)vecAdd.size(),
                                                     vecRemove.data(), (uint32_t)vecRemove.size());
    Note(client.sName + " sets the rights of " + std::to_string(usFileID) + (bPublic ? " public" : " to a list") +
         ": " + std::to_string(ulResult));
}

// Deletes of the user's own files, and now and then of another's by a user
// who may.
void ZV_RandomScenario::StepDelete()
{
    Client& client = AnyClient();
    uint16_t usFileID = 0;
    if (!PickFile(client, !Chance(20), usFileID))
        return;
    ZV_FileShareSession* lpFsSession = nullptr;
    ZV_FileShareMgrPeer::Sessions(*Manager(client.lpNode)).Lookup(usFileID, lpFsSession);
    Deleted deleted;
    deleted.lpClient = &client;
    deleted.usFileID = usFileID;
    deleted.sName = lpFsSession ? Narrow(lpFsSession->BriefInfo().m_sFileOldName) : std::string();
    deleted.nJournalAt = m_lpSim->Journal().Size();
    m_vecDeleted.push_back(deleted);
    const bool bOwn = lpFsSession != nullptr && lpFsSession->BriefInfo().m_CreatorID == client.lpNode->GetUserID();
    const uint32_t ulResult = Fs(client)->FsDelUpload(usFileID);
    if (ulResult == zvResultOk && bOwn)
        client.setWithdrawn.insert(deleted.sName);
    Note(client.sName + " deletes " + std::to_string(usFileID) + " (" + deleted.sName + "): " + std::to_string(ulResult));
}

void ZV_RandomScenario::StepDropDownload()
{
    Client& client = AnyClient();
    uint16_t usFileID = 0;
    if (!PickFile(client, false, usFileID))
        return;
    const uint8_t bDelete = Chance(50) ? 1 : 0;
    Note(client.sName + " drops download " + std::to_string(usFileID) + (bDelete ? " and its file" : "") + ": " +
         std::to_string(Fs(client)->FsDelDownload(usFileID, bDelete)));
}

// A server link, whole or only its data connection, or a client's data
// connection.
void ZV_RandomScenario::StepCutOrRestore()
{
    ZV_SimLink* lpLink = nullptr;
    std::string sWhat;
    if (Chance(50) && m_nServers > 1)
    {
        const uint32_t n = 1 + Random((uint32_t)m_nServers - 1);
        lpLink = m_lpSim->GetServerLink(n, n + 1);
        sWhat = "server link " + std::to_string(n) + "-" + std::to_string(n + 1);
    }
    else
    {
        Client& client = AnyClient();
        if (!IsPresent(client))
            return;
        lpLink = m_lpSim->GetClientLink(client.lpNode);
        sWhat = client.sName + "'s link";
    }
    // A client whose command connection goes has left the conference; that
    // is the step of leaving and coming back.
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
        Note(client.sName + " leaves");
        return;
    }
    const bool bReturning = Chance(50);
    client.bPresent = m_lpSim->Rejoin(client.lpNode, bReturning);
    Note(client.sName + (bReturning ? " returns" : " rejoins"));
}

// A server that restarts forgets the deletes it knew of. Those may come
// back from a server that has not heard of them yet: one cut off, or one
// whose lists are still on their way.
void ZV_RandomScenario::StepRestartServer()
{
    const uint32_t n = 1 + Random((uint32_t)m_nServers);
    if (!AllServerLinksUp() || m_lpSim->GetPending() != 0)
        m_nDeletesMayReturn = m_vecDeleted.size();
    if (!m_lpSim->RestartServer(m_vecServers[n - 1]))
        Problem("server " + std::to_string(n) + " could not restart: " + m_lpSim->GetError());
    Note("server " + std::to_string(n) + " restarts");
    // A host runs no conference whose manager could not read its
    // configuration (the network server stops there): it is started again
    // once the disk is sound.
    if (m_vecServers[n - 1]->GetInitializeResult() == zvResultOk)
        return;
    m_lpSim->GetEnv().ClearFaults();
    if (!m_lpSim->RestartServer(m_vecServers[n - 1]) || m_vecServers[n - 1]->GetInitializeResult() != zvResultOk)
        Problem("server " + std::to_string(n) + " could not start again: " + m_lpSim->GetError());
    Note("server " + std::to_string(n) + " could not read its configuration and starts again");
}

void ZV_RandomScenario::StepRestartClient()
{
    Client& client = AnyClient();
    if (!IsPresent(client))
        return;
    client.lpView->Forget();
    if (!m_lpSim->RestartClient(client.lpNode))
        Problem(client.sName + " could not restart: " + m_lpSim->GetError());
    Note(client.sName + " restarts");
}

void ZV_RandomScenario::StepRole()
{
    Client& client = AnyClient();
    if (!IsPresent(client))
        return;
    const uint16_t usRole = client.lpNode->GetUserRecord().usRole == zvUserRolePrivileged ? 0 : zvUserRolePrivileged;
    m_lpSim->SetUserRole(client.lpNode, usRole);
    Note(client.sName + (usRole ? " becomes privileged" : " is no longer privileged"));
}

void ZV_RandomScenario::StepTime()
{
    const uint32_t ulMs = Chance(30) ? 16000 + Random(10000) : 100 + Random(3000);
    if (!m_lpSim->AdvanceTime(ulMs))
        Problem("the conference never settled while the clock moved: " + m_lpSim->GetError());
    Note("the clock moves " + std::to_string(ulMs) + " ms");
}

// ---------------------------------------------------------------------------
// The end: everything comes back, what stands still goes on, and the
// conference settles.

void ZV_RandomScenario::Settle()
{
    Note("settle");
    for (ZV_SimLink* lpLink : ServerLinks())
        m_lpSim->RestoreLink(lpLink);
    for (const auto& lpClient : m_vecClients)
    {
        if (!lpClient->bPresent)
            lpClient->bPresent = m_lpSim->Rejoin(lpClient->lpNode, false);
        else
            m_lpSim->RestoreLink(m_lpSim->GetClientLink(lpClient->lpNode));
    }
    if (!m_lpSim->Run())
    {
        Problem("the conference never settled after everything came back: " + m_lpSim->GetError());
        return;
    }
    for (const auto& lpClient : m_vecClients)
    {
        const QB_UserID self = lpClient->lpNode->GetUserID();
        const std::map<uint16_t, ZV_ToldFile>& mapTold = lpClient->lpView->Files();
        std::vector<std::pair<uint16_t, bool>> vecResume;
        // A stopped upload goes on, and so does one its user was told had
        // failed (a store the server could not write, say): the user tries
        // again.
        ForEachSession(lpClient->lpNode, [&](uint16_t usFileID, ZV_FileShareSession& session) {
            const auto it = mapTold.find(usFileID);
            const bool bToldFailed = it != mapTold.end() && it->second.usState == zvFileStateFailed;
            if (session.BriefInfo().m_CreatorID == self &&
                (session.BriefInfo().m_usFileState == zvFileStateStopped || bToldFailed))
                vecResume.push_back({usFileID, true});
            if (session.LocalDownload().m_usState == zvDownloadStateStopped)
                vecResume.push_back({usFileID, false});
        });
        for (const auto& [usFileID, bUpload] : vecResume)
            bUpload ? Fs(*lpClient)->FsResumeUpload(usFileID) : Fs(*lpClient)->FsResumeDownload(usFileID);
    }
    // Long enough for every stall to be looked at more than once.
    for (int i = 0; i < 6 && m_vecProblems.empty(); ++i)
        if (!m_lpSim->AdvanceTime(25000))
            Problem("the conference never settled: " + m_lpSim->GetError());
}

// ---------------------------------------------------------------------------
// The checks

// A finished download is compared with the file its record names.
void ZV_RandomScenario::CheckDownloads()
{
    for (const auto& lpClient : m_vecClients)
        ForEachSession(lpClient->lpNode, [&](uint16_t usFileID, ZV_FileShareSession& session) {
            const ZV_FileDownloadInfo& download = session.LocalDownload();
            if (download.m_usState != zvDownloadStateFinished)
                return;
            const Share* lpShare = FindShare(Narrow(download.m_sFileFullName));
            std::string sLocal = Narrow(download.m_sFilePath + download.m_sFileName);
            std::replace(sLocal.begin(), sLocal.end(), '\\', '/');
            if (lpShare == nullptr)
            {
                Problem(lpClient->sName + " finished a download of " + std::to_string(usFileID) +
                        " from a file nobody shared: " + Narrow(download.m_sFileFullName));
                return;
            }
            if (fs::exists(sLocal) && QB_ReadWholeFile(sLocal) != QB_ReadWholeFile(lpShare->sPath))
                Problem(lpClient->sName + "'s download of " + std::to_string(usFileID) + " (" + lpShare->sName +
                        ") differs from its source");
        });
}

// Each row of each catalogue names a stored file inside the conference's
// folder; a complete row's file has every byte of its source.
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
            const std::string sWhere = "server " + std::to_string(n) + ", row " + std::to_string(ulFileID);
            const std::string sStored =
                lpServer->GetHome() + "store/" + std::to_string(kConfID) + "/" + Narrow(row.m_sFileNewName);
            std::error_code ec;
            const uintmax_t nSize = fs::file_size(sStored, ec);
            const ZV_FileBriefInfo& brief = row.m_BriefInfo;
            // A row of a file this server no longer holds is a removal that
            // could not be saved before the process ended, the disk refusing
            // every write: no road reads it as a file, and a start that takes
            // the catalogue back drops it with its missing file.
            const bool bHeld = ZV_FileShareMgrPeer::Find(*Manager(lpServer), (uint16_t)ulFileID) != nullptr;
            if (ec && bHeld)
                Problem(sWhere + ": no stored file " + Narrow(row.m_sFileNewName));
            else if (ec)
                continue;
            else if (nSize > brief.m_ulFileLenth)
                Problem(sWhere + ": the stored file is longer than the file");
            else if (brief.m_usFileState == zvFileStateComplete)
            {
                const Share* lpShare = FindShare(Narrow(brief.m_sFileOldName));
                if (nSize != brief.m_ulFileLenth)
                    Problem(sWhere + " (" + Narrow(brief.m_sFileOldName) + "): complete, but " +
                            std::to_string(nSize) + " of " + std::to_string(brief.m_ulFileLenth) + " bytes stored");
                else if (lpShare == nullptr || QB_ReadWholeFile(sStored) != QB_ReadWholeFile(lpShare->sPath))
                    Problem(sWhere + ": the stored bytes differ from " + Narrow(brief.m_sFileOldName));
            }
        }
    }
}

// A delete counts once the user was told it went through. Unless a server
// forgot it while a linked server was still cut off, no node holds the file
// again, under its FileID or in a catalogue.
void ZV_RandomScenario::CheckDeletes()
{
    CollectDeletes();
    for (size_t i = m_nDeletesMayReturn; i < m_vecDeleted.size(); ++i)
    {
        const Deleted& deleted = m_vecDeleted[i];
        if (!deleted.bConfirmed)
            continue;
        auto fnHolds = [&](ZV_SimHost* lpNode) {
            bool bHolds = false;
            ForEachSession(lpNode, [&](uint16_t usFileID, ZV_FileShareSession& session) {
                const ZV_FileBriefInfo& brief =
                    lpNode->IsServer() ? session.FileInfo().m_BriefInfo : session.BriefInfo();
                bHolds = bHolds || (usFileID == deleted.usFileID && Narrow(brief.m_sFileOldName) == deleted.sName);
            });
            return bHolds;
        };
        for (ZV_SimHost* lpNode : m_lpSim->GetNodes())
            if (fnHolds(lpNode))
                Problem(lpNode->GetName() + " holds " + std::to_string(deleted.usFileID) + " (" + deleted.sName +
                        "), which " + deleted.lpClient->sName + " deleted");
    }
}

// A delete went through when an 8009 with result 0 for its FileID reached
// the user who asked.
void ZV_RandomScenario::CollectDeletes()
{
    for (Deleted& deleted : m_vecDeleted)
    {
        ZV_SimFilter filter;
        filter.usNumber = PDU_CONF_FS_DEL_UPLOAD_RESPONSE;
        filter.sPeer = deleted.lpClient->lpNode->GetName();
        filter.eFate = ZV_SimFate::Delivered;
        filter.nFrom = deleted.nJournalAt;
        for (const ZV_SimEntry& entry : m_lpSim->Journal().Find(filter))
        {
            QB_ByteStream stream(entry.vbData.data(), (int32_t)entry.vbData.size());
            ZV_DelUploadResponse answer;
            try
            {
                answer.Load(stream);
            }
            catch (...)
            {
                continue;
            }
            deleted.bConfirmed = deleted.bConfirmed ||
                                 (answer.head.ulResult == 0 && answer.head.usFileID == deleted.usFileID &&
                                  answer.head.user == deleted.lpClient->lpNode->GetUserID());
        }
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
        const bool bAllowed = vecPart[0] == "src" || setAllowed.count(entry.path().string()) != 0 ||
                              (vecPart[0] == "nodes" && IsNodeFile(vecPart));
        if (!bAllowed)
            Problem("written where no user asked: " + relative.string());
    }
}

// nodes/NODE/ holds the host's "confsrv.ini", the catalogue, the share
// ledger and the logs; a server's store holds its conference's files, one
// level deep.
// What a client holds of a file, for a problem's line.
std::string ZV_RandomScenario::Describe(const Client& client, uint16_t usFileID)
{
    ZV_FileShareSession* lpFsSession = nullptr;
    if (!ZV_FileShareMgrPeer::Sessions(*Manager(client.lpNode)).Lookup(usFileID, lpFsSession) || !lpFsSession)
        return " (no session)";
    const ZV_FileDownloadInfo& d = lpFsSession->LocalDownload();
    const ZV_FileBriefInfo& b = lpFsSession->BriefInfo();
    const bool bCreator = b.m_CreatorID == client.lpNode->GetUserID();
    return std::string(" (") + Narrow(b.m_sFileOldName) + ", " + (bCreator ? "creator, " : "") +
           (b.m_bPublic ? "public, " : "") +
           (lpFsSession->IsFileVisible(b) ? "" : "hidden, ") + "file state " + std::to_string(b.m_usFileState) +
           ", length " + std::to_string(b.m_ulFileLenth) + ", max " + std::to_string(lpFsSession->MaxPos()) +
           ", download state " + std::to_string(d.m_usState) + " at " + std::to_string(d.m_ulDownloadPos) +
           (ZV_FileShareSessionPeer::DownloadFailed(*lpFsSession) ? ", failed" : "") + ")";
}

// What each server holds of a file, for a problem's line.
std::string ZV_RandomScenario::DescribeServers(uint16_t usFileID)
{
    std::string sText;
    for (int n = 1; n <= m_nServers; ++n)
    {
        ZV_FileShareSession* lpFsSession = nullptr;
        if (!ZV_FileShareMgrPeer::Sessions(*Manager(m_vecServers[n - 1])).Lookup(usFileID, lpFsSession) ||
            !lpFsSession)
        {
            sText += "; server " + std::to_string(n) + ": none";
            continue;
        }
        ZV_FileShareSession& session = *lpFsSession;
        const ZV_FileUploadInfo& info = session.FileInfo();
        sText += "; server " + std::to_string(n) + ": " + Narrow(info.m_BriefInfo.m_sFileOldName) + ", state " +
                 std::to_string(info.m_BriefInfo.m_usFileState) +
                 ", written " + std::to_string(info.m_ulFileWritePos) + ", max " + std::to_string(session.MaxPos()) +
                 (session.IsUploadStopped() ? ", stopped" : "") + (info.m_BriefInfo.m_bPublic ? ", public" : "") +
                 ", rights " + std::to_string(info.m_BriefInfo.m_arrRight.GetSize()) + ", fetch " +
                 std::to_string(session.LocalDownload().m_usState) + " at " +
                 std::to_string(session.LocalDownload().m_ulDownloadPos);
        ZV_DownloadMap& map = ZV_FileShareSessionPeer::Downloads(session);
        for (QB_POSITION pos = map.GetStartPosition(); pos != nullptr;)
        {
            QB_UserID user;
            ZV_FileDownloadInfo* pEntry = map.GetNextAssoc(pos, user);
            sText += ", entry " + std::to_string(user.m_ulMain) + " " + std::to_string(pEntry->m_usState) + "@" +
                     std::to_string(pEntry->m_ulDownloadPos) + (pEntry->m_bActive ? " active" : "") +
                     (pEntry->m_bStopped ? " stopped" : "");
        }
    }
    return sText;
}

bool ZV_RandomScenario::IsNodeFile(const std::vector<std::string>& vecPart) const
{
    if (vecPart.size() == 3)
        return vecPart[2] == "confsrv.ini" || vecPart[2].rfind("fsinfo.ini", 0) == 0 ||
               vecPart[2].rfind("fsshared.ini", 0) == 0;
    if (vecPart.size() >= 4 && vecPart[2] == "log")
        return true;
    const bool bServer = vecPart[1].rfind("srv", 0) == 0;
    return bServer && vecPart.size() == 5 && vecPart[2] == "store" && vecPart[3] == std::to_string(kConfID);
}

// No client is busy once settled, but a downloader of a file whose upload
// never began and never can: its creator withdrew it (and a server that
// missed the delete brought it back) or left before uploading it (and a
// server that missed that keeps it). No time-out ends a transfer.
void ZV_RandomScenario::CheckIdle()
{
    for (const auto& lpClient : m_vecClients)
    {
        const QB_Array<uint16_t>& arrBusy = ZV_FileShareMgrPeer::BusyFileIDs(*Manager(lpClient->lpNode));
        for (int i = 0; i < arrBusy.GetSize(); ++i)
            if (!IsWaitingForAnUpload(*lpClient, arrBusy[i]))
                Problem(lpClient->sName + " is still busy with " + std::to_string(arrBusy[i]) +
                        Describe(*lpClient, arrBusy[i]) + DescribeServers(arrBusy[i]));
    }
}

bool ZV_RandomScenario::IsWaitingForAnUpload(const Client& client, uint16_t usFileID)
{
    const ZV_FileShareSession* lpOwn = ZV_FileShareMgrPeer::Find(*Manager(client.lpNode), usFileID);
    const ZV_FileShareSession* lpHeld = ZV_FileShareMgrPeer::Find(*Manager(client.lpHome), usFileID);
    if (lpOwn == nullptr || lpHeld == nullptr || lpOwn->BriefInfo().m_CreatorID == client.lpNode->GetUserID())
        return false;
    const ZV_FileUploadInfo& held = lpHeld->FileInfo();
    const std::string sName = Narrow(held.m_BriefInfo.m_sFileOldName);
    const QB_UserID& creator = held.m_BriefInfo.m_CreatorID;
    const bool bWithdrawn = std::any_of(m_vecDeleted.begin(), m_vecDeleted.end(),
                                        [&](const Deleted& deleted) { return deleted.sName == sName; });
    const bool bDropped = std::any_of(m_vecClients.begin(), m_vecClients.end(), [&](const auto& lpCreator) {
        const ZV_FileShareSession* lpThere = ZV_FileShareMgrPeer::Find(*Manager(lpCreator->lpHome), usFileID);
        return lpCreator->lpNode->GetUserID() == creator &&
               (lpThere == nullptr || !lpThere->FileInfo().m_BriefInfo.IsSameFile(held.m_BriefInfo));
    });
    return (bWithdrawn || bDropped) && lpOwn->LocalDownload().m_usState == zvDownloadStateRunning &&
           held.m_BriefInfo.m_usFileState == zvFileStateAdded && held.m_ulFileWritePos == 0 &&
           held.m_BriefInfo.IsSameFile(lpOwn->BriefInfo());
}

// Every PDU ends in the two flags of its kind. The group's progress report
// uses 0, 0 while the transfer runs and 1, 1 at its end, and a server's 8037
// is 1, 0 only as the upload list sends it; the scene of the wire flags
// tells those cases apart.
void ZV_RandomScenario::CheckFlags()
{
    ZV_SimFilter filter;
    filter.eKind = ZV_SimEntryKind::Pdu;
    for (const ZV_SimEntry& entry : m_lpSim->Journal().Find(filter))
    {
        const std::pair<uint8_t, uint8_t> flags(entry.bFlag1, entry.bFlag2);
        const bool bRunningReport = entry.usNumber == PDU_CONF_FS_PROGRESSING_RESPONSE &&
                                    entry.eRoute == ZV_SimRoute::Group && flags == std::make_pair<uint8_t, uint8_t>(0, 0);
        const bool bListNotice = entry.usNumber == PDU_CONF_FS_NOTICE_DEL_DOWNLOAD_INFO_REQUEST &&
                                 flags == std::make_pair<uint8_t, uint8_t>(1, 0);
        std::pair<uint8_t, uint8_t> expected(1, 1);
        if (entry.usNumber == 257)
            expected = {0, 0};
        else if (entry.usNumber == PDU_CONF_FS_PROGRESSING_REQUEST)
            expected = {1, 0};
        if (flags != expected && !bRunningReport && !bListNotice)
            Problem("PDU " + std::to_string(entry.usNumber) + " from " + entry.sNode + " to " + entry.sPeer +
                    " sent with flags " + std::to_string(flags.first) + ", " + std::to_string(flags.second));
    }
}

// Once settled, each user side holds what its server holds for the user:
// the files the user may see, by name, length and state. A creator's client
// keeps its own state of its own file over a list's unless its own says
// complete, and may have been told "stopped" or "uploading" by a list of a
// file the server holds whole (an upload asked again and stopped while away
// runs to an end the server, holding every byte, never answers).
void ZV_RandomScenario::CheckViews()
{
    for (const auto& lpClient : m_vecClients)
    {
        const QB_UserID user = lpClient->lpNode->GetUserID();
        const bool bPrivileged = lpClient->lpNode->GetUserRecord().usRole == zvUserRolePrivileged;
        std::map<uint16_t, ZV_ToldFile> mapHeld;
        ForEachSession(lpClient->lpHome, [&](uint16_t usFileID, ZV_FileShareSession& session) {
            const ZV_FileBriefInfo& brief = session.FileInfo().m_BriefInfo;
            // A server that never heard of the delete may bring a withdrawn
            // file back when its link returns; its creator's client never
            // reads it again, and may or may not show it (a list shows it,
            // an add of it is refused), so neither way is a fault.
            if (brief.m_CreatorID == user && lpClient->setWithdrawn.count(Narrow(brief.m_sFileOldName)))
                return;
            if (brief.m_bPublic || brief.m_arrRight.Find(user) >= 0 || brief.m_CreatorID == user || bPrivileged)
                mapHeld[usFileID] = {Narrow(brief.m_sFileOldName), brief.m_ulFileLenth, brief.m_usFileState, {}, {}};
        });
        const std::map<uint16_t, ZV_ToldFile>& mapTold = lpClient->lpView->Files();
        for (auto& [usFileID, held] : mapHeld)
        {
            auto it = mapTold.find(usFileID);
            ZV_FileShareSession* lpOwn = ZV_FileShareMgrPeer::Find(*Manager(lpClient->lpNode), usFileID);
            const bool bCreator = it != mapTold.end() && lpOwn != nullptr && lpOwn->BriefInfo().m_CreatorID == user;
            if (bCreator && lpOwn->BriefInfo().m_usFileState != zvFileStateComplete &&
                it->second.usState == lpOwn->BriefInfo().m_usFileState)
                held.usState = it->second.usState;
            if (bCreator && held.usState == zvFileStateComplete && it->second.usByEvent == zvFsEventFilesAdded &&
                (it->second.usState == zvFileStateUploading || it->second.usState == zvFileStateStopped))
                held.usState = it->second.usState;
            if (it == mapTold.end())
                Problem(lpClient->sName + " was never told of " + std::to_string(usFileID) + " (" + held.sName + ")" +
                        Describe(*lpClient, usFileID) + DescribeServers(usFileID));
            else if (it->second.sName != held.sName || it->second.ulLength != held.ulLength ||
                     it->second.usState != held.usState)
                Problem(lpClient->sName + " was told " + std::to_string(usFileID) + " is " + it->second.sName + ", " +
                        std::to_string(it->second.ulLength) + " bytes, state " + std::to_string(it->second.usState) +
                        "; its server holds " + held.sName + ", " + std::to_string(held.ulLength) + " bytes, state " +
                        std::to_string(held.usState) + "; told by" + it->second.sHistory + Describe(*lpClient, usFileID) +
                        DescribeServers(usFileID));
        }
        for (const auto& [usFileID, told] : mapTold)
            if (!mapHeld.count(usFileID) && !lpClient->setWithdrawn.count(told.sName))
                Problem(lpClient->sName + " was told of " + std::to_string(usFileID) + " (" + told.sName +
                        "), which its server does not hold for it" + Describe(*lpClient, usFileID) +
                        DescribeServers(usFileID));
    }
}

// A client sends its server a PDU of any number the table knows, or none,
// with any payload, on either of its links: its server takes it only in
// the name of the link's user, so that whatever it does the others see as
// that user's doing, and every check still holds.
void ZV_RandomScenario::StepHostilePdu()
{
    Client& client = AnyClient();
    if (!IsPresent(client))
        return;
    const uint32_t ulRow = Random((uint32_t)std::size(kPduTable) + 1);
    const uint16_t usPdu = ulRow < std::size(kPduTable) ? kPduTable[ulRow].usPdu : (uint16_t)Random(65536);
    const uint16_t usConnType = Chance(50) ? zvConfClientTypeCommand : zvConfClientTypeData;
    std::vector<uint8_t> vbPayload(Random(Chance(10) ? 70000 : 120));
    for (uint8_t& b : vbPayload)
        b = (uint8_t)Random(256);
    const uint32_t ulConn = client.lpHome->GetUserConn(&client.lpNode->GetUserID(), usConnType);
    if (ulConn == zvConnNone)
        return;
    client.lpHome->DeliverPdu(*client.lpNode->GetMachine(), ulConn, usConnType, usPdu, vbPayload.data(),
                              (uint32_t)vbPayload.size());
    Note(client.sName + " sends its server " + std::to_string(usPdu) + " of " + std::to_string(vbPayload.size()) +
         " bytes");
    Deliver();
}

// The next file operation of a kind fails, once or for good until the
// next such step.
void ZV_RandomScenario::StepFileFault()
{
    QB_FaultEnv& env = m_lpSim->GetEnv();
    env.ClearFaults();
    if (Chance(30))
        return Note("file operations succeed");
    const auto op = (QB_EnvOp)Random((uint32_t)QB_EnvOp::Count_);
    const int nNth = 1 + (int)Random(20);
    env.FailAt(op, nNth, Chance(20));
    Note("file operation " + std::to_string((int)op) + " fails at the " + std::to_string(nNth) + "th");
}
