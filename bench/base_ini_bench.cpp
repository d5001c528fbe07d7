// Loading and rewriting an ini file of the catalogue's shape: one section
// per stored file, named by a GUID, with the thirteen keys a save leaves.
//
// The section table is sized to the file here. With the catalogue's own 17
// buckets a file of thousands of sections makes chains of hundreds, and the
// map prints its long-chain warning on nearly every lookup; that cost is
// the map's and the table size's, not the loader's.
#include "QB_FileEx.h"
#include "QB_IniFileEx.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>
#include <random>
#include <string>

namespace {

const char* const kKeys[] = {"FileValidity", "FileState",   "FilePath",     "FileLenth",   "FileType",
                             "ModifyTime",   "ShareTime",   "CreatorID",    "FileOldName", "FileWritePos",
                             "FileNewName",  "FileID",      "ConfID"};

std::string Guid(std::mt19937& rng)
{
    char szGuid[40];
    std::snprintf(szGuid, sizeof szGuid, "{%08X-%04X-%04X-%04X-%04X%08X}", (unsigned)rng(), (unsigned)rng() & 0xFFFF,
                  (unsigned)rng() & 0xFFFF, (unsigned)rng() & 0xFFFF, (unsigned)rng() & 0xFFFF, (unsigned)rng());
    return szGuid;
}

std::string Value(const char* pszKey, int nFile)
{
    std::string sKey = pszKey;
    if (sKey == "FileNewName" || sKey == "FileOldName")
        return "quarterly report " + std::to_string(nFile) + ".pdf";
    if (sKey == "FilePath")
        return "C:\\Users\\someone\\Documents\\quarterly report " + std::to_string(nFile) + ".pdf";
    if (sKey == "ShareTime" || sKey == "ModifyTime")
        return "2024-03-18 14:05:33";
    if (sKey == "CreatorID")
        return "1027:0";
    if (sKey == "FileType")
        return "pdf";
    return std::to_string(nFile % 4000 + 1);
}

// The text of a UTF-16 catalogue as the server writes it: an empty first
// line, then each section with its keys in the order that saving leaves.
std::string CatalogueBytes(int nSections)
{
    std::mt19937 rng(7);
    std::string sText = "\r\n";
    for (int i = 0; i < nSections; ++i)
    {
        sText += "[" + Guid(rng) + "]\r\n";
        for (const char* pszKey : kKeys)
            sText += std::string(pszKey) + "=" + Value(pszKey, i) + "\r\n";
    }
    std::string sBytes = "\xFF\xFE";
    for (char ch : sText)
    {
        sBytes += ch;
        sBytes += '\0';
    }
    return sBytes;
}

// A catalogue file of its own, removed when the benchmark ends.
class CatalogueFile
{
public:
    explicit CatalogueFile(int nSections)
    {
        std::random_device rd;
        m_path = std::filesystem::temp_directory_path() / ("roomcrate-ini-bench-" + std::to_string(rd()) + ".ini");
        std::string sBytes = CatalogueBytes(nSections);
        std::FILE* pFile = std::fopen(m_path.string().c_str(), "wb");
        if (pFile)
        {
            std::fwrite(sBytes.data(), 1, sBytes.size(), pFile);
            std::fclose(pFile);
        }
    }
    ~CatalogueFile() { std::filesystem::remove(m_path); }
    QB_StringA Path() const { return QB_StringA(m_path.string().c_str()); }
    uintmax_t Size() const { return std::filesystem::file_size(m_path); }

private:
    std::filesystem::path m_path;
};

uint32_t SectionTableSize(int nSections)
{
    return nSections <= 1000 ? 1031 : 10007;
}

void BM_IniOpen(benchmark::State& state)
{
    int nSections = (int)state.range(0);
    CatalogueFile file(nSections);
    for (auto _ : state)
    {
        QB_IniFileEx ini(SectionTableSize(nSections), 17);
        if (!ini.Open(file.Path(), false))
            state.SkipWithError("the catalogue could not be opened");
    }
    state.SetItemsProcessed(state.iterations() * nSections);
}

void BM_IniFlush(benchmark::State& state)
{
    int nSections = (int)state.range(0);
    CatalogueFile file(nSections);
    QB_IniFileEx ini(SectionTableSize(nSections), 17);
    if (!ini.Open(file.Path(), false))
        state.SkipWithError("the catalogue could not be opened");
    for (auto _ : state)
    {
        if (!ini.Flush())
            state.SkipWithError("the catalogue could not be written");
    }
    state.SetItemsProcessed(state.iterations() * nSections);
    // The size on disk shows that every section really went out.
    state.SetBytesProcessed(state.iterations() * (int64_t)file.Size());
}

// The same bytes written into the file in place, with no sync and no
// rename: what a flush cost before it kept the old file whole, its floor.
void BM_IniWriteInPlace(benchmark::State& state)
{
    CatalogueFile file((int)state.range(0));
    const std::vector<uint8_t> vbBytes(std::istreambuf_iterator<char>(*std::make_unique<std::ifstream>(
                                           file.Path().GetString(), std::ios::binary)),
                                       {});
    for (auto _ : state)
    {
        QB_FileEx out;
        if (!out.Open(QB_StringW(file.Path()), QB_FILE_WRITE | QB_FILE_CREATE_ALWAYS) ||
            out.Write(vbBytes.data(), (int32_t)vbBytes.size()) != (int32_t)vbBytes.size())
            state.SkipWithError("the catalogue could not be written");
        out.Close();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(state.iterations() * (int64_t)vbBytes.size());
}

}  // namespace

BENCHMARK(BM_IniWriteInPlace)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IniOpen)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IniFlush)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
