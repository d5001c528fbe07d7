// QB_String: reference-counted strings of three encodings.
//
// QB_StringA holds text in the ANSI code page (Windows-1252 here),
// QB_StringU8 UTF-8 as the library's own conversion makes it, and QB_StringW
// UTF-16 code units. The class of a value says its encoding; converting
// between classes is always explicit.
//
// A string is one pointer to the first character of a shared buffer; in
// front of the characters sits a header {refs, length, capacity}, behind them
// a terminating zero. Copies share the buffer and the first change makes a
// private copy. Each class has one static empty buffer whose count is the
// sentinel -10001, never counted and never freed.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

constexpr int32_t QB_STRING_SENTINEL = -10001;

struct QB_StringHeader
{
    std::atomic<int32_t> nRefs;
    int32_t nLength;
    int32_t nCapacity;
};
static_assert(sizeof(QB_StringHeader) == 12, "the header is three 32-bit words");

enum class QB_Encoding
{
    Ansi,
    Utf8,
    Utf16
};

template <typename CharT, QB_Encoding Enc>
class QB_StringT
{
public:
    using Char = CharT;

    QB_StringT() noexcept : m_pData(EmptyData()) {}
    QB_StringT(const CharT* psz) : QB_StringT() { Assign(psz, psz ? Strlen(psz) : 0); }
    QB_StringT(const CharT* pch, int nLength) : QB_StringT() { Assign(pch, pch ? nLength : 0); }
    QB_StringT(std::basic_string_view<CharT> sv) : QB_StringT() { Assign(sv.data(), (int)sv.size()); }
    QB_StringT(const QB_StringT& s) noexcept : m_pData(s.m_pData) { AddRef(); }
    QB_StringT(QB_StringT&& s) noexcept : m_pData(s.m_pData) { s.m_pData = EmptyData(); }
    // Conversion from another class: ANSI <-> UTF-16 by the code page,
    // UTF-8 <-> UTF-16 by the library's own rules, ANSI <-> UTF-8 through
    // UTF-16.
    template <typename C2, QB_Encoding E2>
    explicit QB_StringT(const QB_StringT<C2, E2>& s);
    ~QB_StringT() { Release(); }

    QB_StringT& operator=(const QB_StringT& s) noexcept
    {
        if (m_pData != s.m_pData)
        {
            Release();
            m_pData = s.m_pData;
            AddRef();
        }
        return *this;
    }
    QB_StringT& operator=(QB_StringT&& s) noexcept
    {
        if (this != &s)
        {
            Release();
            m_pData = s.m_pData;
            s.m_pData = EmptyData();
        }
        return *this;
    }
    QB_StringT& operator=(const CharT* psz)
    {
        QB_StringT s(psz);
        return *this = std::move(s);
    }

    int GetLength() const noexcept { return Header()->nLength; }
    bool IsEmpty() const noexcept { return GetLength() == 0; }
    const CharT* GetString() const noexcept { return m_pData; }
    std::basic_string_view<CharT> View() const noexcept { return {m_pData, (size_t)GetLength()}; }
    CharT operator[](int i) const noexcept { return m_pData[i]; }
    void SetAt(int i, CharT ch)
    {
        if (i >= 0 && i < GetLength() && MakePrivate())
            m_pData[i] = ch;
    }
    void Empty() { *this = QB_StringT(); }

    // For tests and diagnostics: the buffer's header words.
    int32_t GetRefCount() const noexcept { return Header()->nRefs.load(); }
    int GetCapacity() const noexcept { return Header()->nCapacity; }

    // Unsigned comparison by character code; the sign of the first difference.
    int Compare(const QB_StringT& s) const noexcept { return Compare(s.m_pData, s.GetLength()); }
    int Compare(const CharT* psz) const noexcept { return Compare(psz, psz ? Strlen(psz) : 0); }
    bool operator==(const QB_StringT& s) const noexcept { return Compare(s) == 0; }
    bool operator!=(const QB_StringT& s) const noexcept { return Compare(s) != 0; }
    bool operator==(const CharT* psz) const noexcept { return Compare(psz) == 0; }
    bool operator!=(const CharT* psz) const noexcept { return Compare(psz) != 0; }

