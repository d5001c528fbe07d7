// The demo's dealings with local files: what it may share, sample files,
// where downloads land, and the byte-for-byte check. Memory stays the size
// of one chunk whatever the files' sizes; the long loops stop at Ctrl-C.
#pragma once

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace zv_demo {

namespace fs = std::filesystem;

// A file named on the command line, as this system names it and as the
// module takes it: a Windows path in UTF-16.
struct LocalFile
{
    fs::path path;           // absolute
    std::u16string sWide;    // Windows form, UTF-16; empty when the path is not UTF-8
    std::string sWindows;    // Windows form, UTF-8, as the module's records give it back
};

LocalFile MakeLocalFile(const fs::path& path);

// The absolute form of a name given on the command line, taken from the
// folder the demo runs in; sProblem says in a few words why it cannot be
// shared ("no such file", "not a file") and stays empty when it can be read.
LocalFile ResolveArgument(const std::string& sArg, std::string& sProblem);

// "" when the file can be shared; else why not, in words. bAlone: it goes by
// FsAdd, whose record keeps the folder in the catalogue's code page too. The
// module refuses such a file itself (result 60); asking first gives the
// reason.
std::string WhyNotShareable(const LocalFile& file, bool bAlone);

// A few files of different sizes, written a chunk at a time.
std::vector<fs::path> MakeSampleFiles(const fs::path& folder);

// `name` in `folder`, or name(1).ext, name(2).ext ... when that was already
// handed out, so that files of one name land side by side.
fs::path DistinctTarget(const fs::path& folder, const std::string& sName, std::set<fs::path>& setTaken);

// Compared a chunk at a time; false when either is missing.
bool SameBytes(const fs::path& a, const fs::path& b);

uintmax_t SizeOf(const fs::path& file);

// A text file as UTF-8 without carriage returns; one in UTF-16 (it starts
// with the byte order mark FF FE, as the catalogue does) is converted.
std::string ReadText(const fs::path& file);

std::string Thousands(uint64_t ull);

} // namespace zv_demo
