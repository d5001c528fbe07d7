// A session's part in adding a file: on a server the stored name, the empty
// stored file, the catalogue row, the flood and a relay's fetch; on a client
// the file as announced and, for its creator, the open file and the start of
// the upload.
#include "core/ZV_FileShareSession.h"
#include "wire/ZV_PduTable.h"
#include "add/ZV_AddPdu.h"
#include "records/ZV_SharePath.h"

#include "QB_Env.h"
#include "QB_FileEx.h"
#include "QB_Log.h"

#include <string>

namespace {

// Paths of the platform hold 260 UTF-16 units, and a Linux file name 255
// bytes. The stored name keeps room behind it for "(n)" and a guard "_".
constexpr int kNameReserve = 10;
constexpr int kMaxNameBytes = 255 - kNameReserve;
// An extension longer than this is taken for part of the name when cutting.
constexpr int kMaxKeptExtension = 16;

bool IsUnsafeChar(char16_t ch)
{
    return ch < 0x20 || ch == u'\\' || ch == u'/' || ch == u':' || ch == u'*' || ch == u'?' || ch == u'"' ||
           ch == u'<' || ch == u'>' || ch == u'|';
}

bool IsHighSurrogate(char16_t ch)
{
    return ch >= 0xD800 && ch <= 0xDBFF;
}

// Bytes of one unit in the library's UTF-8, which writes each surrogate
// half by itself.
int Utf8Bytes(char16_t ch)
{
    return ch < 0x80 ? 1 : (ch < 0x800 ? 2 : 3);
}

int Utf8Length(const QB_StringW& s)
{
    int nBytes = 0;
    for (int i = 0; i < s.GetLength(); ++i)
        nBytes += Utf8Bytes(s[i]);
    return nBytes;
}

// Separators, a drive colon and what the platforms forbid in a name become
// "_", so nothing in the name can name another folder.
QB_StringW ReplaceUnsafeChars(const QB_StringW& sName)
{
    QB_StringW s(sName);
    for (int i = 0; i < s.GetLength(); ++i)
        if (IsUnsafeChar(s[i]))
            s.SetAt(i, u'_');
    return s;
}

// The stem is cut, at a character boundary, so that the extension survives.
QB_StringW FitName(const QB_StringW& sName, int nMaxUnits)
{
    const int nDot = sName.ReverseFind(u'.');
    const bool bKeepExt = nDot >= 0 && sName.GetLength() - nDot <= kMaxKeptExtension;
    const QB_StringW sExt = bKeepExt ? sName.Mid(nDot) : QB_StringW();
    const QB_StringW sStem = bKeepExt ? sName.Left(nDot) : sName;
    const int nUnitBudget = nMaxUnits - sExt.GetLength();
    const int nByteBudget = kMaxNameBytes - Utf8Length(sExt);
    int nUnits = 0;
    int nBytes = 0;
    while (nUnits < sStem.GetLength())
    {
        const int nStep = IsHighSurrogate(sStem[nUnits]) && nUnits + 1 < sStem.GetLength() ? 2 : 1;
        const int nMore = nStep == 2 ? 6 : Utf8Bytes(sStem[nUnits]);
        if (nUnits + nStep > nUnitBudget || nBytes + nMore > nByteBudget)
            break;
        nUnits += nStep;
        nBytes += nMore;
    }
    if (nUnits == sStem.GetLength())
        return sName;
    return sStem.Left(nUnits) + sExt;
}

// ".." anywhere is broken up, so the name can neither climb out nor be
// refused later when the catalogue deletes the conference's files.
QB_StringW BreakDotRuns(const QB_StringW& sName)
{
    QB_StringW s(sName);
    for (int i = 1; i < s.GetLength(); ++i)
        if (s[i] == u'.' && s[i - 1] == u'.')
            s.SetAt(i, u'_');
    return s;
}

// Empty, or dots and blanks alone, which a platform may read as "." or "..".
bool NeedsGuard(const QB_StringW& sName)
{
    for (int i = 0; i < sName.GetLength(); ++i)
        if (sName[i] != u'.' && sName[i] != u' ')
            return false;
    return true;
}

bool IsDotOrBlank(char16_t ch)
{
    return ch == u'.' || ch == u' ';
}

// A name that ends in a dot or a blank is another name on Windows, which
// drops them: each such trailing character becomes "_".
QB_StringW ReplaceTrailingDots(const QB_StringW& sName)
{
    QB_StringW s(sName);
    for (int i = s.GetLength() - 1; i >= 0 && IsDotOrBlank(s[i]); --i)
        s.SetAt(i, u'_');
    return s;
}

char16_t UpperAscii(char16_t ch)
{
    return ch >= u'a' && ch <= u'z' ? (char16_t)(ch - u'a' + u'A') : ch;
}

// The part before the first dot, blanks behind it dropped, names a device
// as Windows does: CON, PRN, AUX, NUL, and COM or LPT with a digit from 1
// to 9 (or a superscript 1, 2, 3), in any case.
bool IsDeviceName(const QB_StringW& sName)
{
    int nEnd = sName.Find(u'.');
    if (nEnd < 0)
        nEnd = sName.GetLength();
    while (nEnd > 0 && sName[nEnd - 1] == u' ')
        --nEnd;
    char16_t ach[4] = {};
    if (nEnd != 3 && nEnd != 4)
        return false;
    for (int i = 0; i < nEnd; ++i)
        ach[i] = UpperAscii(sName[i]);
    const std::u16string sStem(ach, 3);
    if (nEnd == 3)
        return sStem == u"CON" || sStem == u"PRN" || sStem == u"AUX" || sStem == u"NUL";
    const char16_t chDigit = ach[3];
    const bool bDigit = (chDigit >= u'1' && chDigit <= u'9') || chDigit == 0xB9 || chDigit == 0xB2 || chDigit == 0xB3;
    return bDigit && (sStem == u"COM" || sStem == u"LPT");
}

bool FileExists(const QB_StringW& sPath)
{
    const std::u16string sStd(sPath.GetString(), (size_t)sPath.GetLength());
    return QB_GetEnv()->GetFileAttributes(sStd) != QB_ATTR_INVALID;
}

} // namespace

