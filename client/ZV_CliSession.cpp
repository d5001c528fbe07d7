#include "ZV_CliSession.h"

#include "ZV_CliUtf.h"
#include "ZV_ResultText.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

// The states of a whole upload and of a finished download in event 3011.
constexpr uint16_t kUploadComplete = 3;
constexpr uint16_t kUploadFailed = 4;

// A result code in words, with what the user can do about it.
std::string Words(uint32_t ulResult)
{
    std::string s = zvResultText(ulResult);
    switch (ulResult)
    {
    case zvResultNoConnection:
        s += "; try again once the server is back";
        break;
    case zvResultNotEntitled:
        s += "; only the file's creator, or a privileged user, may";
        break;
    case zvResultNoCreatorLink:
        s += "; try again when its creator is connected";
        break;
    case zvResultCannotOpen:
    case zvResultCannotAccess:
        s += "; check the path and its permissions";
        break;
    case zvResultUnknownFile:
        s += "; `roomcrate ls` shows the files there are";
        break;
    case zvResultReservedFile:
        s += "; try again in a moment";
        break;
    default:
        break;
    }
    return s + " (" + std::to_string(ulResult) + ")";
}

// The local path a file was shared from, as its description gives it.
std::string SharedFrom(const ZV_FsFileInfo& info)
{
    std::string sPath = Utf8(info.szFilePath) + Utf8(info.szFileOldName);
    std::replace(sPath.begin(), sPath.end(), '\\', '/');
    return sPath;
}

}  // namespace

std::vector<std::pair<std::string, std::vector<std::string>>> ZV_GroupByFolder(const std::vector<std::string>& vecPaths)
{
    std::vector<std::pair<std::string, std::vector<std::string>>> vecGroups;
    for (const std::string& sPath : vecPaths)
    {
        const fs::path path(sPath);
        const std::string sFolder = path.parent_path().string();
        auto it = std::find_if(vecGroups.begin(), vecGroups.end(), [&](const auto& group) { return group.first == sFolder; });
        if (it == vecGroups.end())
            it = vecGroups.insert(vecGroups.end(), {sFolder, {}});
        it->second.push_back(path.filename().string());
    }
    return vecGroups;
}

ZV_CliSession::ZV_CliSession(asio::io_context& io, ZV_NetClientConfig config, ZV_ModuleApi& api, ZV_CliOutput& out,
                             std::chrono::seconds secRetry)
    : m_io(io), m_config(config), m_client(io, std::move(config), api), m_out(out), m_secRetry(secRetry),
      m_settle(io), m_lost(io), m_addWait(io)
{
}

void ZV_CliSession::Start(std::function<void()> fnReady, std::function<void(int)> fnEnd)
{
    m_fnReady = std::move(fnReady);
    m_fnEnd = std::move(fnEnd);
    Probe();
}

// A first connection that cannot be made is said at once, rather than
// dialled again and again as a lost one is.
void ZV_CliSession::Probe()
{
    auto lpResolver = std::make_shared<asio::ip::tcp::resolver>(m_io);
    auto lpSocket = std::make_shared<asio::ip::tcp::socket>(m_io);
    auto lpTimer = std::make_shared<asio::steady_timer>(m_io, std::chrono::seconds(10));
    const std::string sWhere = m_config.sServer + ":" + std::to_string(m_config.usPort);
    lpTimer->async_wait([this, lpSocket, lpResolver, sWhere](const asio::error_code& ec) {
        if (ec)
            return;
        lpResolver->cancel();
        lpSocket->close();
        m_out.Error("no answer from the server at " + sWhere + " within 10 s; is the address right?",
                    {{"type", "error"}, {"message", "no answer from " + sWhere}});
        End(kCliNoServer);
    });
    lpResolver->async_resolve(
        m_config.sServer, std::to_string(m_config.usPort),
        [this, lpResolver, lpSocket, lpTimer, sWhere](const asio::error_code& ec,
                                                       asio::ip::tcp::resolver::results_type results) {
            if (ec)
            {
                lpTimer->cancel();
                m_out.Error("cannot find the server " + m_config.sServer + ": " + ec.message(),
                            {{"type", "error"}, {"message", ec.message()}});
                return End(kCliNoServer);
            }
            asio::async_connect(*lpSocket, results,
                                [this, lpSocket, lpTimer, sWhere](const asio::error_code& ecConnect,
                                                                  const asio::ip::tcp::endpoint&) {
                                    if (m_bOver)
                                        return;
                                    lpTimer->cancel();
                                    lpSocket->close();
                                    if (ecConnect)
                                    {
                                        m_out.Error("cannot reach the server at " + sWhere + ": " +
                                                        ecConnect.message() + "; is it running?",
                                                    {{"type", "error"}, {"message", ecConnect.message()}});
                                        return End(kCliNoServer);
                                    }
                                    m_bStarted = true;
                                    if (!m_client.Start())
                                    {
                                        m_out.Error(m_client.GetError());
                                        return End(kCliUsage);
                                    }
                                    m_client.SetEventCallback([this](uint16_t usEvent, std::vector<uint8_t> vb) {
                                        OnEvent(usEvent, vb);
                                    });
                                    m_client.SetLinkCallback([this](ZV_NetClient::Link eLink) { OnLink(eLink); });
                                });
        });
}

