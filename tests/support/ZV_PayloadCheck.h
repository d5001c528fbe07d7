// One check for a payload codec: the value saves to exactly the expected bytes
// (a canary behind the buffer untouched), those load back to a value that
// saves the same, and every shorter prefix fails with the stream's failure.
#pragma once

#include "QB_Array.h"
#include "QB_ByteStream.h"
#include "QB_TestSupport.h"
#include "QB_UserID.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

// Bytes from pairs of hex digits; spaces between pairs are skipped.
inline std::vector<uint8_t> ZV_FromHex(const std::string& sHex)
{
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i + 1 < sHex.size(); ++i)
        if (sHex[i] != ' ')
            bytes.push_back((uint8_t)std::stoi(sHex.substr(i++, 2), nullptr, 16));
    return bytes;
}

// A payload's list of users, as the codecs hold it.
inline QB_Array<QB_UserID> ZV_Users(std::initializer_list<QB_UserID> users)
{
    QB_Array<QB_UserID> arr;
    for (const QB_UserID& user : users)
        arr.Add(user);
    return arr;
}

template <typename T>
std::vector<uint8_t> ZV_SavePayload(const T& value)
{
    std::vector<uint8_t> vbBuf(QB_PDU_BUFFER_SIZE + 1, 0xA5);
    QB_ByteStream stream(vbBuf.data(), QB_PDU_BUFFER_SIZE, false);
    value.Save(stream);
    EXPECT_EQ(vbBuf[QB_PDU_BUFFER_SIZE], 0xA5) << "wrote past its buffer";
    vbBuf.resize((size_t)stream.GetPos());
    return vbBuf;
}

template <typename T>
void ZV_ExpectPayload(const T& value, const std::vector<uint8_t>& vbExpected)
{
    const std::vector<uint8_t> vbSaved = ZV_SavePayload(value);
    EXPECT_EQ(QB_ToHex(vbSaved), QB_ToHex(vbExpected));

    T loaded;
    QB_ByteStream whole(vbExpected.data(), (int32_t)vbExpected.size());
    EXPECT_NO_THROW(loaded.Load(whole));
    EXPECT_EQ(QB_ToHex(ZV_SavePayload(loaded)), QB_ToHex(vbExpected)) << "load lost a field";

    for (size_t n = 0; n < vbExpected.size(); ++n)
    {
        std::vector<uint8_t> vbPrefix(vbExpected.begin(), vbExpected.begin() + (long)n);
        QB_ByteStream cut(vbPrefix.data(), (int32_t)vbPrefix.size());
        T partial;
        EXPECT_THROW(partial.Load(cut), QB_StreamException) << "a prefix of " << n << " bytes loaded";
    }
}
