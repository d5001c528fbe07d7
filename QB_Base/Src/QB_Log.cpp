#include "QB_Log.h"

#include "QB_DatetimeEx.h"
#include "QB_Env.h"
#include "QB_FileEx.h"
#include "QB_String.h"

#include <cstdarg>

QB_Locker g_lckLog("g_lckLog");

namespace {

QB_StringA RotationSuffix(int nMode, const QB_DateTimeEx& dt)
{
    QB_StringA sSuffix;
    switch (nMode)
    {
    case 1:
        sSuffix.Format("_%04d_%02d_%02d_%02d.txt", dt.GetYear(), dt.GetMonth(), dt.GetDay(), dt.GetHour());
        break;
    case 2:
        sSuffix.Format("_%04d_%02d_%02d.txt", dt.GetYear(), dt.GetMonth(), dt.GetDay());
        break;
    case 3:
        sSuffix.Format("_%04d_%02d.txt", dt.GetYear(), dt.GetMonth());
        break;
    case 4:
        sSuffix.Format("_%04d.txt", dt.GetYear());
        break;
    default:
        sSuffix = ".txt";
        break;
    }
    return sSuffix;
}

QB_StringW ModuleFolder()
{
    std::u16string sFolder = QB_GetEnv()->GetModuleFolder();
    return QB_StringW(sFolder.data(), (int)sFolder.size());
}

// The bytes go out as given: callers end their lines with "\r\n" already,
// and a text-mode translation would only double the "\r".
void AppendLine(const QB_StringW& sPath, const char* pText, int nLength)
{
    QB_FileEx file;
    if (!file.Open(sPath, QB_FILE_WRITE | QB_FILE_OPEN_ALWAYS))
        return;
    if (file.Seek(0, QB_SEEK_END) >= 0)
        file.Write(pText, nLength);
    file.Close();
}

// The message is formatted whole rather than cut at a fixed buffer: the
// tail of a long line is usually the part that names the cause, and the
// log is too rare for the allocation to matter.
QB_StringA FormatMessage(const char* pszFormat, va_list args)
{
    QB_StringA sMessage;
    sMessage.FormatV(pszFormat, args);
    return sMessage;
}

// The file a line of this log goes to, and its time stamp.
void PlaceLine(int nMode, const char* pszName, const QB_StringW& sFolder, const QB_DateTimeEx& dtNow,
               QB_StringW& sPath, QB_StringA& sStamp)
{
    sPath = sFolder;
    sPath += u"log\\log";
    if (pszName && *pszName)
    {
        sPath += u"_";
        sPath += QB_StringW(QB_StringA(pszName));
    }
    sPath += QB_StringW(RotationSuffix(nMode, dtNow));
    sStamp = dtNow.ToText(0, "-") + " : ";
}

}  // namespace

void QB_WriteLog(int nMode, const char* pszName, const char* pszFormat, ...)
{
    if (!pszFormat)
        return;
    QB_Lock lock(&g_lckLog);
    QB_DateTimeEx dtNow;
    dtNow.SetToNow();

    va_list args;
    va_start(args, pszFormat);
    const QB_StringA sMessage = FormatMessage(pszFormat, args);
    va_end(args);
    QB_StringW sPath;
    QB_StringA sStamp;
    if (QB_LogBatch* lpBatch = QB_LogBatch::Current())
    {
        lpBatch->Place(nMode, pszName, ModuleFolder(), dtNow, sPath, sStamp);
        lpBatch->Keep(sPath, sStamp, sMessage);
        return;
    }
    PlaceLine(nMode, pszName, ModuleFolder(), dtNow, sPath, sStamp);
    const QB_StringA sLine = sStamp + sMessage;
    AppendLine(sPath, sLine.GetString(), sLine.GetLength());
}

namespace {

thread_local QB_LogBatch* t_lpBatch = nullptr;

// Past this many bytes a batch writes what it holds and goes on.
constexpr size_t kBatchBytes = 64 * 1024;

}  // namespace

QB_LogBatch::QB_LogBatch() : m_lpOuter(t_lpBatch)
{
    t_lpBatch = this;
}

QB_LogBatch::~QB_LogBatch()
{
    t_lpBatch = m_lpOuter;
    Flush();
}

QB_LogBatch* QB_LogBatch::Current()
{
    return t_lpBatch;
}

void QB_LogBatch::Place(int nMode, const char* pszName, const QB_StringW& sFolder, const QB_DateTimeEx& dtNow,
                        QB_StringW& sPath, QB_StringA& sStamp)
{
    const char* pszKey = pszName ? pszName : "";
    if (!m_bPlaced || nMode != m_nMode || m_sName != pszKey || m_sFolder != sFolder || m_dtLast != dtNow)
    {
        PlaceLine(nMode, pszName, sFolder, dtNow, m_sPath, m_sStamp);
        m_bPlaced = true;
        m_nMode = nMode;
        m_sName = pszKey;
        m_sFolder = sFolder;
        m_dtLast = dtNow;
    }
    sPath = m_sPath;
    sStamp = m_sStamp;
}

// A line for the file of the last one joins it; the lines of a file keep
// their order.
void QB_LogBatch::Keep(const QB_StringW& sPath, const QB_StringA& sStamp, const QB_StringA& sMessage)
{
    if (m_vecPending.empty() || m_vecPending.back().first != sPath)
        m_vecPending.emplace_back(sPath, std::string());
    std::string& sText = m_vecPending.back().second;
    sText.append(sStamp.GetString(), (size_t)sStamp.GetLength());
    sText.append(sMessage.GetString(), (size_t)sMessage.GetLength());
    m_nBytes += (size_t)(sStamp.GetLength() + sMessage.GetLength());
    if (m_nBytes >= kBatchBytes)
        Flush();
}

void QB_LogBatch::Flush()
{
    try
    {
        QB_Lock lock(&g_lckLog);
        for (const auto& [sPath, sText] : m_vecPending)
            AppendLine(sPath, sText.data(), (int)sText.size());
    }
    catch (...)
    {
        // Logging never fails towards its caller.
    }
    m_vecPending.clear();
    m_nBytes = 0;
}

void QB_WriteClientLog(const char* pszFormat, ...)
{
    if (!pszFormat)
        return;
    va_list args;
    va_start(args, pszFormat);
    QB_StringA sMessage = FormatMessage(pszFormat, args);
    va_end(args);

    QB_SystemTime st;
    QB_GetEnv()->GetLocalTime(&st);
    QB_StringW sFolder = ModuleFolder();
    if (!sFolder.IsEmpty() && sFolder[sFolder.GetLength() - 1] == u'\\')
        sFolder.Truncate(sFolder.GetLength() - 1);

    QB_StringA sLine;
    sLine.Format("%4d-%02d-%02d %02d:%02d:%02d : ", st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond);
    sLine += sMessage;
    AppendLine(sFolder + u"\\log\\log_error_client.txt", sLine.GetString(), sLine.GetLength());
}
