// QB_Plex: the blocks that lists and maps carve their nodes from, and the
// position handle with which callers walk those containers.
//
// A container never allocates a node by itself: it takes a block of many
// nodes at once and keeps the spare ones on a free list. Blocks live until
// the container is emptied, then go back all together.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// The block header. The nodes follow it directly, so it is as aligned as
// anything an allocation can hold, and the first node is too.
struct alignas(std::max_align_t) QB_Plex
{
    QB_Plex* pNext;

    void* data() { return this + 1; }

    // One block for nMax elements of cbElement bytes, put in front of the
    // chain at pHead. Null when either number is zero.
    static QB_Plex* Create(QB_Plex*& pHead, size_t nMax, size_t cbElement);
    // Frees this block and every one behind it.
    void FreeDataChain();
};

static_assert(alignof(QB_Plex) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__,
              "blocks come from plain operator new");

// An opaque place in a list or a map: a node's address, or one of the two
// markers below. Callers only pass back what a container gave them.
using QB_POSITION = struct QB_PositionTag*;
// Where a map walk begins: before the first element.
inline QB_POSITION const QB_BEFORE_START_POSITION = reinterpret_cast<QB_POSITION>(~uintptr_t(0));

// The line a map prints when a lookup walks a chain beyond its reasonable
// length, further than any lookup of that map before. The lookup goes on.
void QB_WarnUnreasonableHashKey(const void* lpMap, uint32_t nHashTableSize, int nCount);
// Sends those lines to lpStream instead of standard output (null restores
// it) and gives the previous stream back. The module's trace stream takes
// them along with its own lines, so a host that names one gets both there.
std::FILE* QB_SetHashWarningStream(std::FILE* lpStream);
