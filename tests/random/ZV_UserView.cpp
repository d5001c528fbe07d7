#include "ZV_UserView.h"

#include "core/ZV_FileShareMgr.h"
#include "ZV_FileShareMgrPeer.h"
#include "core/ZV_FileShareSession.h"
#include "wire/ZV_RecordStream.h"

#include "QB_ByteStream.h"

ZV_UserView::ZV_UserView(ZV_SimHost* lpClient, const ZV_SimJournal& journal, std::string sUser,
                         ProblemFn fnProblem)
    : m_lpClient(lpClient), m_journal(journal), m_sUser(std::move(sUser)), m_fnProblem(std::move(fnProblem))
{
    lpClient->SetEventCallback(
        [this](ZV_SimHost&, uint16_t usEvent, const std::vector<uint8_t>& vbData) { OnEvent(usEvent, vbData); });
    lpClient->SetPduCallback([this](ZV_SimHost&, uint16_t usPdu, uint32_t) { OnPdu(usPdu); });
}

bool ZV_UserView::MayHave(uint16_t usFileID, bool bRight, const std::string& sWhat, const ZV_FileBriefInfo* lpBrief)
{
    // An event that brings a description is judged by it: the client may
    // not hold the file yet, or may be about to take the new description.
    auto* lpMgr = static_cast<ZV_FileShareMgr*>(m_lpClient->GetModule());
    const ZV_FileShareSession* lpFsSession = lpMgr ? ZV_FileShareMgrPeer::Find(*lpMgr, usFileID) : nullptr;
    if (lpBrief == nullptr && lpFsSession == nullptr)
    {
        m_fnProblem(m_sUser + " got " + sWhat + " for " + std::to_string(usFileID) + ", which its client does not hold");
        return false;
    }
    const ZV_FileBriefInfo& brief = lpBrief ? *lpBrief : lpFsSession->BriefInfo();
    const QB_UserID& user = m_lpClient->GetUserID();
    // Public, or named by the rights: the user may have the file's bytes.
    const bool bHasRight = brief.m_bPublic || brief.m_arrRight.Find(user) >= 0;
    const bool bMay = bHasRight || (!bRight && (brief.m_CreatorID == user ||
                                                m_lpClient->GetUserRecord().usRole == zvUserRolePrivileged));
    if (!bMay)
        m_fnProblem(m_sUser + " got " + sWhat + " for " + std::to_string(usFileID) + ", which it may not " +
                    (bRight ? "have" : "see"));
    return bMay;
}

void ZV_UserView::Show(uint16_t usFileID, const ZV_FileBriefInfo& brief, const std::string& sWhat)
{
    if (MayHave(usFileID, false, sWhat, &brief))
        Learn(usFileID, brief.m_usFileState, &brief);
}

void ZV_UserView::Learn(uint16_t usFileID, uint16_t usState, const ZV_FileBriefInfo* lpBrief)
{
    ZV_ToldFile& told = m_mapFiles[usFileID];
    told = {lpBrief ? Narrow(lpBrief->m_sFileOldName) : told.sName, lpBrief ? lpBrief->m_ulFileLenth : told.ulLength,
            usState, m_usEvent,
            told.sHistory + " " + std::to_string(m_usEvent) + ":" + std::to_string(usState) + "@" +
                std::to_string(m_journal.Size() - 1)};
}

void ZV_UserView::OnEvent(uint16_t usEvent, const std::vector<uint8_t>& vbData)
{
    const std::string sWhat = "event " + std::to_string(usEvent);
    m_usEvent = usEvent;
    QB_ByteStream stream(vbData.data(), (int32_t)vbData.size());
    try
    {
        stream.Skip(2);
        if (usEvent == zvFsEventBusy)
            return;
        if (usEvent == zvFsEventFilesAdded)
        {
            stream.Skip(4);
            QB_Array<uint16_t> arrFileID;
            QB_Array<ZV_FileBriefInfo> arrInfo;
            LoadU16Array(stream, arrFileID);
            LoadSequence(stream, arrInfo);
            for (int i = 0; i < arrFileID.GetSize() && i < arrInfo.GetSize(); ++i)
                Show(arrFileID[i], arrInfo[i], sWhat);
            return;
        }
        const uint32_t ulResult = stream.ReadU32();
        const uint8_t bUpload = usEvent == zvFsEventTransferState ? stream.ReadU8() : 0;
        const uint16_t usFileID = stream.ReadU16();
        // A refusal answers the user's own request; it tells nothing of the file.
        if (ulResult != 0 && usEvent != zvFsEventTransferError)
            return;
        switch (usEvent)
        {
        case zvFsEventFileAdded:
        case zvFsEventRightChanged:
        {
            ZV_FileBriefInfo brief;
            LoadDelimited(stream, brief);
            Show(usFileID, brief, sWhat);
            break;
        }
        case zvFsEventFileHidden:
        case zvFsEventFileGone:
            if (m_mapFiles.erase(usFileID) == 0)
                m_fnProblem(m_sUser + " got " + sWhat + " for " + std::to_string(usFileID) + ", which it was never shown");
            break;
        case zvFsEventDownloadState:
        case zvFsEventDownloadFinished:
        case zvFsEventDownloadProgress:
            MayHave(usFileID, true, sWhat);
            break;
        case zvFsEventTransferState:
        case zvFsEventTransferError:
            if (MayHave(usFileID, false, sWhat) && (bUpload || usEvent == zvFsEventTransferError) &&
                m_mapFiles.count(usFileID))
                Learn(usFileID, bUpload ? stream.ReadU16() : (uint16_t)zvFileStateFailed);
            break;
        default:  // an upload's progress, a stop's answer
            MayHave(usFileID, false, sWhat);
            break;
        }
    }
    catch (const QB_StreamException&)
    {
        m_fnProblem(m_sUser + " got " + sWhat + " of a form it cannot read");
    }
}

// A delivered block: the journal's last delivery to this client names it.
void ZV_UserView::OnPdu(uint16_t usPdu)
{
    if (usPdu != PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE)
        return;
    for (size_t i = m_journal.Size(); i-- > 0;)
    {
        const ZV_SimEntry& entry = m_journal.At(i);
        if (entry.eKind != ZV_SimEntryKind::Pdu || entry.usNumber != usPdu || entry.sPeer != m_lpClient->GetName() ||
            entry.eFate != ZV_SimFate::Delivered)
            continue;
        QB_ByteStream stream(entry.vbData.data(), (int32_t)entry.vbData.size());
        const uint16_t usFileID = stream.ReadU16();
        if (stream.ReadU32() == 0)
            MayHave(usFileID, true, "a block");
        return;
    }
}