// The shared name is not stored as sent: it comes from a peer, and as it
// stands it could climb out of the conference's folder, name a device, or be
// read by the platform as another name than the catalogue keeps.
QB_StringW ZV_FileShareSession::MakeStoredFileName(const QB_StringW& sFolder, const QB_StringW& sName)
{
    int nMaxUnits = ZV_MAX_SHARE_PATH - sFolder.GetLength() - kNameReserve;
    if (nMaxUnits < 1)
        nMaxUnits = 1;
    QB_StringW sStored = BreakDotRuns(FitName(ReplaceUnsafeChars(sName), nMaxUnits));
    if (NeedsGuard(sStored) || IsDeviceName(sStored))
        sStored = QB_StringW(u"_") + sStored;
    return ReplaceTrailingDots(sStored);
}

void ZV_FileShareSession::MakeUniqueFileName(const QB_StringW& sFolder, const QB_StringW& sName, QB_StringW& sDst)
{
    sDst = sName;
    for (int nCounter = 1; FileExists(sFolder + sDst); ++nCounter)
    {
        QB_StringW sCount;
        sCount.Format("(%d)", nCounter);
        const int nDot = sName.ReverseFind(u'.');
        const int nAt = nDot < 0 ? 0 : nDot;
        sDst = sName.Left(nAt) + sCount + sName.Mid(nAt);
    }
}

uint32_t ZV_FileShareSession::HandleAddRequest(ConfPduData* lpCpd)
{
    ZV_TraceRecv(PDU_CONF_FS_ADD_REQUEST);
    ZV_PayloadReader stream(lpCpd);
    ZV_AddRequest ask;
    ask.LoadHead(stream);
    ask.LoadBody(stream);
    const QB_StringW sFolder = GetConfDir();
    const bool bFromClient = !ZV_IsServerLink(lpCpd->conn_type);
    // A linked server's add goes on when its folder cannot be made, but not
    // without a storage folder at all: its stored name would be a path of
    // its own, outside any store.
    if ((!MakeDirs(sFolder) && bFromClient) || sFolder.IsEmpty())
        return zvResultCannotOpen;
    QB_StringW sPath;
    // A client is told that its file could not be recorded, rather than
    // have it stored without a row that outlives a restart.
    if (!InitSrvAddFileInfo(sPath, Conf(), ask.usFileID, sFolder, ask.brief) && bFromClient)
    {
        UndoServerAdd(sPath);
        return zvResultCannotAccess;
    }
    if (Conf()->HasServerLinks())
    {
        // The bytes as received, so a newer record's fields travel on intact.
        ZV_PduBuffer pdu;
        pdu.Stream().WriteBytes(lpCpd->pData, stream.GetPos());
        ZV_SendToServers(Conf(), zvConnNone, PDU_CONF_FS_ADD_REQUEST, pdu);
    }
    if (lpCpd->conn_type == zvConfServerTypeCommand)
    {
        const QB_UserID self(Conf()->GetLocalServerID(), 0);
        SendDownloadRequest(lpCpd->ulConn, ask.usFileID, &self, 0, QB_StringU8(sPath), 0, 1, 0);
    }
    return zvResultOk;
}