void ZV_CliSession::OnLink(ZV_NetClient::Link eLink)
{
    switch (eLink)
    {
    case ZV_NetClient::Link::Up:
        m_lost.cancel();
        if (m_bLostSaid)
            m_out.Note("connected again");
        m_bLostSaid = false;
        m_bEverUp = true;
        m_bSettled = false;
        m_tpSettleLimit = std::chrono::steady_clock::now() + std::chrono::seconds(3);
        return Settle();
    case ZV_NetClient::Link::Down:
        if (!m_bEverUp || m_bLostSaid)
            return;
        // Said once; the client dials again with a growing wait, within a bound.
        m_bLostSaid = true;
        m_out.Note("the connection to the server was lost; trying again for up to " +
                   std::to_string(m_secRetry.count()) + " s");
        m_lost.expires_after(m_secRetry);
        m_lost.async_wait([this](const asio::error_code& ec) {
            if (ec)
                return;
            m_out.Error("the server did not come back within " + std::to_string(m_secRetry.count()) + " s",
                        {{"type", "error"}, {"message", "connection lost"}});
            End(kCliFailed);
        });
        return;
    case ZV_NetClient::Link::Refused:
        m_out.Error("the server refused the login" + (m_config.sName.empty() ? "" : " of " + m_config.sName) +
                        ": wrong name or secret, or a server that could not prove who it is",
                    {{"type", "error"}, {"message", "login refused"}});
        return End(kCliNoServer);
    case ZV_NetClient::Link::Replaced:
        m_out.Error("another roomcrate of this user connected and took this one's place",
                    {{"type", "error"}, {"message", "replaced"}});
        return End(kCliReplaced);
    default:
        return;
    }
}

// The lists a joining client gets come in a burst; the first command waits
// for a quiet moment after the link came up (3 s at most).
void ZV_CliSession::Settle()
{
    const auto tpQuiet = std::min(std::chrono::steady_clock::now() + std::chrono::milliseconds(300), m_tpSettleLimit);
    m_settle.expires_at(tpQuiet);
    m_settle.async_wait([this](const asio::error_code& ec) {
        if (ec || m_bSettled || m_bOver)
            return;
        m_bSettled = true;
        if (m_fnReady)
            std::exchange(m_fnReady, nullptr)();
    });
}

void ZV_CliSession::End(int nExit)
{
    if (m_bOver)
        return;
    m_bOver = true;
    m_settle.cancel();
    m_lost.cancel();
    m_addWait.cancel();
    if (m_fnEnd)
        m_fnEnd(nExit);
}

void ZV_CliSession::Stop(bool bGoodbye)
{
    m_bOver = true;
    m_settle.cancel();
    m_lost.cancel();
    m_addWait.cancel();
    if (m_bStarted)
        m_client.Stop(bGoodbye);
}

void ZV_CliSession::OnEvent(uint16_t usEvent, const std::vector<uint8_t>& vb)
{
    const ZV_CliEvent ev = ZV_ReadCliEvent(usEvent, vb);
    if (!ev.bValid || m_bOver)
        return;
    m_catalog.Apply(ev, !m_bSettled);
    if (!m_bSettled)
        Settle();
    UploadEvent(ev);
    // A download the server lists for the user goes on by itself, and may
    // end before any command asks for it.
    if (ev.usEvent == zvFsEventDownloadState && ev.ulResult == 0 && !ev.sTarget.empty())
        m_mapListed[ev.usFileID] = ev.sTarget;
    if (ev.usEvent == zvFsEventDownloadFinished && ev.ulResult == 0 && !m_mapDownloads.count(ev.usFileID) &&
        m_mapListed.count(ev.usFileID))
        m_mapDoneHere[ev.usFileID] = m_mapListed[ev.usFileID];
    DownloadEvent(ev);
    if (auto it = m_mapPending.find(ev.usFileID); it != m_mapPending.end())
    {
        const std::string& sVerb = it->second.sVerb;
        const bool bRm = sVerb == "rm" && ev.usEvent == zvFsEventFileGone;
        const bool bRights = sVerb == "rights" && (ev.usEvent == zvFsEventRightChanged ||
                                                   (ev.usEvent == zvFsEventFileHidden && ev.ulResult != 0));
        const bool bControl = sVerb == "control" && ev.usEvent == zvFsEventStopResult;
        if (bRm || bRights || bControl)
        {
            auto fnDone = std::move(it->second.fnDone);
            m_mapPending.erase(it);
            if (ev.ulResult != 0)
                m_out.Error("the server refused: " + Words(ev.ulResult),
                            {{"type", "error"}, {"id", ev.usFileID}, {"code", ev.ulResult}, {"message", zvResultText(ev.ulResult)}});
            fnDone(ev.ulResult == 0 ? kCliDone : kCliFailed);
            return;
        }
    }
    if (m_bWatching && m_bSettled)
        Watch(ev);
}

