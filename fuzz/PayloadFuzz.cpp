// The payloads of one header of the module (FUZZ_PAYLOADS names it): the
// first byte picks a payload, the rest is loaded as one. A payload that
// loads is saved, and what was saved must load whole, to its last byte
// (but a refusal, whose record the reader leaves unread),
// and save to the same bytes again: a writer's form is a form the reader
// takes back unchanged.
//
// A payload of fixed-width fields only must also save to exactly the bytes
// it was loaded from. The others need not: a count may come in a longer
// form than the shortest a writer uses, a text may hold units the
// conversion replaces, and a record's mask may name fields it does not
// keep; for them the fixed point is the oracle.
#include "ZV_FuzzCheck.h"

#include "ZV_FuzzPayloads.h"

#include <cstring>
#include <string_view>
#include <vector>

namespace {

std::vector<const ZV_PayloadRow*> RowsOfHeader()
{
    std::vector<const ZV_PayloadRow*> vec;
    for (const ZV_PayloadRow& row : kPayloadRows)
        if (std::string_view(row.pszHeader) == FUZZ_PAYLOADS)
            vec.push_back(&row);
    return vec;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    static const std::vector<const ZV_PayloadRow*> vecRows = RowsOfHeader();
    if (nSize == 0 || vecRows.empty())
        return 0;
    const ZV_PayloadRow& row = *vecRows[pData[0] % vecRows.size()];
    row.fnRoundTrip(row.pszName, row.bExact, pData + 1, nSize - 1);
    return 0;
}