bool ZV_FileShareSession::InitSrvAddFileInfo(QB_StringW& sPath, IZV_ConfHost* lpConf, uint16_t usFileID,
                                             const QB_StringW& sFolder, const ZV_FileBriefInfo& brief)
{
    m_usFileID = usFileID;
    m_BriefInfo = brief;
    QB_StringW sDst;
    MakeUniqueFileName(sFolder, MakeStoredFileName(sFolder, QB_StringW(brief.m_sFileOldName)), sDst);
    m_FileInfo.SetFileID(usFileID);
    m_FileInfo.SetBriefInfo(brief);
    m_FileInfo.SetFileWritePos(0);
    m_FileInfo.SetFileNewName(sDst);
    MakeEmptyStore();
    m_bStopUpload = brief.m_usFileState == zvFileStateStopped;
    sPath = sFolder + sDst;
    return SaveToCatalog();
}

uint32_t ZV_FileShareSession::HandleAddResponse(ConfPduData* lpCpd)
{
    ZV_TraceRecv(PDU_CONF_FS_ADD_RESPONSE);
    ZV_PayloadReader stream(lpCpd);
    ZV_AddResponse answer;
    answer.Load(stream);
    return InitCltAddFileInfo(Conf(), answer.usFileID, answer.ulWritePos, answer.brief, answer.bStartUpload);
}

uint32_t ZV_FileShareSession::InitCltAddFileInfo(IZV_ConfHost* lpConf, uint16_t usFileID, uint32_t ulPos,
                                                 const ZV_FileBriefInfo& brief, uint8_t bStartUpload)
{
    try
    {
        m_usFileID = usFileID;
        m_BriefInfo = brief;
        m_ulMaxPos = ulPos;
        const QB_UserID* lpLocal = lpConf->GetLocalUserID();
        if (lpLocal == nullptr || !(brief.m_CreatorID == *lpLocal))
            return zvResultOk;
        // The same check as on every road of an upload: this very file, open.
        const uint32_t ulOpened = m_File.IsOpen() ? zvResultOk : m_lpMgr->OpenSharedLocalFile(brief, m_File);
        if (ulOpened != zvResultOk)
        {
            QB_WriteClientLog("ZV_FileShareMgr.HandleAddResponse ret = %d\r\n", (int)ulOpened);
            return ulOpened;
        }
        if (bStartUpload)
        {
            m_lpMgr->MarkBusy(true, usFileID);
            m_BriefInfo.SetFileState(zvFileStateUploading);
            m_ulReadPos = 0;
            // A data link that rests is only called again once kicked.
            const uint32_t ulDataConn = m_lpMgr->GetLinkConn(zvConfClientTypeData);
            if (ulDataConn != zvConnNone)
                ZV_SendKick(lpConf, ulDataConn);
        }
        return zvResultOk;
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::InitCltAddFileInfo exception.\r\n");
        return zvResultException;
    }
}

// The creator's own upload state is its client's, whatever the server last
// saw of it.
void ZV_FileShareSession::ApplyAnnouncedAgain(const ZV_FileBriefInfo& brief, uint32_t ulPos)
{
    const uint16_t usState = m_BriefInfo.m_usFileState;
    m_BriefInfo = brief;
    if (IsLocalCreator())
        m_BriefInfo.SetFileState(usState);
    RaiseMaxPos(ulPos);
}

// Until bytes arrive the empty file is what holds the name: without it a
// later add of the same name takes it too, and a restart drops the row as
// one whose file is gone.
void ZV_FileShareSession::MakeEmptyStore()
{
    QB_FileEx stored;
    m_bStoreMissing = !stored.Open(GetStoredPath(m_FileInfo.m_sFileNewName), QB_FILE_READWRITE | QB_FILE_OPEN_ALWAYS);
}