// Others' doings, as the shell shows them.
void ZV_CliSession::Watch(const ZV_CliEvent& ev)
{
    if (ev.ulResult != 0)
        return;
    const char* szWhat = ev.usEvent == zvFsEventFileAdded      ? "new file"
                         : ev.usEvent == zvFsEventFileGone     ? "file gone"
                         : ev.usEvent == zvFsEventFileHidden   ? "file no longer yours to see"
                         : ev.usEvent == zvFsEventRightChanged ? "rights changed"
                                                               : nullptr;
    if (szWhat == nullptr)
        return;
    const std::string sName = ev.usEvent == zvFsEventFileAdded || ev.usEvent == zvFsEventRightChanged
                                  ? InfoOf(ev.usFileID).sName
                                  : std::string();
    m_out.Result(std::string("* ") + szWhat + ": " + std::to_string(ev.usFileID) + (sName.empty() ? "" : " " + sName),
                 {{"type", "event"}, {"event", szWhat}, {"id", ev.usFileID}, {"name", sName}});
}

std::map<uint16_t, std::string> ZV_CliSession::NameMap()
{
    std::map<uint16_t, std::string> mapNames;
    for (const auto& [usFileID, state] : m_catalog.Files())
    {
        ZV_FsFileInfo info{};
        if (m_client.GetFileShareMgr()->FsGetFileInfoByFileID(usFileID, &info) == 0)
            mapNames[usFileID] = Utf8(info.szFileOldName);
    }
    return mapNames;
}

std::vector<std::string> ZV_CliSession::Names()
{
    std::vector<std::string> vecNames;
    for (const auto& [usFileID, sName] : NameMap())
        vecNames.push_back(sName);
    return vecNames;
}

ZV_CliFileInfo ZV_CliSession::InfoOf(uint16_t usFileID)
{
    ZV_CliFileInfo out;
    out.usFileID = usFileID;
    ZV_FsFileInfo info{};
    if (m_client.GetFileShareMgr()->FsGetFileInfoByFileID(usFileID, &info) == 0)
    {
        out.sName = Utf8(info.szFileOldName);
        out.ullLength = info.ulFileLenth;
        out.ulCreator = info.ulCreatorMain;
        out.sCreatorName = Utf8(info.szCreatorName);
    }
    if (const ZV_CliFileState* lpState = m_catalog.Find(usFileID))
    {
        out.dServerPercent = lpState->dServerPercent;
        out.bPublic = lpState->bPublic;
        out.vecAllowed = lpState->vecAllowed;
        out.sDownload = ZV_CliDownloadText(lpState->eDownload);
        out.dDownloadPercent = lpState->dDownloadPercent;
    }
    return out;
}

bool ZV_CliSession::Resolve(const std::vector<std::string>& vecWords, std::vector<uint16_t>& vecFileIDs)
{
    const auto mapNames = NameMap();
    for (const std::string& sWord : vecWords)
    {
        const ZV_CliMatch match = ZV_ResolveFile(sWord, mapNames);
        if (match.ousFileID)
        {
            vecFileIDs.push_back(*match.ousFileID);
            continue;
        }
        if (match.vecMatches.empty())
        {
            m_out.Error("no file called \"" + sWord + "\" that you may see; `roomcrate ls` shows them",
                        {{"type", "error"}, {"name", sWord}, {"message", "no such file"}});
            return false;
        }
        std::string sIDs;
        for (uint16_t usFileID : match.vecMatches)
            sIDs += (sIDs.empty() ? "" : ", ") + std::to_string(usFileID);
        m_out.Error("several files are called \"" + sWord + "\": " + sIDs + "; give the number instead",
                    {{"type", "error"}, {"name", sWord}, {"matches", match.vecMatches},
                     {"message", "several files of that name"}});
        return false;
    }
    return true;
}

std::map<uint32_t, std::string> ZV_CliSession::Roster()
{
    std::map<uint32_t, std::string> mapNames;
    for (const auto& [usFileID, state] : m_catalog.Files())
    {
        ZV_FsFileInfo info{};
        if (m_client.GetFileShareMgr()->FsGetFileInfoByFileID(usFileID, &info) == 0 && info.szCreatorName[0] != 0)
            mapNames[info.ulCreatorMain] = Utf8(info.szCreatorName);
    }
    if (!m_config.sName.empty())
        mapNames[m_config.ulUser] = m_config.sName;
    return mapNames;
}

bool ZV_CliSession::ResolveUsers(const std::vector<std::string>& vecWords, std::vector<QB_UserID>& vecUsers)
{
    const auto mapNames = Roster();
    for (const std::string& sWord : vecWords)
    {
        const ZV_CliUserMatch match = ZV_ResolveUser(sWord, mapNames);
        if (match.oulUser)
        {
            vecUsers.emplace_back(*match.oulUser, 0);
            continue;
        }
        if (match.vecMatches.empty())
        {
            m_out.Error("no user called \"" + sWord + "\" that roomcrate knows of (it learns names from the files "
                            "users share); give the user's number",
                        {{"type", "error"}, {"user", sWord}, {"message", "no such user"}});
            return false;
        }
        std::string sNumbers;
        for (uint32_t ulUser : match.vecMatches)
            sNumbers += (sNumbers.empty() ? "" : ", ") + std::to_string(ulUser);
        m_out.Error("several users are called \"" + sWord + "\": " + sNumbers + "; give the number instead",
                    {{"type", "error"}, {"user", sWord}, {"matches", match.vecMatches},
                     {"message", "several users of that name"}});
        return false;
    }
    return true;
}

