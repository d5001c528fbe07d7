// QB_FileEx: a file opened by a Windows-style mode word (access, sharing,
// creation), and the folder helper MakeDirs. Every file the system touches goes through here
// and then through the current QB_Env.
#pragma once

#include "QB_Env.h"
#include "QB_String.h"

#include <cstdint>

// Mode word of QB_FileEx::Open: one value of each group added together.
enum : uint32_t
{
    QB_FILE_READ = 0x1,
    QB_FILE_WRITE = 0x2,
    QB_FILE_READWRITE = 0x3,
    QB_FILE_ACCESS_MASK = 0x3,

    QB_FILE_SHARE_DENY_READ = 0x10,
    QB_FILE_SHARE_DENY_WRITE = 0x20,

    QB_FILE_OPEN_EXISTING = 0x100,  // also when the creation bits are 0
    QB_FILE_OPEN_ALWAYS = 0x200,    // open, or create if missing
    QB_FILE_CREATE_ALWAYS = 0x300,  // create anew, replacing
    QB_FILE_CREATE_NEW = 0x400,     // create; must not exist
    QB_FILE_CREATION_MASK = 0xF00,

    QB_FILE_ATTR_READONLY = 0x1000,
    QB_FILE_ATTR_HIDDEN = 0x2000,
    QB_FILE_ATTR_ARCHIVE = 0x4000,

    // The last name of the path must not be a symbolic link.
    QB_FILE_NO_LINK = 0x10000,
};

class QB_FileEx
{
public:
    QB_FileEx() = default;
    // The object owns its handle: a throw between Open and Close still lets
    // the handle go, and no copy can close a handle another object uses.
    virtual ~QB_FileEx() { Close(); }
    QB_FileEx(const QB_FileEx&) = delete;
    QB_FileEx& operator=(const QB_FileEx&) = delete;

    // True when open; an empty path or a mode without access bits gives false.
    bool Open(const QB_StringW& sPath, uint32_t ulMode);
    // The file sBelow names below the folder sBase, its folders made on the
    // way, no link below sBase followed (QB_Env::OpenFileBelow).
    bool OpenBelow(const QB_StringW& sBase, const QB_StringW& sBelow, uint32_t ulMode, bool* pbLink = nullptr);
    // True if a file was open.
    bool Close();
    bool IsOpen() const { return m_hFile != QB_INVALID_FILE; }

    // Bytes read, or -1 on a failure, a null buffer or a count below 1.
    int32_t Read(void* pBuf, int32_t nCount);
    // Bytes written, 0 for a count of 0, -1 on a failure or a negative count.
    int32_t Write(const void* pBuf, int32_t nCount);
    // The new position (32 bits), or -1 on a failure.
    int32_t Seek(int32_t nOffset, int nOrigin);
    // Read and Write at a position of up to 4 GB, without a seek first and
    // without moving the file's own position; the same results.
    int32_t ReadAt(uint32_t ulPos, void* pBuf, int32_t nCount);
    int32_t WriteAt(uint32_t ulPos, const void* pBuf, int32_t nCount);
    // File size in 32 bits; -1 on a failure.
    int32_t GetLength();
    // Sets the end of the file at the current position.
    bool SetEnd();
    // What was written reaches the disk before this returns.
    bool Sync();
    bool GetTimes(QB_SystemTime* pCreation, QB_SystemTime* pLastWrite, QB_SystemTime* pLastAccess);
    // Device and file number of the open file (QB_Env::GetFileId).
    bool GetFileId(uint64_t* pDevice, uint64_t* pNumber);

    // The part of the full path behind its last backslash.
    QB_StringW GetFileName() const;
    // Absolute path of m_sFileName, at most 260 characters.
    QB_StringW GetFullPath() const;
    const QB_StringW& GetPath() const { return m_sFileName; }

    static bool Delete(const QB_StringW& sPath);

protected:
    QB_StringW m_sFileName;
    QB_FileHandle m_hFile = QB_INVALID_FILE;
};

// Makes sure every folder of `sPath` (wide, at most 260 characters, a
// trailing backslash added if missing) exists, replacing a plain file that
// stands in a folder's place. False when a folder can't be made.
bool MakeDirs(const char16_t* pszPath);
inline bool MakeDirs(const QB_StringW& sPath) { return MakeDirs(sPath.GetString()); }

// A path as a user side of this platform writes it ("/home/ann/a.doc"), in
// the Windows form the rest of the system keeps; a null path gives "".
QB_StringW QB_WithBackslashes(const char16_t* pszPath);
QB_StringA QB_WithBackslashes(const QB_StringA& sPath);
