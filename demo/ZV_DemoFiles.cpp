#include "ZV_DemoFiles.h"

#include "ZV_SharePath.h"

#include "QB_Env.h"
#include "QB_String.h"

#include <fstream>
#include <random>

namespace zv_demo {

namespace {

constexpr size_t kChunk = 64 * 1024;

// Sizes travel in 32 bits.
constexpr uintmax_t kMaxShareSize = 0xFFFFFFFFu;

} // namespace

LocalFile ResolveArgument(const std::string& sArg, std::string& sProblem)
{
    std::error_code ec;
    LocalFile file;
    file.path = fs::absolute(sArg, ec).lexically_normal();
    if (ec || !fs::is_regular_file(file.path, ec))
        sProblem = "not a file";
    file.sWide = QB_PathFromSystem(file.path.string());
    return file;
}

std::string WhyNotShareable(const LocalFile& file, bool bAlone)
{
    const std::string sPath = file.path.string();
    if (sPath.find('\\') != std::string::npos)
        return "its path holds a \"\\\", which the system reads as a folder separator";
    if (QB_PathToSystem(file.sWide) != sPath)
        return "its path is not UTF-8 text, so it has no UTF-16 form";
    std::error_code ec;
    if (fs::file_size(file.path, ec) > kMaxShareSize)
        return "it holds 4 GiB or more, and sizes travel in 32 bits";
    const QB_StringW sWide(std::u16string_view(file.sWide));
    const QB_StringW sName = sWide.Mid(sWide.ReverseFind(u'\\') + 1);
    ZV_SharePathProblem problem = ZV_CheckBatchName(sName);
    if (problem == ZV_SharePathProblem::None)
        problem = ZV_CheckSharePath(sWide, bAlone);
    return problem == ZV_SharePathProblem::None ? "" : ZV_SharePathProblemText(problem);
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
        inA.read(vchA.data(), (std::streamsize)kChunk);
        inB.read(vchB.data(), (std::streamsize)kChunk);
        const std::streamsize nA = inA.gcount(), nB = inB.gcount();
        if (nA != nB || !std::equal(vchA.begin(), vchA.begin() + nA, vchB.begin()))
            return false;
        if (nA < (std::streamsize)kChunk)
            return true;
    }
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
