#include "QB_String.h"

#include <cstdio>
#include <vector>


namespace {

// Windows-1252 bytes 0x80 to 0x9F. The five bytes the code page leaves
// undefined map to the control character of the same number, as the
// platform's own conversion did, so that every byte survives a round trip.
const char16_t kCp1252High[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
    0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
};

char16_t AnsiToUnit(unsigned char b)
{
    if (b >= 0x80 && b <= 0x9F)
        return kCp1252High[b - 0x80];
    return b;
}

char UnitToAnsi(char16_t u)
{
    if (u < 0x80 || (u >= 0xA0 && u <= 0xFF))
        return (char)u;
    for (int i = 0; i < 32; ++i)
        if (kCp1252High[i] == u)
            return (char)(0x80 + i);
    return '?';
}

int LengthToZero(const char16_t* p, int n)
{
    int i = 0;
    while (i < n && p[i])
        ++i;
    return i;
}

int LengthToZero(const char* p, int n)
{
    int i = 0;
    while (i < n && p[i])
        ++i;
    return i;
}

// Bytes of the UTF-8 sequence that a lead byte starts, by the decoder's own
// rule; 0 means the byte is dropped.
int Utf8SequenceLength(unsigned char b)
{
    if (!(b & 0x80))
        return 1;
    if (!(b & 0x20))
        return 2;
    if (!(b & 0x10))
        return 3;
    return 0;
}

} // namespace

QB_StringW QB_AnsiToWide(const char* pch, int nLength)
{
    QB_StringW s;
    if (!pch || nLength <= 0)
        return s;
    nLength = LengthToZero(pch, nLength);
    char16_t* p = s.GetBuffer(nLength);
    if (!p)
        return QB_StringW();
    for (int i = 0; i < nLength; ++i)
        p[i] = AnsiToUnit((unsigned char)pch[i]);
    s.ReleaseBuffer(nLength);
    return s;
}

QB_StringA QB_WideToAnsi(const char16_t* pch, int nLength)
{
    QB_StringA s;
    if (!pch || nLength <= 0)
        return s;
    nLength = LengthToZero(pch, nLength);
    char* p = s.GetBuffer(nLength);
    if (!p)
        return QB_StringA();
    for (int i = 0; i < nLength; ++i)
        p[i] = UnitToAnsi(pch[i]);
    s.ReleaseBuffer(nLength);
    return s;
}

// One to three bytes per unit; surrogate halves are encoded one by one on
// purpose, so a pair becomes six bytes and comes back as the same pair.
QB_StringU8 QB_WideToUtf8(const char16_t* pch, int nLength)
{
    QB_StringU8 s;
    if (!pch || nLength <= 0)
        return s;
    nLength = LengthToZero(pch, nLength);
    int nBytes = 0;
    for (int i = 0; i < nLength; ++i)
        nBytes += pch[i] < 0x80 ? 1 : (pch[i] < 0x800 ? 2 : 3);
    char* p = s.GetBuffer(nBytes);
    if (!p)
        return QB_StringU8();
    int o = 0;
    for (int i = 0; i < nLength; ++i)
    {
        char16_t u = pch[i];
        if (u < 0x80)
            p[o++] = (char)u;
        else if (u < 0x800)
        {
            p[o++] = (char)(0xC0 | (u >> 6));
            p[o++] = (char)(0x80 | (u & 0x3F));
        }
        else
        {
            p[o++] = (char)(0xE0 | (u >> 12));
            p[o++] = (char)(0x80 | ((u >> 6) & 0x3F));
            p[o++] = (char)(0x80 | (u & 0x3F));
        }
    }
    s.ReleaseBuffer(nBytes);
    return s;
}

// The decoder looks at bits 7, 5 and 4 of a lead byte only and does not test
// the bytes that follow; a lead byte with bit 4 set is dropped, so a 4-byte
// sequence does not become a surrogate pair. A sequence cut off by the end of
// the input produces nothing: the decoder never reads past its input.
QB_StringW QB_Utf8ToWide(const char* pch, int nLength)
{
    QB_StringW s;
    if (!pch || nLength <= 0)
        return s;
    const auto* b = reinterpret_cast<const unsigned char*>(pch);
    int nUnits = 0;
    for (int i = 0; i < nLength;)
    {
        int n = Utf8SequenceLength(b[i]);
        if (n == 0)
        {
            ++i;
            continue;
        }
        if (i + n > nLength)
            break;
        ++nUnits;
        i += n;
    }
    char16_t* p = s.GetBuffer(nUnits);
    if (!p)
        return QB_StringW();
    int o = 0;
    for (int i = 0; i < nLength && o < nUnits;)
    {
        int n = Utf8SequenceLength(b[i]);
        if (n == 1)
            p[o++] = b[i];
        else if (n == 2)
            p[o++] = (char16_t)(((b[i] & 0x1F) << 6) | (b[i + 1] & 0x3F));
        else if (n == 3)
            p[o++] = (char16_t)(((b[i] & 0x0F) << 12) | ((b[i + 1] & 0x3F) << 6) | (b[i + 2] & 0x3F));
        i += n == 0 ? 1 : n;
    }
    // A decoded zero unit ends the string there.
    s.ReleaseBuffer(LengthToZero(p, nUnits));
    return s;
}

char16_t QB_CharLowerW(char16_t ch)
{
    if (ch >= u'A' && ch <= u'Z')
        return ch + 32;
    if (ch < 0xC0)
        return ch;
    // Latin-1 capitals, except the multiplication sign.
    if (ch <= 0xDE)
        return ch == 0xD7 ? ch : ch + 32;
    // Latin Extended-A pairs capital/small on even/odd, with two runs shifted.
    if (ch >= 0x100 && ch <= 0x137)
        return (ch & 1) ? ch : ch + 1;
    if (ch >= 0x139 && ch <= 0x148)
        return (ch & 1) ? ch + 1 : ch;
    if (ch >= 0x14A && ch <= 0x177)
        return (ch & 1) ? ch : ch + 1;
    if (ch == 0x178)
        return 0xFF;
    if (ch >= 0x179 && ch <= 0x17E)
        return (ch & 1) ? ch + 1 : ch;
    // Greek and Cyrillic capitals.
    if ((ch >= 0x391 && ch <= 0x3A9 && ch != 0x3A2) || (ch >= 0x410 && ch <= 0x42F))
        return ch + 32;
    if (ch >= 0x400 && ch <= 0x40F)
        return ch + 80;
    return ch;
}

template <typename CharT, QB_Encoding Enc>
void QB_StringT<CharT, Enc>::Format(const char* pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    FormatV(pszFormat, args);
    va_end(args);
}

template <typename CharT, QB_Encoding Enc>
void QB_StringT<CharT, Enc>::FormatV(const char* pszFormat, va_list args)
{
    if (!pszFormat)
    {
        Empty();
        return;
    }
    // A first pass measures, so the result is never cut by a fixed buffer.
    va_list measure;
    va_copy(measure, args);
    int n = std::vsnprintf(nullptr, 0, pszFormat, measure);
    va_end(measure);
    if (n < 0)
    {
        Empty();
        return;
    }
    std::vector<char> text((size_t)n + 1);
    std::vsnprintf(text.data(), text.size(), pszFormat, args);
    if constexpr (Enc == QB_Encoding::Utf16)
        *this = QB_Utf8ToWide(text.data(), n);
    else
        *this = QB_StringT(text.data(), n);
}

template class QB_StringT<char, QB_Encoding::Ansi>;
template class QB_StringT<char, QB_Encoding::Utf8>;
template class QB_StringT<char16_t, QB_Encoding::Utf16>;
