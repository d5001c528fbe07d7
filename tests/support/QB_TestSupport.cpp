#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace fs = std::filesystem;

namespace {

// Characters of a test name that are unsafe or awkward in a folder name
// (parameterised tests carry "/") become "_".
std::string SafeTestName()
{
    const auto* lpInfo = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string sName = lpInfo ? std::string(lpInfo->test_suite_name()) + "." + lpInfo->name() : "notest";
    for (char& ch : sName)
        if (!std::isalnum((unsigned char)ch) && ch != '.' && ch != '-')
            ch = '_';
    return sName;
}

std::string RandomSuffix()
{
    static std::atomic<unsigned> s_nSerial{0};
    std::random_device rd;
    char szBuf[32];
    std::snprintf(szBuf, sizeof szBuf, "%08x-%u", rd(), s_nSerial.fetch_add(1));
    return szBuf;
}

}  // namespace

QB_TempFolder::QB_TempFolder()
{
    fs::path pathBase = fs::temp_directory_path() / "roomcrate-tests";
    fs::create_directories(pathBase);
    std::string sName = SafeTestName();
    // create_directory answers false when the name is taken, so a clash with
    // another run just draws a new name.
    for (;;)
    {
        fs::path path = pathBase / (sName + "-" + RandomSuffix());
        if (fs::create_directory(path))
        {
            m_sPath = path.string();
            return;
        }
    }
}

QB_TempFolder::~QB_TempFolder()
{
    std::error_code ec;
    // Tests leave read-only files behind; removal needs the folder's write
    // bit only, which the tests don't take away.
    fs::remove_all(m_sPath, ec);
}

QB_StringW QB_TempFolder::PathW() const
{
    QB_StringW s = QB_ToWindowsPath(m_sPath);
    s += u'\\';
    return s;
}

std::string QB_TempFolder::Sub(const std::string& sRelative) const
{
    return (fs::path(m_sPath) / fs::path(sRelative)).string();
}

QB_StringW QB_TempFolder::SubW(const std::string& sRelative) const
{
    return QB_ToWindowsPath(Sub(sRelative));
}

QB_StringW QB_ToWindowsPath(const std::string& sPath)
{
    std::u16string s = fs::path(sPath).u16string();
    for (char16_t& ch : s)
        if (ch == u'/')
            ch = u'\\';
    return QB_StringW(std::u16string_view(s));
}

std::vector<uint8_t> QB_ReadWholeFile(const std::string& sPath)
{
    std::ifstream in(sPath, std::ios::binary);
    if (!in)
        return {};
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool QB_WriteWholeFile(const std::string& sPath, const std::vector<uint8_t>& vbData)
{
    std::ofstream out(sPath, std::ios::binary | std::ios::trunc);
    if (!out)
        return false;
    out.write(reinterpret_cast<const char*>(vbData.data()), (std::streamsize)vbData.size());
    return (bool)out.flush();
}

bool QB_WriteWholeFile(const std::string& sPath, const std::string& sText)
{
    return QB_WriteWholeFile(sPath, std::vector<uint8_t>(sText.begin(), sText.end()));
}

std::string QB_ToHex(const std::vector<uint8_t>& vbData)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < vbData.size(); ++i)
    {
        if (i)
            s += ' ';
        s += kDigits[vbData[i] >> 4];
        s += kDigits[vbData[i] & 0xF];
    }
    return s;
}

size_t QB_OpenHandlesTo(const std::string& sPath)
{
    std::error_code ec;
    const fs::path target = fs::canonical(sPath, ec);
    size_t n = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd", ec))
    {
        std::error_code ecLink;
        n += !target.empty() && fs::read_symlink(entry.path(), ecLink) == target;
    }
    return n;
}

size_t QB_CountInFiles(const std::string& sPath, const std::string& sWhat)
{
    std::string sText;
    std::error_code ec;
    if (std::filesystem::is_directory(sPath, ec))
        for (const auto& entry : std::filesystem::directory_iterator(sPath, ec))
        {
            const std::vector<uint8_t> vb = QB_ReadWholeFile(entry.path().string());
            sText.append(vb.begin(), vb.end());
        }
    else
    {
        const std::vector<uint8_t> vb = QB_ReadWholeFile(sPath);
        sText.assign(vb.begin(), vb.end());
    }
    size_t n = 0;
    for (size_t at = sText.find(sWhat); at != std::string::npos; at = sText.find(sWhat, at + 1))
        ++n;
    return n;
}
