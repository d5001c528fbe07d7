#include "ZV_DemoEvents.h"

#include <cstring>

namespace zv_demo {

namespace {

// The field bits of the two records, as far as the demo reads them.
enum : uint64_t
{
    kBriefCreator = 1u << 0,
    kBriefCreatorName = 1u << 1,
    kBriefFolder = 1u << 2,
    kBriefName = 1u << 3,
    kBriefExtension = 1u << 4,
    kBriefLength = 1u << 5,
};
enum : uint64_t
{
    kDownloadFileID = 1u << 0,
    kDownloadFolder = 1u << 1,
    kDownloadSharedName = 1u << 2,
    kDownloadTargetName = 1u << 3,
    kDownloadExtension = 1u << 4,
    kDownloadLength = 1u << 5,
    kDownloadSpent = 1u << 6,
    kDownloadTick = 1u << 7,
    kDownloadShareTime = 1u << 8,
    kDownloadDone = 1u << 9,
};

// A delimited record: a u32 that counts itself and the record, then the
// presence mask, one word whose low two bits give its width.
struct RecordFrame
{
    size_t nEnd = 0;
    uint64_t ullMask = 0;
};

RecordFrame OpenRecord(EventReader& reader)
{
    RecordFrame frame;
    const size_t nStart = reader.Position();
    frame.nEnd = nStart + reader.U32();
    if (frame.nEnd < nStart + 4)
        throw EventTooShort{};
    EventReader peek = reader;
    const size_t nWidth = (size_t)1 << (peek.U8() & 3);
    uint64_t ullWord = 0;
    for (size_t i = 0; i < nWidth; ++i)
        ullWord |= (uint64_t)reader.U8() << (8 * i);
    frame.ullMask = ullWord >> 2;
    return frame;
}

void CloseRecord(EventReader& reader, const RecordFrame& frame)
{
    if (reader.Position() > frame.nEnd)
        throw EventTooShort{};
    reader.Skip(frame.nEnd - reader.Position());
}

} // namespace

const uint8_t* EventReader::Take(size_t nBytes)
{
    if (nBytes > m_vbData.size() - m_nPos)
        throw EventTooShort{};
    const uint8_t* pb = m_vbData.data() + m_nPos;
    m_nPos += nBytes;
    return pb;
}

uint64_t EventReader::Number(size_t nBytes)
{
    const uint8_t* pb = Take(nBytes);
    uint64_t ull = 0;
    for (size_t i = 0; i < nBytes; ++i)
        ull |= (uint64_t)pb[i] << (8 * i);
    return ull;
}

double EventReader::F64()
{
    const uint64_t ull = Number(8);
    double d;
    std::memcpy(&d, &ull, sizeof(d));
    return d;
}

uint32_t EventReader::Count()
{
    const uint8_t bLead = U8();
    size_t nMore = 0;
    while (nMore < 4 && (bLead & (0x80 >> nMore)))
        ++nMore;
    uint64_t ullValue = bLead & (0xFF >> (nMore + 1));
    for (size_t i = 0; i < nMore; ++i)
        ullValue = ullValue << 8 | U8();
    return (uint32_t)ullValue;
}

std::string EventReader::Text()
{
    const uint32_t nBytes = Count();
    const uint8_t* pb = Take(nBytes);
    return std::string(reinterpret_cast<const char*>(pb), nBytes);
}

void EventReader::Skip(size_t nBytes)
{
    Take(nBytes);
}

SharedFileRecord ReadSharedFile(EventReader& reader)
{
    const RecordFrame frame = OpenRecord(reader);
    SharedFileRecord record;
    if (frame.ullMask & kBriefCreator)
        reader.Skip(8);
    if (frame.ullMask & kBriefCreatorName)
        record.sCreatorName = reader.Text();
    if (frame.ullMask & kBriefFolder)
        record.sFolder = reader.Text();
    if (frame.ullMask & kBriefName)
        record.sName = reader.Text();
    if (frame.ullMask & kBriefExtension)
        reader.Text();
    if (frame.ullMask & kBriefLength)
        record.ulLength = reader.U32();
    CloseRecord(reader, frame);
    return record;
}

DownloadRecord ReadDownload(EventReader& reader)
{
    const RecordFrame frame = OpenRecord(reader);
    DownloadRecord record;
    if (frame.ullMask & kDownloadFileID)
        reader.U16();
    for (uint64_t ullText : {kDownloadFolder, kDownloadSharedName, kDownloadTargetName, kDownloadExtension})
        if (frame.ullMask & ullText)
            reader.Text();
    if (frame.ullMask & kDownloadLength)
        record.ulLength = reader.U32();
    for (uint64_t ullWord : {kDownloadSpent, kDownloadTick})
        if (frame.ullMask & ullWord)
            reader.U32();
    if (frame.ullMask & kDownloadShareTime)
        reader.Skip(8);
    if (frame.ullMask & kDownloadDone)
        record.ulDownloaded = reader.U32();
    CloseRecord(reader, frame);
    return record;
}

} // namespace zv_demo
