// The payloads of a file's control, byte for byte: deletes (8008, 8009),
// download entries and one file's rights (8010, 8037, 8003), and the
// rights the manager handles itself (8004, 8040, 8041). Every prefix of a
// payload must fail to load, and nothing is written past the buffer.
#include "delete/ZV_DeletePdu.h"
#include "rights/ZV_EntryPdu.h"
#include "rights/ZV_RightsPdu.h"

#include "ZV_PayloadCheck.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

const QB_UserID kAnn(0x11223344, 0x55);
const QB_UserID kBen(0x01, 0x02);

// Ann and Ben as they stand on the wire.
const Bytes kAnnBytes = {0x44, 0x33, 0x22, 0x11, 0x55, 0x00, 0x00, 0x00};
const Bytes kBenBytes = {0x01, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00};

Bytes Join(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

QB_Array<QB_UserID> Users(std::initializer_list<QB_UserID> users)
{
    QB_Array<QB_UserID> arr;
    for (const QB_UserID& user : users)
        arr.Add(user);
    return arr;
}

} // namespace

TEST(DeletePdu, RequestAndAnswerSaveToTheirTableBytesAndEveryShorterPayloadFails)
{
    ZV_DelUploadRequest ask;
    ask.usFileID = 0x0102;
    ask.user = kAnn;
    ask.ulFloodSeq = 0x0A0B0C0D;
    ZV_ExpectPayload(ask, Join({{0x02, 0x01}, kAnnBytes, {0x0D, 0x0C, 0x0B, 0x0A}}));

    ZV_DelUploadResponse answer;
    answer.head = ZV_AnswerHead{0x0102, 40, 0x0102, kAnn};
    answer.ulFloodSeq = 7;
    ZV_ExpectPayload(answer,
                     Join({{0x02, 0x01, 40, 0, 0, 0, 0x02, 0x01}, kAnnBytes, {0x07, 0x00, 0x00, 0x00}}));
}

TEST(EntryPdu, EntryAndOneFilesRightsSaveToTheirTableBytesAndEveryShorterPayloadFails)
{
    ZV_EntryRequest entry;
    entry.usFileID = 0x0203;
    entry.user = kBen;
    entry.ulFloodSeq = 0x100;
    ZV_ExpectPayload(entry, Join({{0x03, 0x02}, kBenBytes, {0x00, 0x01, 0x00, 0x00}}));

    ZV_SetRightRequest rights;
    rights.head = entry;
    rights.bPublic = 0;
    rights.arrAdd = Users({kAnn, kBen});
    rights.arrRemove = Users({kBen});
    ZV_ExpectPayload(rights, Join({{0x03, 0x02}, kBenBytes, {0x00, 0x01, 0x00, 0x00}, {0x00, 0x02}, kAnnBytes,
                                   kBenBytes, {0x01}, kBenBytes}));
}

TEST(RightsPdu, DescriptionAnswerAndBatchSaveToTheirTableBytesAndEveryShorterPayloadFails)
{
    const struct
    {
        const char* szName;
        uint32_t ulResult;
        Bytes tail;
    } aAnswers[] = {
        // A success carries the empty description, delimited, and the position.
        {"success", 0, {0x06, 0x00, 0x00, 0x00, 0x01, 0x00, 0x10, 0x27, 0x00, 0x00}},
        {"refusal ends behind the user", 40, {}},
    };
    for (const auto& c : aAnswers)
    {
        SCOPED_TRACE(c.szName);
        ZV_SetRightResponse answer;
        answer.ulResult = c.ulResult;
        answer.usFileID = 0x0005;
        answer.user = kAnn;
        answer.ulMaxPos = 10000;
        ZV_ExpectPayload(answer, Join({{(uint8_t)c.ulResult, 0, 0, 0, 0x05, 0x00}, kAnnBytes, c.tail}));
    }

    ZV_SetFilesRightRequest batch;
    batch.arrFileID.Add(5);
    batch.arrFileID.Add(0x0102);
    batch.user = kAnn;
    batch.ulFloodSeq = 9;
    batch.bPublic = 1;
    batch.arrAdd = Users({kBen});
    ZV_ExpectPayload(batch, Join({{0x02, 0x05, 0x00, 0x02, 0x01}, kAnnBytes, {0x09, 0x00, 0x00, 0x00, 0x01, 0x01},
                                  kBenBytes, {0x00}}));

    ZV_SetFilesRightRefusal refusal;
    refusal.arrFileID.Add(5);
    refusal.ulResult = 82;
    refusal.user = kAnn;
    refusal.ulFloodSeq = 9;
    ZV_ExpectPayload(refusal, Join({{0x01, 0x05, 0x00, 82, 0, 0, 0, 0x01, 0x05, 0x00}, kAnnBytes,
                                    {0x09, 0x00, 0x00, 0x00}}));
}
