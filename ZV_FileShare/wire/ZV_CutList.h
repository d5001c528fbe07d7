// ZV_CutList: the one cut of a long list into PDUs (or into events) of at
// most one buffer each, for every writer of a list or a batch.
#pragma once

#include "QB_ByteStream.h"

#include <cstdint>

// Cuts a list of nCount entries into pieces: a piece closes before the entry
// that would take the running size, which starts at ulHeadSize, above
// ulLimit. fnSize(i) is what entry i adds; fnFlush(nFrom, nTo, bLast) sends
// entries [nFrom, nTo). A piece holds at least one entry, and the last piece
// always goes, so an empty list is one piece.
template <typename FnSize, typename FnFlush>
void ZV_CutList(uint32_t ulHeadSize, int nCount, FnSize fnSize, FnFlush fnFlush,
                uint32_t ulLimit = (uint32_t)QB_PDU_BUFFER_SIZE)
{
    uint32_t ulRunning = ulHeadSize;
    int nFrom = 0;
    for (int i = 0; i < nCount; ++i)
    {
        const uint32_t ulSize = fnSize(i);
        if (ulRunning + ulSize > ulLimit && i > nFrom)
        {
            fnFlush(nFrom, i, false);
            nFrom = i;
            ulRunning = ulHeadSize;
        }
        ulRunning += ulSize;
    }
    fnFlush(nFrom, nCount, true);
}
