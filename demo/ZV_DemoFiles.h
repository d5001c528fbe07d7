// The demo's dealings with local files: what it may share, sample files,
// where downloads land, and the byte-for-byte check. Memory stays the size
// of one chunk whatever the files' sizes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace zv_demo {

namespace fs = std::filesystem;

// A file named on the command line, in both forms.
struct LocalFile
{
    fs::path path;          // absolute, as this system names it
    std::u16string sWide;   // the same in Windows form, as the module takes it
};

// "" when the file can be shared; else why not, in words. bAlone: it goes by
// FsAdd, whose record keeps the folder in the catalogue's code page too.
std::string WhyNotShareable(const LocalFile& file, bool bAlone);

// The absolute form of a name given on the command line, taken from the
// folder the demo runs in; sProblem says why it is not a file it can read,
// and stays empty when it is.
LocalFile ResolveArgument(const std::string& sArg, std::string& sProblem);

// A few files of different sizes, written a chunk at a time.
std::vector<fs::path> MakeSampleFiles(const fs::path& folder);

// `name` in `folder`, or name(1).ext, name(2).ext ... when that was already
// handed out, so that files of one name land side by side.
fs::path DistinctTarget(const fs::path& folder, const std::string& sName, std::set<fs::path>& setTaken);

// Compared a chunk at a time; false when either is missing.
bool SameBytes(const fs::path& a, const fs::path& b);

std::string Thousands(uint64_t ull);

} // namespace zv_demo
