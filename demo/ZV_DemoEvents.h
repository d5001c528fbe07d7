// The demo's reading of the module's events, from the byte layouts of the
// host guide alone: little-endian numbers, the count form, strings, and the
// delimited records of a shared file and of a download.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zv_demo {

// An event that ends before its fields do.
struct EventTooShort
{
};

class EventReader
{
public:
    explicit EventReader(const std::vector<uint8_t>& vbData) : m_vbData(vbData) {}

    uint8_t U8() { return (uint8_t)Number(1); }
    uint16_t U16() { return (uint16_t)Number(2); }
    uint32_t U32() { return (uint32_t)Number(4); }
    double F64();
    // One to five bytes: the lead byte's high bits give the size.
    uint32_t Count();
    // A count of bytes, then that many bytes of UTF-8.
    std::string Text();
    void Skip(size_t nBytes);
    size_t Position() const { return m_nPos; }

private:
    uint64_t Number(size_t nBytes);
    const uint8_t* Take(size_t nBytes);

    const std::vector<uint8_t>& m_vbData;
    size_t m_nPos = 0;
};

// What the demo shows of a shared file.
struct SharedFileRecord
{
    std::string sCreatorName;
    std::string sFolder;  // on the sharer's machine, Windows form, with its backslash
    std::string sName;
    uint32_t ulLength = 0;
};

// How far a download stands.
struct DownloadRecord
{
    uint32_t ulLength = 0;
    uint32_t ulDownloaded = 0;
};

// Each reads one delimited record and leaves the reader behind its end,
// whatever fields it held.
SharedFileRecord ReadSharedFile(EventReader& reader);
DownloadRecord ReadDownload(EventReader& reader);

} // namespace zv_demo
