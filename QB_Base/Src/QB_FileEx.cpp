#include "QB_FileEx.h"

namespace {

// The platform's path buffers held 260 units.
constexpr int kMaxPath = 260;

std::u16string ToStd(const QB_StringW& s)
{
    return std::u16string(s.View());
}

// Positions and sizes are 32 bits throughout the system; a file beyond 4 GB
// is not supported, so the low word is all that is kept.
int32_t Narrow(int64_t ll)
{
    return ll < 0 ? -1 : (int32_t)(uint32_t)ll;
}

bool IsSeparator(char16_t ch)
{
    return ch == u'\\' || ch == u'/';
}

// Makes sure that one folder exists, removing a plain file in its place.
bool MakeOneFolder(const std::u16string& sFolder)
{
    QB_Env* lpEnv = QB_GetEnv();
    uint32_t ulAttr = lpEnv->GetFileAttributes(sFolder);
    if (ulAttr != QB_ATTR_INVALID && !(ulAttr & QB_ATTR_DIRECTORY))
        lpEnv->DeleteFile(sFolder);  // a failure shows when the folder is made
    if (lpEnv->GetFileAttributes(sFolder) == QB_ATTR_DIRECTORY)
        return true;
    return lpEnv->CreateDirectory(sFolder);
}

}  // namespace

bool QB_FileEx::Open(const QB_StringW& sPath, uint32_t ulMode)
{
    // A second Open on the same object would otherwise lose the first handle
    // and keep its sharing in force until the process ends.
    Close();
    m_sFileName = sPath;
    if (sPath.IsEmpty() || (ulMode & QB_FILE_ACCESS_MASK) == 0)
        return false;
    if ((ulMode & QB_FILE_CREATION_MASK) == 0)
        ulMode |= QB_FILE_OPEN_EXISTING;
    m_hFile = QB_GetEnv()->OpenFile(ToStd(sPath), ulMode);
    return IsOpen();
}

bool QB_FileEx::OpenBelow(const QB_StringW& sBase, const QB_StringW& sBelow, uint32_t ulMode, bool* pbLink)
{
    Close();
    if (pbLink != nullptr)
        *pbLink = false;
    m_sFileName = sBase + sBelow;
    if (sBelow.IsEmpty() || (ulMode & QB_FILE_ACCESS_MASK) == 0)
        return false;
    if ((ulMode & QB_FILE_CREATION_MASK) == 0)
        ulMode |= QB_FILE_OPEN_EXISTING;
    m_hFile = QB_GetEnv()->OpenFileBelow(ToStd(sBase), ToStd(sBelow), ulMode, pbLink);
    return IsOpen();
}

bool QB_FileEx::Close()
{
    if (!IsOpen())
        return false;
    QB_GetEnv()->CloseFile(m_hFile);
    m_hFile = QB_INVALID_FILE;
    return true;
}

int32_t QB_FileEx::Read(void* pBuf, int32_t nCount)
{
    if (!IsOpen() || pBuf == nullptr || nCount < 1)
        return -1;
    return QB_GetEnv()->ReadFile(m_hFile, pBuf, nCount);
}

namespace {

// Writing nothing succeeds even on a closed file; otherwise a broken caller
// gets a failure rather than a crash, in every build.
template <typename F>
int32_t GuardedWrite(bool bOpen, const void* pBuf, int32_t nCount, F&& fnWrite)
{
    if (nCount < 0)
        return -1;
    if (nCount == 0)
        return 0;
    if (!bOpen || pBuf == nullptr)
        return -1;
    return fnWrite();
}

} // namespace

int32_t QB_FileEx::Write(const void* pBuf, int32_t nCount)
{
    return GuardedWrite(IsOpen(), pBuf, nCount, [&] { return QB_GetEnv()->WriteFile(m_hFile, pBuf, nCount); });
}

int32_t QB_FileEx::ReadAt(uint32_t ulPos, void* pBuf, int32_t nCount)
{
    if (!IsOpen() || pBuf == nullptr || nCount < 1)
        return -1;
    return QB_GetEnv()->ReadFileAt(m_hFile, ulPos, pBuf, nCount);
}