    QB_StringT Left(int nCount) const
    {
        if (nCount >= GetLength())
            return *this;
        return QB_StringT(m_pData, nCount < 0 ? 0 : nCount);
    }
    QB_StringT Right(int nCount) const
    {
        if (nCount >= GetLength())
            return *this;
        if (nCount < 0)
            nCount = 0;
        return QB_StringT(m_pData + GetLength() - nCount, nCount);
    }
    QB_StringT Mid(int nFirst) const { return Mid(nFirst, GetLength()); }
    QB_StringT Mid(int nFirst, int nCount) const
    {
        if (nFirst < 0)
            nFirst = 0;
        if (nFirst >= GetLength() || nCount <= 0)
            return QB_StringT();
        if (nCount > GetLength() - nFirst)
            nCount = GetLength() - nFirst;
        if (nFirst == 0 && nCount == GetLength())
            return *this;
        return QB_StringT(m_pData + nFirst, nCount);
    }

    // Index of `sub` at or after `nStart`, or -1.
    int Find(const QB_StringT& sub, int nStart = 0) const noexcept
    {
        if (nStart < 0)
            nStart = 0;
        if (nStart > GetLength())
            return -1;
        size_t n = View().find(sub.View(), (size_t)nStart);
        return n == std::basic_string_view<CharT>::npos ? -1 : (int)n;
    }
    int Find(CharT ch, int nStart = 0) const noexcept
    {
        for (int i = nStart < 0 ? 0 : nStart; i < GetLength(); ++i)
            if (m_pData[i] == ch)
                return i;
        return -1;
    }
    int ReverseFind(CharT ch) const noexcept
    {
        for (int i = GetLength() - 1; i >= 0; --i)
            if (m_pData[i] == ch)
                return i;
        return -1;
    }

    QB_StringT& TrimLeft()
    {
        int n = 0;
        while (n < GetLength() && IsSpace(m_pData[n]))
            ++n;
        if (n > 0)
            *this = Mid(n);
        return *this;
    }
    QB_StringT& TrimRight()
    {
        int n = GetLength();
        while (n > 0 && IsSpace(m_pData[n - 1]))
            --n;
        if (n < GetLength())
            Truncate(n);
        return *this;
    }

    QB_StringT& Append(const CharT* pch, int nCount)
    {
        if (pch == nullptr || nCount <= 0)
            return *this;
        int nOld = GetLength();
        // The source may lie inside our own buffer; keep it alive.
        QB_StringT keep(*this);
        if (GetRefCount() > 2 || Header()->nCapacity < nOld + nCount || IsSentinel())
        {
            CharT* pNew = Allocate(nOld + nCount);
            if (!pNew)
                return *this;
            std::memcpy(pNew, m_pData, sizeof(CharT) * nOld);
            std::memcpy(pNew + nOld, pch, sizeof(CharT) * nCount);
            Release();
            m_pData = pNew;
        }
        else
        {
            std::memmove(m_pData + nOld, pch, sizeof(CharT) * nCount);
            Header()->nLength = nOld + nCount;
            m_pData[nOld + nCount] = 0;
        }
        return *this;
    }
    QB_StringT& Append(const QB_StringT& s) { return Append(s.m_pData, s.GetLength()); }
    QB_StringT& Append(const CharT* psz) { return Append(psz, psz ? Strlen(psz) : 0); }
    QB_StringT& AppendChar(CharT ch) { return Append(&ch, 1); }
    QB_StringT& operator+=(const QB_StringT& s) { return Append(s); }
    QB_StringT& operator+=(const CharT* psz) { return Append(psz); }
    QB_StringT& operator+=(CharT ch) { return AppendChar(ch); }
    friend QB_StringT operator+(const QB_StringT& a, const QB_StringT& b)
    {
        QB_StringT s(a);
        return s.Append(b);
    }
    friend QB_StringT operator+(const QB_StringT& a, const CharT* b)
    {
        QB_StringT s(a);
        return s.Append(b);
    }

