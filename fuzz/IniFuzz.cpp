// The ini file: the input is the file, ANSI or UTF-16 by its first two
// bytes. What the loader finds is set against the lines worked out here
// (cut at CR LF, classified key first, names matched without regard to
// case, the first of repeated names found); then a few changes from the
// input's tail, and a flush that must read back as what was in memory.
#include "ZV_FuzzCheck.h"

#include "QB_IniFileEx.h"

#include "ZV_FuzzInput.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

using Text = std::u16string;

std::string IniPath()
{
    static const std::string sPath = [] {
        return (ZV_FuzzScratch("roomcrate-ini") / "f.ini").string();
    }();
    return sPath;
}

Text Lower(const Text& s)
{
    Text sLower = s;
    for (char16_t& ch : sLower)
        ch = QB_CharLowerW(ch);
    return sLower;
}

enum class Kind
{
    Other,
    Section,
    Key,
    Blank,
    Comment
};

Kind Classify(const Text& s)
{
    const size_t nEqual = s.find(u'=');
    if (nEqual != Text::npos && nEqual > 0 && s[0] != u';')
        return Kind::Key;
    if (!s.empty() && s[0] == u'[' && s.back() == u']')
        return Kind::Section;
    if ((!s.empty() && s[0] == u';') || (s.size() >= 2 && s[0] == u'=' && s[1] == u';'))
        return Kind::Comment;
    return s.empty() || s == u"=" ? Kind::Blank : Kind::Other;
}

// What a loader must find: each section's name once per occurrence, and of
// the first occurrence of each section the first value of each key.
struct Model
{
    bool bUnicode = false;
    std::vector<Text> vecSections;
    std::map<Text, std::pair<Text, std::map<Text, std::pair<Text, Text>>>> mapFirst;  // lower name -> name, keys
};

std::vector<Text> Lines(const std::string& sBytes, bool bUnicode)
{
    Text sText;
    if (bUnicode)
        for (size_t i = 2; i + 1 < sBytes.size(); i += 2)
            sText += (char16_t)((uint8_t)sBytes[i] | (uint8_t)sBytes[i + 1] << 8);
    else
        for (char ch : sBytes)
            sText += (char16_t)(uint8_t)ch;  // widened line by line below
    while (!sText.empty() && (sText.back() == u'\r' || sText.back() == u'\n' || sText.back() == 0))
        sText.pop_back();
    std::vector<Text> vecLines;
    for (size_t nStart = 0;;)
    {
        const size_t nEnd = sText.find(u"\r\n", nStart);
        vecLines.push_back(sText.substr(nStart, nEnd == Text::npos ? Text::npos : nEnd - nStart));
        if (nEnd == Text::npos)
            break;
        nStart = nEnd + 2;
    }
    if (!bUnicode)
        for (Text& sLine : vecLines)
        {
            // The code page stops at a zero byte.
            const std::string sAnsi(sLine.begin(), std::find(sLine.begin(), sLine.end(), u'\0'));
            const QB_StringW sWide = QB_AnsiToWide(sAnsi.data(), (int)sAnsi.size());
            sLine.assign(sWide.GetString(), (size_t)sWide.GetLength());
        }
    return vecLines;
}

Model Load(const std::string& sBytes)
{
    Model model;
    if (sBytes.size() < 2)
        return model;
    model.bUnicode = (uint8_t)sBytes[0] == 0xFF && (uint8_t)sBytes[1] == 0xFE;
    std::map<Text, std::pair<Text, std::map<Text, std::pair<Text, Text>>>>::iterator itSection = model.mapFirst.end();
    bool bInFirst = false;
    for (const Text& sLine : Lines(sBytes, model.bUnicode))
    {
        const Kind kind = Classify(sLine);
        if (kind == Kind::Section)
        {
            model.vecSections.push_back(sLine);
            auto [it, bNew] = model.mapFirst.try_emplace(Lower(sLine));
            if (bNew)
                it->second.first = sLine;
            itSection = it;
            bInFirst = bNew;
        }
        else if (kind == Kind::Key && itSection != model.mapFirst.end() && bInFirst)
        {
            const size_t nEqual = sLine.find(u'=');
            const Text sKey = sLine.substr(0, nEqual);
            itSection->second.second.try_emplace(Lower(sKey), sKey, sLine.substr(nEqual + 1));
        }
    }
    return model;
}

std::vector<Text> SectionNames(const QB_IniFileEx& ini)
{
    QB_Array<QB_StringW> arrNames;
    ini.GetSectionNames(arrNames);
    std::vector<Text> vecNames;
    for (int i = 0; i < arrNames.GetSize(); ++i)
        vecNames.emplace_back(arrNames[i].View());
    std::sort(vecNames.begin(), vecNames.end());
    return vecNames;
}

std::string Show(const Text& s)
{
    return QB_StringA(QB_StringW(s.data(), (int)s.size())).GetString();
}

QB_StringW W(const Text& s)
{
    return QB_StringW(s.data(), (int)s.size());
}

void CheckAgainstModel(const QB_IniFileEx& ini, const Model& model)
{
    FUZZ_CHECK(ini.IsUnicode() == model.bUnicode, "the file's form");
    std::vector<Text> vecExpected = model.vecSections;
    std::sort(vecExpected.begin(), vecExpected.end());
    FUZZ_CHECK(SectionNames(ini) == vecExpected, "%zu sections found, %zu expected", SectionNames(ini).size(),
               vecExpected.size());
    for (const auto& [sLower, section] : model.mapFirst)
        for (const auto& [sKeyLower, key] : section.second)
        {
            const QB_StringW sValue = ini.GetString(W(section.first), W(key.first), QB_StringW(u"\x1Fnone"));
            FUZZ_CHECK(Text(sValue.View()) == key.second, "[%s] %s reads \"%s\", not \"%s\"", Show(section.first).c_str(),
                       Show(key.first).c_str(), Show(Text(sValue.View())).c_str(), Show(key.second).c_str());
        }
}