// "carol (10003)", or the number alone when the client knows no name.
std::string ZV_CliSession::UserText(uint32_t ulUser)
{
    const auto mapNames = Roster();
    auto it = mapNames.find(ulUser);
    return it == mapNames.end() ? std::to_string(ulUser) : it->second + " (" + std::to_string(ulUser) + ")";
}

void ZV_CliSession::Run(const ZV_CliCommand& command, std::function<void(int)> fnDone)
{
    if (command.sVerb == "share")
        return Share(command, std::move(fnDone));
    if (command.sVerb == "ls")
        return List(std::move(fnDone));
    if (command.sVerb == "get")
        return Get(command, std::move(fnDone));
    if (command.sVerb == "rm")
        return Remove(command, std::move(fnDone));
    if (command.sVerb == "allow" || command.sVerb == "deny")
        return Rights(command, std::move(fnDone));
    if (command.sVerb == "info")
        return Info(command, std::move(fnDone));
    m_out.Error("no command \"" + command.sVerb + "\"");
    fnDone(kCliUsage);
}

// ---------------------------------------------------------------------------
// share

void ZV_CliSession::Share(const ZV_CliCommand& command, std::function<void(int)> fnDone)
{
    auto lpPaths = std::make_shared<std::vector<std::string>>();
    for (const std::string& sArg : command.vecArgs)
    {
        std::error_code ec;
        if (!fs::is_regular_file(sArg, ec))
        {
            m_out.Error("there is no file " + sArg + " to share",
                        {{"type", "error"}, {"name", sArg}, {"message", "no such file"}});
            return fnDone(kCliNoSuchFile);
        }
        lpPaths->push_back(fs::absolute(sArg).lexically_normal().string());
    }
    std::vector<QB_UserID> vecRights;
    if (!ResolveUsers(command.vecUsers, vecRights))
        return fnDone(kCliNoSuchFile);
    m_out.Note("roomcrate stays until the server holds the whole of what you share; leaving earlier (Ctrl-C) ends "
               "the upload once the server's grace period has passed");
    ShareAll(*lpPaths, vecRights, std::move(fnDone));
}

// The files of one folder go as one batch, as the module shares only the
// names of one folder together; a folder with a single file goes as one
// add. Each answer finds its add by the path it was shared from.
void ZV_CliSession::ShareAll(const std::vector<std::string>& vecPaths, const std::vector<QB_UserID>& vecRights,
                             std::function<void(int)> fnDone)
{
    auto lpLeft = std::make_shared<size_t>(vecPaths.size());
    auto lpExit = std::make_shared<int>(kCliDone);
    auto fnOne = [lpLeft, lpExit, fnDone](int nExit) {
        if (nExit != kCliDone)
            *lpExit = nExit;
        if (--*lpLeft == 0)
            fnDone(*lpExit);
    };
    const QB_UserID* pRights = vecRights.empty() ? nullptr : vecRights.data();
    const uint8_t bPublic = vecRights.empty() ? 1 : 0;
    for (const auto& [sFolder, vecNames] : ZV_GroupByFolder(vecPaths))
    {
        std::vector<std::u16string> vecWide;
        for (const std::string& sName : vecNames)
            vecWide.push_back(Utf16(sName));
        std::vector<const char16_t*> vecPtr;
        for (const std::u16string& sWide : vecWide)
            vecPtr.push_back(sWide.c_str());
        IZV_FileShareMgr* lpFs = m_client.GetFileShareMgr();
        const uint32_t ulResult =
            vecNames.size() == 1
                ? lpFs->FsAdd(Utf16(sFolder + "/" + vecNames[0]).c_str(), pRights, (uint32_t)vecRights.size(), bPublic, 1)
                : lpFs->FsFilesAdd(Utf16(sFolder).c_str(), vecPtr.data(), (uint32_t)vecPtr.size(), pRights,
                                   (uint32_t)vecRights.size(), bPublic, 1);
        // A batch goes out without the files it could not open, and says
        // only that one failed: each is looked at again to say which.
        for (const std::string& sName : vecNames)
        {
            const std::string sPath = sFolder + "/" + sName;
            std::error_code ec;
            const uint64_t ullLength = fs::file_size(sPath, ec);
            const bool bFailed = ulResult != 0 && (vecNames.size() == 1 || ulResult != zvResultCannotOpen || ec ||
                                                   access(sPath.c_str(), R_OK) != 0);
            if (bFailed)
            {
                m_out.Error("cannot share " + sPath + ": " + Words(ulResult),
                            {{"type", "error"}, {"name", sName}, {"code", ulResult}, {"message", zvResultText(ulResult)}});
                fnOne(kCliFailed);
                continue;
            }
            m_listAdding.push_back(Upload{sPath, sName, 0xFFFF, ullLength, fnOne});
        }
    }
    WaitForAdds();
}

