// UTF-8 and UTF-16 for the client programs: the command line, files and
// terminals speak UTF-8, the module's user side UTF-16.
#pragma once

#include <cstdint>
#include <string>

inline std::u16string Utf16(const std::string& s)
{
    std::u16string sOut;
    for (size_t i = 0; i < s.size();)
    {
        uint32_t ulCode = (uint8_t)s[i];
        const int nMore = ulCode >= 0xF0 ? 3 : ulCode >= 0xE0 ? 2 : ulCode >= 0xC0 ? 1 : 0;
        ulCode &= nMore == 0 ? 0x7F : (0x3F >> nMore);
        for (int k = 1; k <= nMore && i + k < s.size(); ++k)
            ulCode = ulCode << 6 | ((uint8_t)s[i + k] & 0x3F);
        i += nMore + 1;
        if (ulCode >= 0x10000)
        {
            sOut += (char16_t)(0xD800 + ((ulCode - 0x10000) >> 10));
            sOut += (char16_t)(0xDC00 + ((ulCode - 0x10000) & 0x3FF));
        }
        else
            sOut += (char16_t)ulCode;
    }
    return sOut;
}

inline std::string Utf8(const char16_t* psz)
{
    std::string sOut;
    for (; *psz; ++psz)
    {
        uint32_t ulCode = *psz;
        if (ulCode >= 0xD800 && ulCode < 0xDC00 && psz[1] >= 0xDC00 && psz[1] < 0xE000)
            ulCode = 0x10000 + ((ulCode - 0xD800) << 10) + (*++psz - 0xDC00);
        if (ulCode < 0x80)
            sOut += (char)ulCode;
        else if (ulCode < 0x800)
            sOut += {(char)(0xC0 | ulCode >> 6), (char)(0x80 | (ulCode & 0x3F))};
        else if (ulCode < 0x10000)
            sOut += {(char)(0xE0 | ulCode >> 12), (char)(0x80 | (ulCode >> 6 & 0x3F)), (char)(0x80 | (ulCode & 0x3F))};
        else
            sOut += {(char)(0xF0 | ulCode >> 18), (char)(0x80 | (ulCode >> 12 & 0x3F)),
                     (char)(0x80 | (ulCode >> 6 & 0x3F)), (char)(0x80 | (ulCode & 0x3F))};
    }
    return sOut;
}
