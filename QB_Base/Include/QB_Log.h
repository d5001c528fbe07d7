// QB_Log: the two plain-text logs below the executable's folder. Each line
// opens, appends and closes its file, so nothing is lost at a crash and a
// log can be moved away at any time; they are for rare events only.
//
// Logging never fails towards its caller: when the file can't be opened
// (the "log" folder is never created here) the line is lost silently.
#pragma once

#include "QB_DatetimeEx.h"
#include "QB_Locker.h"
#include "QB_String.h"

#include <string>
#include <utility>
#include <vector>

// Held around each line of QB_WriteLog.
extern QB_Locker g_lckLog;

// Appends "YYYY-MM-DD hh:mm:ss : message" to log\log[_NAME]SUFFIX, where the
// suffix starts a new file every hour (mode 1), day (2), month (3), year (4)
// or never (any other mode: ".txt"). A null or empty name adds no "_NAME".
// The caller puts the line end into the format.
enum QB_LogRotation : int
{
    QB_LOG_HOURLY = 1,
    QB_LOG_DAILY = 2,
    QB_LOG_MONTHLY = 3,
    QB_LOG_YEARLY = 4,
};
void QB_WriteLog(int nMode, const char* pszName, const char* pszFormat, ...) __attribute__((format(printf, 3, 4)));

// Appends to log\log_error_client.txt, which never rotates. Takes no lock:
// lines of two threads may interleave.
void QB_WriteClientLog(const char* pszFormat, ...) __attribute__((format(printf, 1, 2)));

// While one lives, the lines QB_WriteLog writes on this thread are kept and
// appended when it goes, one open per file instead of one per line: for a
// walk that logs a line per item of a list thousands long. A crash inside
// the scope loses its lines, so it is held around one unit of work only.
class QB_LogBatch
{
public:
    QB_LogBatch();
    ~QB_LogBatch();
    QB_LogBatch(const QB_LogBatch&) = delete;
    QB_LogBatch& operator=(const QB_LogBatch&) = delete;

    // The batch of this thread, or null.
    static QB_LogBatch* Current();
    // The file and the time stamp of a line; a line of the same log, home
    // and time as the last one takes the last one's.
    void Place(int nMode, const char* pszName, const QB_StringW& sFolder, const QB_DateTimeEx& dtNow,
               QB_StringW& sPath, QB_StringA& sStamp);
    void Keep(const QB_StringW& sPath, const QB_StringA& sStamp, const QB_StringA& sMessage);

private:
    void Flush();

    QB_LogBatch* m_lpOuter;
    std::vector<std::pair<QB_StringW, std::string>> m_vecPending;
    size_t m_nBytes = 0;
    bool m_bPlaced = false;
    int m_nMode = 0;
    std::string m_sName;
    QB_StringW m_sFolder;
    QB_DateTimeEx m_dtLast;
    QB_StringW m_sPath;
    QB_StringA m_sStamp;
};