// A batch the server refuses for want of FileIDs is answered with nothing
// the user side hears of; an add still unanswered half a minute on, while
// the link stands, is said to have failed rather than waited for.
void ZV_CliSession::WaitForAdds()
{
    m_addWait.expires_after(std::chrono::seconds(30));
    m_addWait.async_wait([this](const asio::error_code& ec) {
        if (ec || m_bOver || m_listAdding.empty())
            return;
        if (m_client.GetLink() != ZV_NetClient::Link::Up)
            return WaitForAdds();
        std::list<Upload> listLeft = std::move(m_listAdding);
        m_listAdding.clear();
        for (Upload& upload : listLeft)
        {
            m_out.Error("the server did not take " + upload.sName + "; it may have no free file number left",
                        {{"type", "error"}, {"name", upload.sName}, {"message", "no answer to the share"}});
            upload.fnDone(kCliFailed);
        }
    });
}

// The add of this path, by the folder and name the server's record gives
// back; with a record that names no folder, the oldest add of that name.
std::list<ZV_CliSession::Upload>::iterator ZV_CliSession::FindAdding(const std::string& sPath)
{
    auto it = std::find_if(m_listAdding.begin(), m_listAdding.end(),
                           [&](const Upload& upload) { return upload.sPath == sPath; });
    if (it != m_listAdding.end())
        return it;
    const std::string sName = fs::path(sPath).filename().string();
    return std::find_if(m_listAdding.begin(), m_listAdding.end(),
                        [&](const Upload& upload) { return upload.sName == sName; });
}

void ZV_CliSession::StartUpload(std::list<Upload>::iterator it, uint16_t usFileID, double dPercent)
{
    Upload upload = std::move(*it);
    m_listAdding.erase(it);
    upload.usFileID = usFileID;
    m_mapUploads[usFileID] = std::move(upload);
    if (dPercent >= 100.0)
        FinishUpload(usFileID, 0);
}

void ZV_CliSession::RefuseUpload(std::list<Upload>::iterator it, uint32_t ulResult)
{
    Upload upload = std::move(*it);
    m_listAdding.erase(it);
    const std::string sWhy = ulResult != 0 ? Words(ulResult)
                                           : "you may not share here, or the batch would pass the files or bytes "
                                             "the server lets one user share";
    m_out.Error("the server refused to take " + upload.sName + ": " + sWhy,
                {{"type", "error"}, {"name", upload.sName}, {"code", ulResult}, {"message", sWhy}});
    upload.fnDone(kCliFailed);
}

// The batch's answer: the files the server took, each with its FileID,
// and those it refused, a record without one. The records of a report
// need not stand in the order of its FileIDs, so each FileID is matched by
// the description the manager keeps for it.
void ZV_CliSession::BatchAnswered(const ZV_CliEvent& ev)
{
    for (size_t i = 0; i < ev.vecFileIDs.size() && !m_listAdding.empty(); ++i)
    {
        ZV_FsFileInfo info{};
        if (m_client.GetFileShareMgr()->FsGetFileInfoByFileID(ev.vecFileIDs[i], &info) != 0 ||
            info.ulCreatorMain != m_config.ulUser)
            continue;
        auto it = FindAdding(SharedFrom(info));
        if (it == m_listAdding.end())
            continue;
        StartUpload(it, ev.vecFileIDs[i], i < ev.vecValues.size() ? ev.vecValues[i] : 0.0);
    }
    // A record whose add is still waiting came without a FileID.
    for (size_t i = 0; i < ev.vecPaths.size() && !m_listAdding.empty(); ++i)
        if (auto it = FindAdding(ev.vecPaths[i]); it != m_listAdding.end() && it->sPath == ev.vecPaths[i])
            RefuseUpload(it, 0);
}

void ZV_CliSession::UploadEvent(const ZV_CliEvent& ev)
{
    if (ev.usEvent == zvFsEventFilesAdded && !m_listAdding.empty())
        return BatchAnswered(ev);
    if (ev.usEvent == zvFsEventFileAdded && !m_listAdding.empty())
    {
        // A refusal names no file: it answers the oldest add.
        if (ev.ulResult != 0)
            return RefuseUpload(m_listAdding.begin(), ev.ulResult);
        ZV_FsFileInfo info{};
        if (m_client.GetFileShareMgr()->FsGetFileInfoByFileID(ev.usFileID, &info) != 0 ||
            info.ulCreatorMain != m_config.ulUser)
            return;
        auto it = FindAdding(SharedFrom(info));
        if (it != m_listAdding.end())
            StartUpload(it, ev.usFileID, ev.dPercent);
        return;
    }
    auto it = m_mapUploads.find(ev.usFileID);
    if (it == m_mapUploads.end())
        return;
    const Upload& upload = it->second;
    switch (ev.usEvent)
    {
    case zvFsEventUploadProgress:
        m_out.Progress("up" + std::to_string(ev.usFileID), upload.sName,
                       (uint64_t)(ev.dPercent / 100.0 * (double)upload.ullLength), upload.ullLength);
        if (ev.dPercent >= 100.0)
            FinishUpload(ev.usFileID, 0);
        return;
    case zvFsEventTransferState:
        if (ev.bUpload && (ev.usState == kUploadComplete || ev.usState == kUploadFailed))
            FinishUpload(ev.usFileID, ev.usState == kUploadComplete ? 0u : (uint32_t)zvResultCannotAccess);
        return;
    case zvFsEventTransferError:
        return FinishUpload(ev.usFileID, ev.ulResult != 0 ? ev.ulResult : zvResultException);
    case zvFsEventFileGone:
        if (ev.ulResult == 0)
            return FinishUpload(ev.usFileID, zvResultUnknownFile);
        return;
    default:
        return;
    }
}

