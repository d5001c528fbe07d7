// QB_Log: the two plain-text logs below the executable's folder. Each line
// opens, appends and closes its file, so nothing is lost at a crash and a
// log can be moved away at any time; they are for rare events only.
//
// Logging never fails towards its caller: when the file can't be opened
// (the "log" folder is never created here) the line is lost silently.
#pragma once

#include "QB_Locker.h"

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