int32_t QB_FileEx::WriteAt(uint32_t ulPos, const void* pBuf, int32_t nCount)
{
    return GuardedWrite(IsOpen(), pBuf, nCount,
                        [&] { return QB_GetEnv()->WriteFileAt(m_hFile, ulPos, pBuf, nCount); });
}

int32_t QB_FileEx::Seek(int32_t nOffset, int nOrigin)
{
    if (!IsOpen())
        return -1;
    return Narrow(QB_GetEnv()->SeekFile(m_hFile, nOffset, nOrigin));
}

int32_t QB_FileEx::GetLength()
{
    if (!IsOpen())
        return -1;
    return Narrow(QB_GetEnv()->GetFileSize(m_hFile));
}

bool QB_FileEx::SetEnd()
{
    return IsOpen() && QB_GetEnv()->SetEndOfFile(m_hFile);
}

bool QB_FileEx::Sync()
{
    return IsOpen() && QB_GetEnv()->FlushFile(m_hFile);
}

bool QB_FileEx::GetTimes(QB_SystemTime* pCreation, QB_SystemTime* pLastWrite, QB_SystemTime* pLastAccess)
{
    return IsOpen() && QB_GetEnv()->GetFileTimes(m_hFile, pCreation, pLastWrite, pLastAccess);
}

bool QB_FileEx::GetFileId(uint64_t* pDevice, uint64_t* pNumber)
{
    return IsOpen() && QB_GetEnv()->GetFileId(m_hFile, pDevice, pNumber);
}

QB_StringW QB_FileEx::GetFileName() const
{
    QB_StringW sFull = GetFullPath();
    return sFull.Mid(sFull.ReverseFind(u'\\') + 1);
}

// A path that doesn't fit the platform's buffer gives an empty answer rather
// than a cut one, which would name another file.
QB_StringW QB_FileEx::GetFullPath() const
{
    if (m_sFileName.IsEmpty())
        return QB_StringW();
    std::u16string sFull = QB_GetEnv()->GetFullPathName(ToStd(m_sFileName));
    if (sFull.size() > (size_t)kMaxPath)
        return QB_StringW();
    return QB_StringW(std::u16string_view(sFull));
}

bool QB_FileEx::Delete(const QB_StringW& sPath)
{
    return !sPath.IsEmpty() && QB_GetEnv()->DeleteFile(ToStd(sPath));
}

// Every separator from the left ends a folder to make sure of. "/" counts as
// well as "\", since the environment takes both. An empty piece (the root of
// an absolute path, or a doubled separator) names no folder of its own.
bool MakeDirs(const char16_t* pszPath)
{
    if (pszPath == nullptr)
        return false;
    int nLength = 0;
    while (nLength <= kMaxPath && pszPath[nLength])
        ++nLength;
    if (nLength == 0 || nLength > kMaxPath)
        return false;
    std::u16string sPath(pszPath, (size_t)nLength);
    if (!IsSeparator(sPath.back()))
        sPath += u'\\';
    for (size_t i = 0; i < sPath.size(); ++i)
    {
        if (!IsSeparator(sPath[i]) || i == 0 || IsSeparator(sPath[i - 1]))
            continue;
        if (!MakeOneFolder(sPath.substr(0, i)))
            return false;
    }
    return true;
}

namespace {

template <typename TString, typename TChar>
TString ReplaceSlashes(TString s, TChar chSlash, TChar chBackslash)
{
    for (int i = 0; i < s.GetLength(); ++i)
        if (s[i] == chSlash)
            s.SetAt(i, chBackslash);
    return s;
}

} // namespace

QB_StringW QB_WithBackslashes(const char16_t* pszPath)
{
    return ReplaceSlashes(QB_StringW(pszPath ? pszPath : u""), u'/', u'\\');
}

QB_StringA QB_WithBackslashes(const QB_StringA& sPath)
{
    return ReplaceSlashes(sPath, '/', '\\');
}
