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
void AppendLine(const QB_StringW& sPath, const QB_StringA& sLine)
{
    QB_FileEx file;
    if (!file.Open(sPath, QB_FILE_WRITE | QB_FILE_OPEN_ALWAYS))
        return;
    if (file.Seek(0, QB_SEEK_END) >= 0)
        file.Write(sLine.GetString(), sLine.GetLength());
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

}  // namespace

void QB_WriteLog(int nMode, const char* pszName, const char* pszFormat, ...)
{
    if (!pszFormat)
        return;
    QB_Lock lock(&g_lckLog);
    QB_DateTimeEx dtNow;
    dtNow.SetToNow();

    QB_StringW sPath = ModuleFolder();
    sPath += u"log\\log";
    if (pszName && *pszName)
    {
        sPath += u"_";
        sPath += QB_StringW(QB_StringA(pszName));
    }
    sPath += QB_StringW(RotationSuffix(nMode, dtNow));

    va_list args;
    va_start(args, pszFormat);
    QB_StringA sLine = dtNow.ToText(0, "-") + " : " + FormatMessage(pszFormat, args);
    va_end(args);
    AppendLine(sPath, sLine);
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
    AppendLine(sFolder + u"\\log\\log_error_client.txt", sLine);
}