// Text that the code page holds and that keeps to one line.
Text Word(ZV_FuzzReader& in)
{
    static const char16_t kChars[] = u"aAbB=;[] \xE9\xC9";
    Text s;
    for (size_t n = in.Range(0, 6); n > 0; --n)
        s += kChars[in.Range<size_t>(0, sizeof kChars / sizeof kChars[0] - 2)];
    return s;
}

std::string ReadFile(const std::string& sPath)
{
    std::ifstream file(sPath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// The last line's text, in front of the line end that Flush puts behind it,
// ends in CR, LF or a zero.
bool EndsInLineEnd(const std::string& sBytes, bool bUnicode)
{
    const size_t nUnit = bUnicode ? 2 : 1;
    if (sBytes.size() < 3 * nUnit + (bUnicode ? 2 : 0))
        return false;
    const size_t nAt = sBytes.size() - 3 * nUnit;
    const char16_t ch = bUnicode ? (char16_t)((uint8_t)sBytes[nAt] | (uint8_t)sBytes[nAt + 1] << 8) : (uint8_t)sBytes[nAt];
    return ch == u'\r' || ch == u'\n' || ch == 0;
}

void CheckSame(const QB_IniFileEx& a, const QB_IniFileEx& b, const std::vector<std::pair<Text, Text>>& vecKeys)
{
    FUZZ_CHECK(a.IsUnicode() == b.IsUnicode(), "the file changed its form");
    FUZZ_CHECK(SectionNames(a) == SectionNames(b), "the written file has other sections");
    for (const auto& [sSection, sKey] : vecKeys)
        FUZZ_CHECK(a.GetString(W(sSection), W(sKey), QB_StringW(u"\x1F")) ==
                       b.GetString(W(sSection), W(sKey), QB_StringW(u"\x1F")),
                   "[%s] %s reads otherwise from the written file", Show(sSection).c_str(), Show(sKey).c_str());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    // A few bytes that choose the changes, then the file.
    ZV_FuzzReader input(pData, nSize);
    const std::vector<uint8_t> vbScript = input.Bytes(input.Range<size_t>(0, 32));
    const std::string sFile = input.Rest();
    ZV_FuzzReader in(vbScript.data(), vbScript.size());
    std::ofstream(IniPath(), std::ios::binary | std::ios::trunc).write(sFile.data(), (std::streamsize)sFile.size());

    const Model model = Load(sFile);
    QB_IniFileEx ini;
    FUZZ_CHECK(ini.Open(QB_StringA(IniPath().c_str()), false), "the file did not open");
    CheckAgainstModel(ini, model);

    std::vector<std::pair<Text, Text>> vecKeys;
    for (const auto& [sLower, section] : model.mapFirst)
        for (const auto& [sKeyLower, key] : section.second)
            vecKeys.emplace_back(section.first, key.first);
    while (in.Left() > 0)
    {
        const Text sSection = in.Bool() || model.vecSections.empty()
                                  ? u"[" + Word(in) + u"]"
                                  : model.vecSections[in.Range<size_t>(0, model.vecSections.size() - 1)];
        if (in.Range(0, 3) == 0)
        {
            const std::vector<Text> vecNow = SectionNames(ini);
            const bool bAny = std::any_of(vecNow.begin(), vecNow.end(),
                                          [&](const Text& s) { return Lower(s) == Lower(sSection); });
            const bool bDeleted = ini.DeleteSection(W(sSection));
            FUZZ_CHECK(bDeleted == (bAny && sSection.find(u'=') == Text::npos), "DeleteSection of %s gave %d",
                       Show(sSection).c_str(), bDeleted);
            const std::vector<Text> vecAfter = SectionNames(ini);
            FUZZ_CHECK(!bDeleted || std::none_of(vecAfter.begin(), vecAfter.end(),
                                                 [&](const Text& s) { return Lower(s) == Lower(sSection); }),
                       "a section %s stayed", Show(sSection).c_str());
            continue;
        }
        const Text sKey = Word(in), sValue = Word(in);
        const bool bValid = sSection.find(u'=') == Text::npos && sKey.find(u'=') == Text::npos;
        FUZZ_CHECK(ini.SetString(W(sSection), W(sKey), W(sValue)) == bValid, "SetString [%s] %s", Show(sSection).c_str(),
                   Show(sKey).c_str());
        if (bValid && !sKey.empty() && Classify(sKey + u"=" + sValue) == Kind::Key)
        {
            FUZZ_CHECK(Text(ini.GetString(W(sSection), W(sKey), QB_StringW(u"\x1F")).View()) == sValue,
                       "[%s] %s does not read what was set", Show(sSection).c_str(), Show(sKey).c_str());
            vecKeys.emplace_back(sSection, sKey);
        }
    }

    // What was in memory is what the file now holds; but a load drops line
    // ends and zeros at the end of the text, so a last line that ends in
    // one comes back shorter once, and only the second round must agree.
    FUZZ_CHECK(ini.Flush(), "the file was not written");
    QB_IniFileEx back, again;
    FUZZ_CHECK(back.Open(QB_StringA(IniPath().c_str()), false), "the written file did not open");
    if (!EndsInLineEnd(ReadFile(IniPath()), ini.IsUnicode()))
        CheckSame(ini, back, vecKeys);
    FUZZ_CHECK(back.Flush() && again.Open(QB_StringA(IniPath().c_str()), false), "the file was not written again");
    CheckSame(back, again, vecKeys);
    return 0;
}
