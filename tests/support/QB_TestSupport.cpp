#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <stdlib.h>

namespace fs = std::filesystem;

// The folder's name holds the running test's name, its unsafe characters
// (parameterised tests carry "/") as "_", and a part mkdtemp makes unique.
QB_TempFolder::QB_TempFolder()
{
    const auto* lpInfo = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string sName = lpInfo ? std::string(lpInfo->test_suite_name()) + "." + lpInfo->name() : "notest";
    std::replace_if(sName.begin(), sName.end(), [](unsigned char ch) { return !std::isalnum(ch) && ch != '.' && ch != '-'; }, '_');
    const fs::path pathBase = fs::temp_directory_path() / "roomcrate-tests";
    fs::create_directories(pathBase);
    std::string sTemplate = (pathBase / (sName + "-XXXXXX")).string();
    if (::mkdtemp(sTemplate.data()) == nullptr)
        throw std::runtime_error("no temporary folder: " + sTemplate);
    m_sPath = sTemplate;
}

// Read-only files left behind go too: removal needs only the folder's write bit.
QB_TempFolder::~QB_TempFolder()
{
    std::error_code ec;
    fs::remove_all(m_sPath, ec);
}

QB_StringW QB_TempFolder::PathW() const { return QB_ToWindowsPath(m_sPath) + QB_StringW(u"\\"); }

std::string QB_TempFolder::Sub(const std::string& sRelative) const
{
    return (fs::path(m_sPath) / fs::path(sRelative)).string();
}

QB_StringW QB_TempFolder::SubW(const std::string& sRelative) const { return QB_ToWindowsPath(Sub(sRelative)); }

QB_StringW QB_ToWindowsPath(const std::string& sPath)
{
    std::u16string s = fs::path(sPath).u16string();
    std::replace(s.begin(), s.end(), u'/', u'\\');
    return QB_StringW(std::u16string_view(s));
}

std::vector<uint8_t> QB_ReadWholeFile(const std::string& sPath)
{
    std::ifstream in(sPath, std::ios::binary);
    return in ? std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>())
              : std::vector<uint8_t>();
}

bool QB_WriteWholeFile(const std::string& sPath, const std::vector<uint8_t>& vbData)
{
    std::ofstream out(sPath, std::ios::binary | std::ios::trunc);
    return out && out.write(reinterpret_cast<const char*>(vbData.data()), (std::streamsize)vbData.size()).flush();
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
        s += std::string(i ? " " : "") + kDigits[vbData[i] >> 4] + kDigits[vbData[i] & 0xF];
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
    auto fnAdd = [&](const std::string& sFile) {
        const std::vector<uint8_t> vb = QB_ReadWholeFile(sFile);
        sText.append(vb.begin(), vb.end());
    };
    if (fs::is_directory(sPath, ec))
        for (const auto& entry : fs::directory_iterator(sPath, ec))
            fnAdd(entry.path().string());
    else
        fnAdd(sPath);
    size_t n = 0;
    for (size_t at = sText.find(sWhat); at != std::string::npos; at = sText.find(sWhat, at + 1))
        ++n;
    return n;
}
