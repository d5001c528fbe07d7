#include "ZV_DemoFiles.h"

#include "ZV_DemoInterrupt.h"

#include <algorithm>
#include <fstream>
#include <random>

namespace zv_demo {

namespace {

constexpr size_t kChunk = 64 * 1024;

// Sizes travel in 32 bits.
constexpr uintmax_t kMaxShareSize = 0xFFFFFFFFu;

// A full path may take 259 UTF-16 units, as Windows' MAX_PATH with its NUL.
constexpr size_t kMaxSharePath = 259;

// The characters of Windows-1252 bytes 0x80 to 0x9F; the five bytes the
// code page leaves undefined stand for the control character of their own
// number. Every other character below 0x100 is its own byte.
constexpr char16_t kCp1252High[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
};

bool InCodePage(char16_t ch)
{
    if (ch < 0x80 || (ch >= 0xA0 && ch <= 0xFF))
        return true;
    return std::find(std::begin(kCp1252High), std::end(kCp1252High), ch) != std::end(kCp1252High);
}

// Strict UTF-8 to UTF-16; false for anything that is not UTF-8 text.
bool Utf8ToUtf16(const std::string& s, std::u16string& sOut)
{
    sOut.clear();
    for (size_t i = 0; i < s.size();)
    {
        const unsigned char b = (unsigned char)s[i];
        const size_t nMore = b < 0x80 ? 0 : (b & 0xE0) == 0xC0 ? 1 : (b & 0xF0) == 0xE0 ? 2
                                                                  : (b & 0xF8) == 0xF0 ? 3 : 4;
        if (nMore == 4 || i + nMore >= s.size())
            return false;
        char32_t ch = nMore ? b & (0x3F >> nMore) : b;
        for (size_t k = 1; k <= nMore; ++k)
        {
            const unsigned char c = (unsigned char)s[i + k];
            if ((c & 0xC0) != 0x80)
                return false;
            ch = ch << 6 | (c & 0x3F);
        }
        static constexpr char32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
        if (ch < kLeast[nMore] || ch > 0x10FFFF || (ch >= 0xD800 && ch <= 0xDFFF))
            return false;
        if (ch >= 0x10000)
            sOut += {(char16_t)(0xD800 + ((ch - 0x10000) >> 10)), (char16_t)(0xDC00 + (ch & 0x3FF))};
        else
            sOut += (char16_t)ch;
        i += nMore + 1;
    }
    return true;
}

void AppendUtf8(std::string& s, char32_t ch)
{
    if (ch < 0x80)
        s += (char)ch;
    else if (ch < 0x800)
        s += {(char)(0xC0 | ch >> 6), (char)(0x80 | (ch & 0x3F))};
    else if (ch < 0x10000)
        s += {(char)(0xE0 | ch >> 12), (char)(0x80 | (ch >> 6 & 0x3F)), (char)(0x80 | (ch & 0x3F))};
    else
        s += {(char)(0xF0 | ch >> 18), (char)(0x80 | (ch >> 12 & 0x3F)), (char)(0x80 | (ch >> 6 & 0x3F)),
              (char)(0x80 | (ch & 0x3F))};
}

} // namespace

LocalFile MakeLocalFile(const fs::path& path)
{
    LocalFile file;
    file.path = path;
    file.sWindows = path.string();
    std::replace(file.sWindows.begin(), file.sWindows.end(), '/', '\\');
    if (!Utf8ToUtf16(file.sWindows, file.sWide))
        file.sWide.clear();
    return file;
}

LocalFile ResolveArgument(const std::string& sArg, std::string& sProblem)
{
    std::error_code ec;
    const fs::path path = fs::absolute(sArg, ec).lexically_normal();
    if (ec || !fs::exists(path, ec))
        sProblem = "no such file";
    else if (!fs::is_regular_file(path, ec))
        sProblem = "not a file";
    return MakeLocalFile(path);
}

std::string WhyNotShareable(const LocalFile& file, bool bAlone)
{
    if (file.path.string().find('\\') != std::string::npos)
        return "its path holds a \"\\\", which the system reads as a folder separator";
    if (file.sWide.empty())
        return "its path is not UTF-8 text, so it has no UTF-16 form";
    std::error_code ec;
    if (fs::file_size(file.path, ec) > kMaxShareSize)
        return "it holds 4 GiB or more, and sizes travel in 32 bits";
    if (file.sWide.size() > kMaxSharePath)
        return "its full path is longer than the 259 characters a path may have";
    const size_t nName = file.sWide.rfind(u'\\') + 1;
    if (!std::all_of(file.sWide.begin() + (bAlone ? 0 : nName), file.sWide.end(), InCodePage))
        return "its name or folder holds a character that the catalogue's code page (Windows-1252) cannot hold";
    return "";
}

std::vector<fs::path> MakeSampleFiles(const fs::path& folder)
{
    fs::create_directories(folder);
    const std::pair<const char*, size_t> aFiles[] = {
        {"notes.txt", 3 * 1024}, {"slides.pdf", 100 * 1000}, {"photo.jpg", 1024 * 1024 + 7}};
    std::mt19937 rng(2026);
    std::vector<fs::path> vec;
    std::vector<char> vch(kChunk);
    for (const auto& [szName, nSize] : aFiles)
    {
        std::ofstream out(folder / szName, std::ios::binary);
        for (size_t nDone = 0; nDone < nSize;)
        {
            StopIfInterrupted();
            const size_t n = std::min(kChunk, nSize - nDone);
            for (size_t i = 0; i < n; ++i)
                vch[i] = (char)(rng() & 0xFF);
            out.write(vch.data(), (std::streamsize)n);
            nDone += n;
        }
        vec.push_back(folder / szName);
    }
    return vec;
}

fs::path DistinctTarget(const fs::path& folder, const std::string& sName, std::set<fs::path>& setTaken)
{
    const fs::path name(sName);
    fs::path target = folder / name;
    for (int n = 1; setTaken.count(target) != 0; ++n)
        target = folder / (name.stem().string() + "(" + std::to_string(n) + ")" + name.extension().string());
    setTaken.insert(target);
    return target;
}

bool SameBytes(const fs::path& a, const fs::path& b)
{
    std::ifstream inA(a, std::ios::binary), inB(b, std::ios::binary);
    if (!inA || !inB)
        return false;
    std::vector<char> vchA(kChunk), vchB(kChunk);
    for (;;)
    {
        StopIfInterrupted();
        inA.read(vchA.data(), (std::streamsize)kChunk);
        inB.read(vchB.data(), (std::streamsize)kChunk);
        const std::streamsize nA = inA.gcount(), nB = inB.gcount();
        if (nA != nB || !std::equal(vchA.begin(), vchA.begin() + nA, vchB.begin()))
            return false;
        if (nA < (std::streamsize)kChunk)
            return true;
    }
}

uintmax_t SizeOf(const fs::path& file)
{
    std::error_code ec;
    const uintmax_t nSize = fs::file_size(file, ec);
    return ec ? 0 : nSize;
}

std::string ReadText(const fs::path& file)
{
    std::ifstream in(file, std::ios::binary);
    const std::string sBytes((std::istreambuf_iterator<char>(in)), {});
    const bool bUtf16 = sBytes.size() >= 2 && (uint8_t)sBytes[0] == 0xFF && (uint8_t)sBytes[1] == 0xFE;
    std::string sText = bUtf16 ? "" : sBytes;
    auto UnitAt = [&](size_t i) -> char32_t { return (uint8_t)sBytes[i] | (uint8_t)sBytes[i + 1] << 8; };
    for (size_t i = 2; bUtf16 && i + 1 < sBytes.size(); i += 2)
    {
        char32_t ch = UnitAt(i);
        if (ch >= 0xD800 && ch < 0xDC00 && i + 3 < sBytes.size() && UnitAt(i + 2) >= 0xDC00 && UnitAt(i + 2) <= 0xDFFF)
        {
            ch = 0x10000 + ((ch - 0xD800) << 10) + (UnitAt(i + 2) - 0xDC00);
            i += 2;
        }
        AppendUtf8(sText, ch);
    }
    sText.erase(std::remove(sText.begin(), sText.end(), '\r'), sText.end());
    return sText;
}

std::string Thousands(uint64_t ull)
{
    const std::string sDigits = std::to_string(ull);
    std::string s;
    for (size_t i = 0; i < sDigits.size(); ++i)
    {
        if (i > 0 && (sDigits.size() - i) % 3 == 0)
            s += ',';
        s += sDigits[i];
    }
    return s;
}

} // namespace zv_demo