void ZV_CliSession::FinishUpload(uint16_t usFileID, uint32_t ulResult)
{
    auto it = m_mapUploads.find(usFileID);
    if (it == m_mapUploads.end())
        return;
    Upload upload = std::move(it->second);
    m_mapUploads.erase(it);
    m_out.EndProgress("up" + std::to_string(usFileID));
    if (ulResult != 0)
    {
        m_out.Error("the upload of " + upload.sName + " failed: " + Words(ulResult),
                    {{"type", "error"}, {"id", usFileID}, {"name", upload.sName}, {"code", ulResult},
                     {"message", zvResultText(ulResult)}});
        return upload.fnDone(kCliFailed);
    }
    const std::string sSha = ZV_Sha256OfFile(upload.sPath);
    m_out.Result("shared " + std::to_string(usFileID) + " " + upload.sName + " (" +
                     ZV_CliSize((double)upload.ullLength) + "); the server holds all of it",
                 {{"type", "shared"}, {"id", usFileID}, {"name", upload.sName}, {"size", upload.ullLength},
                  {"path", upload.sPath}, {"sha256", sSha}});
    if (!m_out.IsJson())
        m_out.Essential(sSha + "  " + upload.sName, {});
    upload.fnDone(kCliDone);
}

// ---------------------------------------------------------------------------
// ls, info

void ZV_CliSession::List(std::function<void(int)> fnDone)
{
    std::vector<ZV_CliFileInfo> vecFiles;
    for (const auto& [usFileID, sName] : NameMap())
        vecFiles.push_back(InfoOf(usFileID));
    m_out.Files(vecFiles);
    fnDone(kCliDone);
}

void ZV_CliSession::Info(const ZV_CliCommand& command, std::function<void(int)> fnDone)
{
    std::vector<uint16_t> vecFileIDs;
    if (!Resolve(command.vecArgs, vecFileIDs))
        return fnDone(kCliNoSuchFile);
    for (uint16_t usFileID : vecFileIDs)
        m_out.FileDetails(InfoOf(usFileID));
    fnDone(kCliDone);
}

// ---------------------------------------------------------------------------
// get

void ZV_CliSession::Get(const ZV_CliCommand& command, std::function<void(int)> fnDone)
{
    std::vector<uint16_t> vecFileIDs;
    if (!Resolve(command.vecArgs, vecFileIDs))
        return fnDone(kCliNoSuchFile);
    std::error_code ec;
    fs::create_directories(command.sOutDir, ec);
    if (!fs::is_directory(command.sOutDir, ec))
    {
        m_out.Error("cannot make the folder " + command.sOutDir);
        return fnDone(kCliFailed);
    }
    auto lpLeft = std::make_shared<size_t>(vecFileIDs.size());
    auto lpExit = std::make_shared<int>(kCliDone);
    auto fnOne = [lpLeft, lpExit, fnDone](int nExit) {
        if (nExit != kCliDone)
            *lpExit = nExit;
        if (--*lpLeft == 0)
            fnDone(*lpExit);
    };
    for (uint16_t usFileID : vecFileIDs)
    {
        const ZV_CliFileInfo info = InfoOf(usFileID);
        Download download{info.sName, {}, info.ullLength, fnOne};
        if (m_mapDownloads.count(usFileID))
        {
            m_out.Error(info.sName + " is being fetched already");
            fnOne(kCliFailed);
            continue;
        }
        // A download the server still lists for the user goes on into its
        // file; only a new one takes a new name.
        if (auto itDone = m_mapDoneHere.find(usFileID); itDone != m_mapDoneHere.end())
        {
            download.sTarget = itDone->second;
            m_mapDoneHere.erase(itDone);
            m_mapDownloads[usFileID] = std::move(download);
            FinishDownload(usFileID, 0);
            continue;
        }
        const ZV_CliFileState* lpState = m_catalog.Find(usFileID);
        if (lpState && !lpState->sTarget.empty() &&
            (lpState->eDownload == ZV_CliDownload::Running || lpState->eDownload == ZV_CliDownload::Stopped))
        {
            download.sTarget = lpState->sTarget;
            m_out.Note("going on with " + info.sName + " into " + download.sTarget);
            if (lpState->eDownload == ZV_CliDownload::Stopped)
                m_client.GetFileShareMgr()->FsResumeDownload(usFileID);
            m_mapDownloads[usFileID] = std::move(download);
            continue;
        }
        download.sTarget = fs::absolute(ZV_FreeTarget(command.sOutDir, info.sName)).lexically_normal().string();
        const uint32_t ulResult = m_client.GetFileShareMgr()->FsDownload(usFileID, Utf16(download.sTarget).c_str());
        if (ulResult != 0)
        {
            m_out.Error("cannot fetch " + info.sName + ": " + Words(ulResult),
                        {{"type", "error"}, {"id", usFileID}, {"name", info.sName}, {"code", ulResult},
                         {"message", zvResultText(ulResult)}});
            fnOne(kCliFailed);
            continue;
        }
        m_mapDownloads[usFileID] = std::move(download);
    }
}