    // Direct writing: room for at least nMinLength characters, then
    // ReleaseBuffer sets the length (from the first zero when -1).
    CharT* GetBuffer(int nMinLength)
    {
        if (nMinLength < 0)
            nMinLength = 0;
        if (IsSentinel() || GetRefCount() > 1 || Header()->nCapacity < nMinLength)
        {
            int nOld = GetLength();
            CharT* pNew = Allocate(nMinLength > nOld ? nMinLength : nOld);
            if (!pNew)
                return nullptr;
            std::memcpy(pNew, m_pData, sizeof(CharT) * (nOld + 1));
            HeaderOf(pNew)->nLength = nOld;
            Release();
            m_pData = pNew;
        }
        return m_pData;
    }
    void ReleaseBuffer(int nNewLength = -1)
    {
        if (IsSentinel())
            return;
        if (nNewLength < 0)
            nNewLength = Strlen(m_pData, Header()->nCapacity);
        if (nNewLength > Header()->nCapacity)
            nNewLength = Header()->nCapacity;
        Header()->nLength = nNewLength;
        m_pData[nNewLength] = 0;
    }
    // Shortens to nLength characters; the capacity stays.
    void Truncate(int nLength)
    {
        if (nLength < 0 || nLength >= GetLength() || !MakePrivate())
            return;
        Header()->nLength = nLength;
        m_pData[nLength] = 0;
    }

    // printf-style formatting; the result is not limited by a fixed buffer.
    // All three classes take a narrow format with vsnprintf's conversions;
    // QB_StringW widens the UTF-8 result.
    void Format(const char* pszFormat, ...) __attribute__((format(printf, 2, 3)));
    void FormatV(const char* pszFormat, va_list args);

private:
    CharT* m_pData;

    struct EmptyBuffer
    {
        QB_StringHeader header;
        CharT chZero;
    };
    static EmptyBuffer s_empty;

    static CharT* EmptyData() noexcept { return &s_empty.chZero; }
    static QB_StringHeader* HeaderOf(CharT* p) noexcept
    {
        return reinterpret_cast<QB_StringHeader*>(reinterpret_cast<char*>(p) - sizeof(QB_StringHeader));
    }
    QB_StringHeader* Header() const noexcept { return HeaderOf(m_pData); }
    bool IsSentinel() const noexcept { return m_pData == EmptyData(); }

    static int Strlen(const CharT* p, int nMax = INT32_MAX) noexcept
    {
        int n = 0;
        while (n < nMax && p[n])
            ++n;
        return n;
    }
    static bool IsSpace(CharT ch) noexcept { return ch == ' ' || (ch >= 9 && ch <= 13); }

