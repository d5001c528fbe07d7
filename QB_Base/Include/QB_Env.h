// QB_Env: the one door from the library and the module to the operating
// system. Nothing else includes a system header; everything that touches
// files, folders, clocks or randomness asks the current environment.
//
// Paths cross this interface in the Windows form the rest of the code keeps
// (UTF-16, backslashes, folders with a trailing backslash). Only the
// implementation turns them into the host system's form; it accepts "/" as
// well, so an ordinary Linux path works too.
//
// Tests install a wrapper (QB_FaultEnv) that counts operations, fails the
// Nth one on purpose, drives the millisecond tick by hand and crashes the
// machine, losing what was not synced.
#pragma once

#include <cstdint>
#include <string>

// Broken-down calendar time, the fields of the platform's SYSTEMTIME.
struct QB_SystemTime
{
    uint16_t wYear = 0;
    uint16_t wMonth = 0;
    uint16_t wDayOfWeek = 0;
    uint16_t wDay = 0;
    uint16_t wHour = 0;
    uint16_t wMinute = 0;
    uint16_t wSecond = 0;
    uint16_t wMilliseconds = 0;
};

// An open file of the environment; QB_INVALID_FILE when none.
using QB_FileHandle = intptr_t;
constexpr QB_FileHandle QB_INVALID_FILE = -1;

// Answers of GetFileAttributes.
constexpr uint32_t QB_ATTR_INVALID = 0xFFFFFFFFu;
constexpr uint32_t QB_ATTR_READONLY = 0x01;
constexpr uint32_t QB_ATTR_DIRECTORY = 0x10;
constexpr uint32_t QB_ATTR_NORMAL = 0x80;

// Origins of SeekFile, as the platform numbers them.
constexpr int QB_SEEK_BEGIN = 0;
constexpr int QB_SEEK_CURRENT = 1;
constexpr int QB_SEEK_END = 2;

// The kinds of operation that a fault can be injected into.
enum class QB_EnvOp
{
    Open,
    Read,
    Write,
    Seek,
    SetEnd,
    Delete,
    MakeFolder,
    Sync,    // FlushFile and FlushFolder
    Rename,  // MoveFile
    Count_
};

class QB_Env
{
public:
    virtual ~QB_Env() = default;

    // Files. `ulMode` is the QB_FileEx mode word (access, sharing, creation,
    // attributes); the environment honours all of it.
    virtual QB_FileHandle OpenFile(const std::u16string& sPath, uint32_t ulMode) = 0;
    // The file sBelow names below the folder sBase. sBase is followed as it
    // stands (empty: the working folder); below it each folder is made if
    // missing and entered, and the file opened, without following a link,
    // one name at a time, so that no link put there leads the open
    // elsewhere. "." and ".." are no names here. *pbLink (if given) tells
    // whether the open failed on a link.
    virtual QB_FileHandle OpenFileBelow(const std::u16string& sBase, const std::u16string& sBelow, uint32_t ulMode,
                                        bool* pbLink) = 0;
    virtual bool CloseFile(QB_FileHandle hFile) = 0;
    // Bytes read or written, or -1 on a failure.
    virtual int32_t ReadFile(QB_FileHandle hFile, void* pBuf, int32_t nCount) = 0;
    virtual int32_t WriteFile(QB_FileHandle hFile, const void* pBuf, int32_t nCount) = 0;
    // The new position, or -1 on a failure.
    virtual int64_t SeekFile(QB_FileHandle hFile, int64_t llOffset, int nOrigin) = 0;
    // Cuts or extends the file at the current position.
    virtual bool SetEndOfFile(QB_FileHandle hFile) = 0;
    // Hands what was written to the disk itself before it returns.
    virtual bool FlushFile(QB_FileHandle hFile) = 0;
    // Size in bytes, or -1 on a failure.
    virtual int64_t GetFileSize(QB_FileHandle hFile) = 0;
    // Creation, last write and last access times as local broken-down time.
    virtual bool GetFileTimes(QB_FileHandle hFile, QB_SystemTime* pCreation, QB_SystemTime* pLastWrite,
                              QB_SystemTime* pLastAccess) = 0;
    // The device and file number of the file a handle holds: the same pair
    // is the same file, whatever name it has now.
    virtual bool GetFileId(QB_FileHandle hFile, uint64_t* pDevice, uint64_t* pNumber) = 0;

    // Names.
    virtual bool DeleteFile(const std::u16string& sPath) = 0;
    virtual uint32_t GetFileAttributes(const std::u16string& sPath) = 0;
    // Size of the plain file that a path names, or -1 when it names none
    // (a link names none), from the folder's entry alone: no handle is opened.
    virtual int64_t GetFileSizeByName(const std::u16string& sPath) = 0;
    virtual bool CreateDirectory(const std::u16string& sPath) = 0;
    // Gives `sFrom` the name `sTo` in one step, replacing a file of that
    // name, as Windows does with MOVEFILE_REPLACE_EXISTING; a reader sees
    // the old file or the new one, never a mix.
    virtual bool MoveFile(const std::u16string& sFrom, const std::u16string& sTo) = 0;
    // Makes the folder's list of names durable, so that a rename in it
    // survives a crash of the machine.
    virtual bool FlushFolder(const std::u16string& sFolder) = 0;
    // Absolute Windows-form path of `sPath` against the working folder.
    virtual std::u16string GetFullPathName(const std::u16string& sPath) = 0;
    // Folder that holds "confsrv.ini", "fsinfo.ini" and "log\": the
    // ROOMCRATE_HOME variable if set (read at each call), else the folder of
    // the running executable. Windows form, with its trailing backslash.
    virtual std::u16string GetModuleFolder() = 0;

    // Time.
    virtual uint32_t GetTickCount() = 0;  // wrapping millisecond counter
    virtual int64_t GetTimeT() = 0;       // seconds since 1970, UTC
    virtual void GetLocalTime(QB_SystemTime* pTime) = 0;
    // Seconds to add to local time to get UTC, without daylight saving.
    virtual int32_t GetTimeZoneBias() = 0;

    // 16 fresh random bytes for a GUID.
    virtual void NewGuid(uint8_t abGuid[16]) = 0;

    // Positioned transfers: the bytes at an absolute offset, leaving the
    // file's own position where it was, so that a transfer which knows where
    // its block lies needs no seek first. Bytes moved, or -1 on a failure;
    // they fail as ReadFile and WriteFile do and count as those kinds.
    virtual int32_t ReadFileAt(QB_FileHandle hFile, int64_t llOffset, void* pBuf, int32_t nCount) = 0;
    virtual int32_t WriteFileAt(QB_FileHandle hFile, int64_t llOffset, const void* pBuf, int32_t nCount) = 0;
};

// The environment in force; the system's own one unless a test set another.
QB_Env* QB_GetEnv();
// Installs `lpEnv` (null restores the system's own) and gives the previous
// one back. Meant for tests and the simulator, not for the module's users.
QB_Env* QB_SetEnv(QB_Env* lpEnv);
// The system's own environment, whatever is installed.
QB_Env* QB_GetDefaultEnv();

// Sets or, with a null value, clears a variable of the process environment
// (the simulator points ROOMCRATE_HOME at each node's folder this way).
bool QB_SetEnvironmentVariable(const char* pszName, const char* pszValue);

// Turns a Windows-form path into the host system's form and back.
std::string QB_PathToSystem(const std::u16string& sPath);
std::u16string QB_PathFromSystem(const std::string& sPath);