void ZV_CliSession::DownloadEvent(const ZV_CliEvent& ev)
{
    auto it = m_mapDownloads.find(ev.usFileID);
    if (it == m_mapDownloads.end())
        return;
    const Download& download = it->second;
    switch (ev.usEvent)
    {
    case zvFsEventDownloadState:
        if (ev.ulResult != 0)
            FinishDownload(ev.usFileID, ev.ulResult);
        return;
    case zvFsEventDownloadProgress:
        m_out.Progress("down" + std::to_string(ev.usFileID), download.sName,
                       (uint64_t)(ev.dPercent / 100.0 * (double)download.ullLength), download.ullLength);
        return;
    case zvFsEventDownloadFinished:
        return FinishDownload(ev.usFileID, ev.ulResult);
    case zvFsEventFileGone:
    case zvFsEventFileHidden:
        if (ev.ulResult == 0)
            FinishDownload(ev.usFileID, zvResultUnknownFile);
        return;
    default:
        return;
    }
}

void ZV_CliSession::FinishDownload(uint16_t usFileID, uint32_t ulResult)
{
    auto it = m_mapDownloads.find(usFileID);
    if (it == m_mapDownloads.end())
        return;
    Download download = std::move(it->second);
    m_mapDownloads.erase(it);
    m_out.EndProgress("down" + std::to_string(usFileID));
    if (ulResult != 0)
    {
        m_out.Error("fetching " + download.sName + " failed: " + Words(ulResult),
                    {{"type", "error"}, {"id", usFileID}, {"name", download.sName}, {"code", ulResult},
                     {"message", zvResultText(ulResult)}});
        return download.fnDone(kCliFailed);
    }
    std::error_code ec;
    const uint64_t ullGot = fs::file_size(download.sTarget, ec);
    if (ec || ullGot != download.ullLength)
    {
        m_out.Error(download.sTarget + " holds " + std::to_string(ec ? 0 : ullGot) + " bytes, not the " +
                        std::to_string(download.ullLength) + " of " + download.sName + "; fetch it again",
                    {{"type", "error"}, {"id", usFileID}, {"name", download.sName}, {"message", "wrong length"}});
        return download.fnDone(kCliFailed);
    }
    const std::string sSha = ZV_Sha256OfFile(download.sTarget);
    const std::string sLocal = fs::path(download.sTarget).filename().string();
    m_out.Result("fetched " + std::to_string(usFileID) + " " + download.sName + " into " + download.sTarget + " (" +
                     ZV_CliSize((double)download.ullLength) + ")",
                 {{"type", "fetched"}, {"id", usFileID}, {"name", download.sName}, {"size", download.ullLength},
                  {"path", download.sTarget}, {"sha256", sSha}});
    if (!m_out.IsJson())
        m_out.Essential(sSha + "  " + sLocal, {});
    download.fnDone(kCliDone);
}

// ---------------------------------------------------------------------------
// rm, allow, deny, and the shell's stop, resume, drop

void ZV_CliSession::Remove(const ZV_CliCommand& command, std::function<void(int)> fnDone)
{
    std::vector<uint16_t> vecFileIDs;
    if (!Resolve(command.vecArgs, vecFileIDs))
        return fnDone(kCliNoSuchFile);
    auto lpLeft = std::make_shared<size_t>(vecFileIDs.size());
    auto lpExit = std::make_shared<int>(kCliDone);
    for (uint16_t usFileID : vecFileIDs)
    {
        const std::string sName = InfoOf(usFileID).sName;
        auto fnOne = [this, lpLeft, lpExit, fnDone, usFileID, sName](int nExit) {
            if (nExit == kCliDone)
                m_out.Result("removed " + std::to_string(usFileID) + " " + sName,
                             {{"type", "removed"}, {"id", usFileID}, {"name", sName}});
            else
                *lpExit = nExit;
            if (--*lpLeft == 0)
                fnDone(*lpExit);
        };
        const uint32_t ulResult = m_client.GetFileShareMgr()->FsDelUpload(usFileID);
        if (ulResult != 0)
        {
            m_out.Error("cannot remove " + sName + ": " + Words(ulResult));
            fnOne(kCliFailed);
            continue;
        }
        m_mapPending[usFileID] = Pending{"rm", fnOne};
    }
}

