// What a server takes from a client's link, before any handler runs: a
// request only in the name of the user the host reports for that link, and
// nothing that only servers send. The host vouches for who is at the end of
// a link; a payload vouches for nothing. What a role then allows (a
// creator's rights change, a privileged user's delete) each handler checks
// for that user. Requests between servers keep the user they carry: the
// first server checked it against its client's link (docs/security.md).
#include "core/ZV_FileShareMgr.h"
#include "add/ZV_AddPdu.h"
#include "core/ZV_FileShareSession.h"
#include "wire/ZV_PduFrame.h"
#include "wire/ZV_PduTable.h"
#include "wire/ZV_RecordStream.h"
#include "rights/ZV_RightsPdu.h"

#include "QB_Log.h"

#include <string>

namespace {

QB_UserID LinkUser(const ConfPduData* lpCpd)
{
    return QB_UserID(lpCpd->ulUserMain, lpCpd->ulUserSub);
}

// The user a request's head names: behind its FileID, its FileIDs, or first.
QB_UserID HeadUser(ZV_UserField eUser, QB_ByteStream& stream)
{
    if (eUser == ZV_UserField::BehindFileIDs)
    {
        QB_Array<uint16_t> arrFileID;
        LoadU16Array(stream, arrFileID);
    }
    else if (eUser != ZV_UserField::AddFilesRequest)
        stream.ReadU16();
    QB_UserID user;
    user.Load(stream);
    return user;
}

// A description names its creator to every client, so an add is in the
// link's name only if each of its descriptions is too.
QB_UserID ForeignCreator(ZV_UserField eUser, const ConfPduData* lpCpd, const QB_UserID& link)
{
    ZV_PayloadReader stream(lpCpd);
    QB_Array<ZV_FileBriefInfo> arrInfo;
    if (eUser == ZV_UserField::AddRequest)
    {
        ZV_AddRequest ask;
        ask.Load(stream);
        arrInfo.Add(ask.brief);
    }
    else if (eUser == ZV_UserField::AddFilesRequest)
    {
        ZV_AddFilesRequest ask;
        ask.Load(stream);
        arrInfo = ask.arrInfo;
    }
    for (int i = 0; i < arrInfo.GetSize(); ++i)
        if (arrInfo[i].m_CreatorID != link)
            return arrInfo[i].m_CreatorID;
    return link;
}

// The first user a client's request names that is not the link's; the
// link's own when it names no other. A payload too short to read is left to
// its handler, which reads the same fields before it acts, fails on them
// and logs that as it always does.
QB_UserID ForeignUser(ZV_UserField eUser, const ConfPduData* lpCpd, const QB_UserID& link)
{
    try
    {
        ZV_PayloadReader stream(lpCpd);
        const QB_UserID user = HeadUser(eUser, stream);
        return user != link ? user : ForeignCreator(eUser, lpCpd, link);
    }
    catch (const QB_StreamException&)
    {
        return link;
    }
}

// The one line a server writes for a PDU it refused from a client's link.
void LogRefusedPdu(const ConfPduData* lpCpd, const ZV_PduRow* lpRow, const QB_UserID* lpNamed)
{
    const std::string sNamed =
        lpNamed ? std::to_string(lpNamed->m_ulMain) + ":" + std::to_string(lpNamed->m_ulSub) : std::string("none");
    QB_WriteLog(QB_LOG_DAILY, "fileshare",
                "ZV_FileShareMgr::HandlePdu refused %u (%s) from a client link: payload user %s, link user %u:%u.\r\n",
                (unsigned)lpCpd->usPdu, lpRow ? lpRow->pszName : "unknown", sNamed.c_str(),
                (unsigned)lpCpd->ulUserMain, (unsigned)lpCpd->ulUserSub);
}

} // namespace

bool ZV_FileShareMgr::AdmitPdu(const ConfPduData* lpCpd)
{
    const ZV_PduRow* lpRow = ZV_FindPduRow(lpCpd->usPdu);
    if ((lpRow != nullptr && lpRow->eSender == ZV_PduSender::Nobody) || ZV_IsServerLink(lpCpd->conn_type) ||
        !m_lpConf->IsServerMode())
        return true;
    if (lpRow == nullptr || lpRow->eSender == ZV_PduSender::Server)
    {
        LogRefusedPdu(lpCpd, lpRow, nullptr);
        return false;
    }
    const QB_UserID link = LinkUser(lpCpd);
    const QB_UserID named = ForeignUser(lpRow->eUser, lpCpd, link);
    if (named == link)
        return true;
    LogRefusedPdu(lpCpd, lpRow, &named);
    if (lpRow->usAnswer != 0)
        AnswerRefusal(lpRow->usAnswer, lpCpd);
    return false;
}

// The answer the request would have had, with 40 and nothing else, to the
// asker alone. The adds answer with what they asked for, as a refused add does.
void ZV_FileShareMgr::AnswerRefusal(uint16_t usAnswer, const ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    const uint32_t ulConn = lpCpd->ulConn;
    if (usAnswer == PDU_CONF_FS_ADD_RESPONSE || usAnswer == PDU_CONF_FS_ADD_FILES_RESPONSE)
        return AnswerRefusedAdd(usAnswer, stream, ulConn);
    if (usAnswer == PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE)
    {
        ZV_SetFilesRightRequest ask;
        ask.LoadHead(stream);
        SendSetFilesRightResponse(ulConn, ask.arrFileID, zvResultNotEntitled, ask.user, ask.ulFloodSeq);
        return;
    }
    // 8003, 8008 and 8014 each begin with a whole request head.
    ZV_RequestHead ask;
    ask.Load(stream);
    ZV_FileShareSession probe(this, m_strPath.GetString());
    switch (usAnswer)
    {
    case PDU_CONF_FS_SET_RIGHT_RESPONSE:
        probe.SendSetRightResponse(ulConn, zvResultNotEntitled, ask.usFileID, &ask.user, nullptr, 0, false);
        break;
    case PDU_CONF_FS_DEL_UPLOAD_RESPONSE:
        SendDelUploadResponse(ulConn, ask.usFileID, zvResultNotEntitled, ask.usFileID, &ask.user, ask.ulFloodSeq,
                              false);
        break;
    case PDU_CONF_FS_DOWNLOAD_RESPONSE:
        probe.SendDownloadResponse(ulConn, ask.usFileID, zvResultNotEntitled, ask.usFileID, &ask.user, nullptr);
        break;
    }
}

void ZV_FileShareMgr::AnswerRefusedAdd(uint16_t usAnswer, QB_ByteStream& stream, uint32_t ulConn)
{
    if (usAnswer == PDU_CONF_FS_ADD_RESPONSE)
    {
        ZV_AddRequest ask;
        ask.Load(stream);
        SendAddResponse(ulConn, ask.usFileID, zvResultNotEntitled, ask.usFileID, ask.user, 0, ask.brief,
                        ask.bStartUpload, false);
        return;
    }
    ZV_AddFilesRequest ask;
    ask.Load(stream);
    SendAddFilesResponse(ulConn, zvResultNotEntitled, ask.user, ask.bStartUpload, ask.arrFileID, {}, ask.arrInfo,
                         ask.bLast, false);
}
