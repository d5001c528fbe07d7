#include "QB_Plex.h"

#include <cassert>
#include <cinttypes>
#include <cstdio>
#include <new>

QB_Plex* QB_Plex::Create(QB_Plex*& pHead, size_t nMax, size_t cbElement)
{
    assert(nMax > 0 && cbElement > 0 && "nMax > 0 && cbElement > 0");
    if (nMax == 0 || cbElement == 0)
        return nullptr;
    if (nMax > (SIZE_MAX - sizeof(QB_Plex)) / cbElement)
        throw std::bad_alloc();
    void* pMemory = ::operator new(sizeof(QB_Plex) + nMax * cbElement);
    QB_Plex* pBlock = ::new (pMemory) QB_Plex;
    pBlock->pNext = pHead;
    pHead = pBlock;
    return pBlock;
}

void QB_Plex::FreeDataChain()
{
    QB_Plex* pBlock = this;
    while (pBlock)
    {
        QB_Plex* pNextBlock = pBlock->pNext;
        ::operator delete(pBlock);
        pBlock = pNextBlock;
    }
}

namespace {

std::FILE* s_lpWarningStream = nullptr;

}  // namespace

void QB_WarnUnreasonableHashKey(const void* lpMap, uint32_t nHashTableSize, int nCount)
{
    // The line was born on a platform whose %p gave bare hex digits, padded
    // to the pointer's width, behind the "0x" of the text. Printing them the
    // same way keeps the line as operators know it, without a doubled prefix.
    std::fprintf(s_lpWarningStream ? s_lpWarningStream : stdout,
                 "warning: unreasonable hash key! addr = 0x%0*" PRIXPTR " hash table = %d count = %d\r\n",
                 (int)(2 * sizeof(void*)), (uintptr_t)lpMap, (int)nHashTableSize, nCount);
}

std::FILE* QB_SetHashWarningStream(std::FILE* lpStream)
{
    std::FILE* lpPrevious = s_lpWarningStream;
    s_lpWarningStream = lpStream;
    return lpPrevious;
}
