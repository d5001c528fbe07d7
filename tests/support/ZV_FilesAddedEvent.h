// What one "files added" event (3013) tells the user side: the FileIDs, a
// record for each, and how far each file stands. Reading it checks that
// the three lists agree in length and that nothing follows them.
#pragma once

#include "records/ZV_FileBriefInfo.h"
#include "wire/ZV_RecordStream.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

struct ZV_FilesAddedEvent
{
    std::vector<uint16_t> vecFileID;
    QB_Array<ZV_FileBriefInfo> arrInfo;
    std::vector<double> vecRate;
};

// The bytes as the sink gets them, event number and result first.
inline ZV_FilesAddedEvent ZV_ReadFilesAdded(const std::vector<uint8_t>& data)
{
    ZV_FilesAddedEvent told;
    QB_ByteStream stream(data.data(), (int32_t)data.size());
    stream.Skip(6);
    QB_Array<uint16_t> arrFileID;
    LoadU16Array(stream, arrFileID);
    told.vecFileID.assign(arrFileID.GetData(), arrFileID.GetData() + arrFileID.GetSize());
    LoadSequence(stream, told.arrInfo);
    told.vecRate.resize(stream.ReadCount());
    for (double& dRate : told.vecRate)
        dRate = stream.ReadDouble();
    EXPECT_EQ(told.vecFileID.size(), (size_t)told.arrInfo.GetSize());
    EXPECT_EQ(told.vecFileID.size(), told.vecRate.size());
    EXPECT_EQ(stream.GetPos(), (int32_t)data.size()) << "bytes behind the rates";
    return told;
}