void ZV_CliSession::Rights(const ZV_CliCommand& command, std::function<void(int)> fnDone)
{
    std::vector<uint16_t> vecFileIDs;
    if (!Resolve(command.vecArgs, vecFileIDs))
        return fnDone(kCliNoSuchFile);
    const bool bAllow = command.sVerb == "allow";
    std::vector<QB_UserID> vecUsers;
    if (!ResolveUsers(command.vecUsers, vecUsers))
        return fnDone(kCliNoSuchFile);
    auto lpLeft = std::make_shared<size_t>(vecFileIDs.size());
    auto lpExit = std::make_shared<int>(kCliDone);
    for (uint16_t usFileID : vecFileIDs)
    {
        const ZV_CliFileInfo info = InfoOf(usFileID);
        // allow --public opens the file to all, deny --public closes it to
        // all but those named; users are added or taken away alone.
        const bool bPublic = command.bPublic ? bAllow : info.bPublic;
        if (!bAllow && bPublic && !command.vecUsers.empty())
            m_out.Note(info.sName + " is public, so everyone may still have it; `roomcrate deny " +
                       std::to_string(usFileID) + " --public` keeps it to the users allowed");
        auto fnOne = [this, lpLeft, lpExit, fnDone, usFileID](int nExit) {
            if (nExit == kCliDone)
            {
                const ZV_CliFileInfo now = InfoOf(usFileID);
                m_out.Result("rights of " + std::to_string(usFileID) + " " + now.sName + ": " +
                                 (now.bPublic ? std::string("everyone") : [&] {
                                     std::string s = "the creator";
                                     for (uint32_t ulUser : now.vecAllowed)
                                         s += ", " + UserText(ulUser);
                                     return s;
                                 }()),
                             {{"type", "rights"}, {"id", usFileID}, {"name", now.sName}, {"public", now.bPublic},
                              {"allowed", now.vecAllowed}});
            }
            else
                *lpExit = nExit;
            if (--*lpLeft == 0)
                fnDone(*lpExit);
        };
        const uint32_t ulResult = m_client.GetFileShareMgr()->FsSetRight(
            usFileID, bPublic ? 1 : 0, bAllow && !vecUsers.empty() ? vecUsers.data() : nullptr,
            bAllow ? (uint32_t)vecUsers.size() : 0, !bAllow && !vecUsers.empty() ? vecUsers.data() : nullptr,
            bAllow ? 0 : (uint32_t)vecUsers.size());
        if (ulResult != 0)
        {
            m_out.Error("cannot change who may have " + info.sName + ": " + Words(ulResult));
            fnOne(kCliFailed);
            continue;
        }
        m_mapPending[usFileID] = Pending{"rights", fnOne};
    }
}

void ZV_CliSession::Control(const std::string& sVerb, const std::string& sWord, std::function<void(int)> fnDone)
{
    std::vector<uint16_t> vecFileIDs;
    if (!Resolve({sWord}, vecFileIDs))
        return fnDone(kCliNoSuchFile);
    const uint16_t usFileID = vecFileIDs[0];
    IZV_FileShareMgr* lpFs = m_client.GetFileShareMgr();
    const bool bUpload = m_mapUploads.count(usFileID) != 0;
    uint32_t ulResult = 0;
    if (sVerb == "drop")
    {
        // The user's own download goes, with its partial file.
        ulResult = lpFs->FsDelDownload(usFileID, 1);
        if (ulResult == 0)
        {
            m_out.EndProgress("down" + std::to_string(usFileID));
            if (auto it = m_mapDownloads.find(usFileID); it != m_mapDownloads.end())
            {
                auto fnGone = std::move(it->second.fnDone);
                m_mapDownloads.erase(it);
                m_out.Note("dropped the download of " + sWord);
                fnGone(kCliFailed);
            }
            if (ZV_CliFileState* lpState = m_catalog.Find(usFileID))
                lpState->eDownload = ZV_CliDownload::None;
        }
    }
    else if (sVerb == "stop")
        ulResult = bUpload ? lpFs->FsStopUpload(usFileID) : lpFs->FsStopDownload(usFileID);
    else
        ulResult = bUpload ? lpFs->FsResumeUpload(usFileID) : lpFs->FsResumeDownload(usFileID);
    if (ulResult != 0)
    {
        m_out.Error("cannot " + sVerb + " " + sWord + ": " + Words(ulResult));
        return fnDone(kCliFailed);
    }
    if (sVerb == "drop")
        return fnDone(kCliDone);
    // A stop holds the sender at its next block; what it had already handed
    // to the network still arrives, and a download keeps it: the server's
    // queue for the link (a megabyte by default) and both sockets' buffers,
    // which on loopback came to over 5 MB, seconds' worth at a low --rate.
    std::string sAfter;
    if (sVerb == "stop")
        sAfter = bUpload ? "; blocks already on their way still reach the server, which drops them"
                         : "; the blocks the server had already sent (up to several megabytes) still arrive and are kept";
    m_out.Result(sVerb + (sVerb == "stop" ? "ped " : "d ") + std::to_string(usFileID) + " " + sWord + sAfter,
                 {{"type", sVerb}, {"id", usFileID}});
    fnDone(kCliDone);
}