    // A fresh private buffer for nCount characters: refs 1, length and
    // capacity nCount, terminated. Null when memory can't be had.
    static CharT* Allocate(int nCount) noexcept
    {
        if (nCount < 0 || (size_t)nCount > (SIZE_MAX - sizeof(QB_StringHeader)) / sizeof(CharT) - 1)
            return nullptr;
        void* p = std::malloc(sizeof(QB_StringHeader) + sizeof(CharT) * ((size_t)nCount + 1));
        if (!p)
            return nullptr;
        auto* h = new (p) QB_StringHeader;
        h->nRefs.store(1);
        h->nLength = nCount;
        h->nCapacity = nCount;
        CharT* pData = reinterpret_cast<CharT*>(h + 1);
        pData[nCount] = 0;
        return pData;
    }
    void AddRef() noexcept
    {
        if (!IsSentinel())
            Header()->nRefs.fetch_add(1);
    }
    void Release() noexcept
    {
        if (IsSentinel())
            return;
        QB_StringHeader* h = Header();
        if (h->nRefs.fetch_sub(1) - 1 < 1)
        {
            h->~QB_StringHeader();
            std::free(h);
        }
        m_pData = EmptyData();
    }
    // Copy-on-write: a shared buffer is left for an exact-size copy. Callers
    // change characters that exist, so the buffer is never the empty one.
    bool MakePrivate() noexcept
    {
        if (GetRefCount() <= 1)
            return true;
        CharT* pNew = Allocate(GetLength());
        if (!pNew)
            return false;
        std::memcpy(pNew, m_pData, sizeof(CharT) * GetLength());
        Release();
        m_pData = pNew;
        return true;
    }
    void Assign(const CharT* pch, int nCount)
    {
        Release();
        if (pch == nullptr || nCount <= 0)
            return;
        CharT* pNew = Allocate(nCount);
        if (!pNew)
            return;
        std::memcpy(pNew, pch, sizeof(CharT) * nCount);
        m_pData = pNew;
    }
    int Compare(const CharT* pch, int nLength) const noexcept
    {
        using U = std::make_unsigned_t<CharT>;
        int nMin = GetLength() < nLength ? GetLength() : nLength;
        for (int i = 0; i < nMin; ++i)
            if (m_pData[i] != pch[i])
                return (U)m_pData[i] < (U)pch[i] ? -1 : 1;
        return GetLength() < nLength ? -1 : (GetLength() > nLength ? 1 : 0);
    }
};

template <typename CharT, QB_Encoding Enc>
typename QB_StringT<CharT, Enc>::EmptyBuffer QB_StringT<CharT, Enc>::s_empty = {{QB_STRING_SENTINEL, 0, 0}, 0};

using QB_StringA = QB_StringT<char, QB_Encoding::Ansi>;
using QB_StringU8 = QB_StringT<char, QB_Encoding::Utf8>;
using QB_StringW = QB_StringT<char16_t, QB_Encoding::Utf16>;

extern template class QB_StringT<char, QB_Encoding::Ansi>;
extern template class QB_StringT<char, QB_Encoding::Utf8>;
extern template class QB_StringT<char16_t, QB_Encoding::Utf16>;

// The conversions between the classes. Each stops at the first zero of its
// input, as the platform's did, and never fails: a character the target
// can't hold becomes "?" (ANSI) and malformed UTF-8 decodes by the rules of
// the library's own decoder.
QB_StringW QB_AnsiToWide(const char* pch, int nLength);
QB_StringA QB_WideToAnsi(const char16_t* pch, int nLength);
QB_StringU8 QB_WideToUtf8(const char16_t* pch, int nLength);
QB_StringW QB_Utf8ToWide(const char* pch, int nLength);

// Lower case of one UTF-16 unit, for case-blind names.
char16_t QB_CharLowerW(char16_t ch);

template <typename CharT, QB_Encoding Enc>
template <typename C2, QB_Encoding E2>
QB_StringT<CharT, Enc>::QB_StringT(const QB_StringT<C2, E2>& s) : QB_StringT()
{
    if constexpr (Enc == E2)
        *this = s;
    else if constexpr (Enc == QB_Encoding::Utf16 && E2 == QB_Encoding::Ansi)
        *this = QB_AnsiToWide(s.GetString(), s.GetLength());
    else if constexpr (Enc == QB_Encoding::Utf16 && E2 == QB_Encoding::Utf8)
        *this = QB_Utf8ToWide(s.GetString(), s.GetLength());
    else if constexpr (Enc == QB_Encoding::Ansi && E2 == QB_Encoding::Utf16)
        *this = QB_WideToAnsi(s.GetString(), s.GetLength());
    else if constexpr (Enc == QB_Encoding::Utf8 && E2 == QB_Encoding::Utf16)
        *this = QB_WideToUtf8(s.GetString(), s.GetLength());
    else
        *this = QB_StringT(QB_StringW(s));
}
