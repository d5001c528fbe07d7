// QB_Map: a chained hash map whose table never grows.
//
// The order of a walk reaches the wire, so it is part of the contract:
// buckets from 0 upwards, and within a bucket from the newest insertion to
// the oldest. It depends on the table size, the hasher and the history of
// insertions, never on the order of the keys.
//
// The table is allocated by the first insertion and freed, together with
// every node block, when the last element goes; its size stays.
#pragma once

#include "QB_Plex.h"

#include <cassert>
#include <cstdint>
#include <new>
#include <utility>

// Hashers are functors giving a 32-bit value; the map takes it modulo its
// table size.
template <class K>
struct QB_Hash
{
    uint32_t operator()(const K& k) const { return (uint32_t)k; }
};

// FileIDs of finished downloads come in runs of neighbours, which this
// hasher gathers into one bucket per sixteen.
struct QB_HashShift4
{
    uint32_t operator()(uint16_t k) const { return k >> 4; }
};

template <class K, class V, class H = QB_Hash<K>>
class QB_Map
{
public:
    explicit QB_Map(uint32_t nTableSize = 17, int nBlockSize = 10)
        : m_nHashTableSize(nTableSize > 0 ? nTableSize : 17), m_nBlockSize(nBlockSize > 0 ? nBlockSize : 10)
    {
    }
    ~QB_Map() { RemoveAll(); }
    QB_Map(const QB_Map& other)
        : m_nHashTableSize(other.m_nHashTableSize), m_nBlockSize(other.m_nBlockSize), m_hasher(other.m_hasher)
    {
        CopyChains(other);
    }
    QB_Map& operator=(const QB_Map& other)
    {
        if (this != &other)
        {
            RemoveAll();
            m_nHashTableSize = other.m_nHashTableSize;
            m_nBlockSize = other.m_nBlockSize;
            m_hasher = other.m_hasher;
            CopyChains(other);
        }
        return *this;
    }

    // Sets the table size for the next allocation, and allocates the table
    // now if asked. Refused (nothing changes) while the map holds elements,
    // whose buckets would no longer match, and for a size of zero.
    void InitHashTable(uint32_t nHashSize, bool bAllocNow = true)
    {
        if (m_nCount != 0 || nHashSize == 0)
            return;
        FreeTable();
        m_nHashTableSize = nHashSize;
        if (bAllocNow)
            AllocTable();
    }
    uint32_t GetHashTableSize() const { return m_nHashTableSize; }
    int GetCount() const { return m_nCount; }
    bool IsEmpty() const { return m_nCount == 0; }
    bool IsTableAllocated() const { return m_pHashTable != nullptr; }

    bool Lookup(const K& key, V& rValue) const
    {
        const V* pValue = Find(key);
        if (pValue)
            rValue = *pValue;
        return pValue != nullptr;
    }
    V* Find(const K& key)
    {
        Node* pNode = FindNode(key, BucketOf(key));
        return pNode ? &pNode->value : nullptr;
    }
    const V* Find(const K& key) const
    {
        const Node* pNode = FindNode(key, BucketOf(key));
        return pNode ? &pNode->value : nullptr;
    }

    V& FindOrAdd(const K& key)
    {
        uint32_t nBucket = BucketOf(key);
        Node* pNode = FindNode(key, nBucket);
        if (!pNode)
            pNode = AddNode(key, nBucket);
        return pNode->value;
    }
    V& operator[](const K& key) { return FindOrAdd(key); }
    // Adds the key without looking for it first, for an owner that keeps
    // its own index and knows the key is absent; the walk order is that of
    // FindOrAdd.
    V& AddNew(const K& key) { return AddNode(key, BucketOf(key))->value; }
    void SetAt(const K& key, const V& value) { FindOrAdd(key) = value; }

    bool RemoveKey(const K& key)
    {
        if (!m_pHashTable)
            return false;
        for (Node** ppNode = &m_pHashTable[BucketOf(key)]; *ppNode; ppNode = &(*ppNode)->pNext)
        {
            if ((*ppNode)->key == key)
            {
                Node* pNode = *ppNode;
                *ppNode = pNode->pNext;
                FreeNode(pNode);
                return true;
            }
        }
        return false;
    }
    void RemoveAll()
    {
        DestroyAllElements();
        FreeTable();
        m_nCount = 0;
        m_pFreeList = nullptr;
        if (m_pBlocks)
            m_pBlocks->FreeDataChain();
        m_pBlocks = nullptr;
    }

    QB_POSITION GetStartPosition() const { return m_nCount == 0 ? nullptr : QB_BEFORE_START_POSITION; }
    // Gives the element at rPos and moves rPos on; null after the last one.
    void GetNextAssoc(QB_POSITION& rPos, K& rKey, V& rValue) const
    {
        Node* pNode = Step(rPos);
        if (pNode)
        {
            rKey = pNode->key;
            rValue = pNode->value;
        }
    }
    V* GetNextAssoc(QB_POSITION& rPos, K& rKey)
    {
        Node* pNode = Step(rPos);
        if (!pNode)
            return nullptr;
        rKey = pNode->key;
        return &pNode->value;
    }

private:
    // Key and value live in unions so that a node on the free list is raw
    // room: they are built when the node is handed out and destroyed when it
    // goes back.
    struct Node
    {
        Node* pNext;
        uint32_t nBucket;  // lets a walk find the next bucket from any node
        union
        {
            K key;
        };
        union
        {
            V value;
        };
        Node() {}
        ~Node() {}
    };
    static_assert(alignof(Node) <= alignof(QB_Plex), "nodes sit right behind a block header");

    // A chain this long means a bad hasher or a table far too small.
    static constexpr int kReasonableSteps = 30;
    // The longest walk this map has warned about. A lookup warns once, and
    // only when it walks further than any before it: the line still marks
    // the map and how full it is, and grows no faster than its worst chain,
    // where a line for every step of every lookup would flood the output.
    mutable int m_nWarnedSteps = kReasonableSteps;

    Node** m_pHashTable = nullptr;
    uint32_t m_nHashTableSize;
    int m_nCount = 0;
    Node* m_pFreeList = nullptr;
    QB_Plex* m_pBlocks = nullptr;
    int m_nBlockSize;
    H m_hasher;

    uint32_t BucketOf(const K& key) const { return m_hasher(key) % m_nHashTableSize; }

    Node* FindNode(const K& key, uint32_t nBucket) const
    {
        if (!m_pHashTable)
            return nullptr;
        int nSteps = 0;
        Node* pNode = m_pHashTable[nBucket];
        for (; pNode; pNode = pNode->pNext)
        {
            ++nSteps;
            if (pNode->key == key)
                break;
        }
        if (nSteps > m_nWarnedSteps)
        {
            m_nWarnedSteps = nSteps;
            QB_WarnUnreasonableHashKey(this, m_nHashTableSize, m_nCount);
        }
        return pNode;
    }

    Node* AddNode(const K& key, uint32_t nBucket)
    {
        if (!m_pHashTable)
            AllocTable();
        Node* pNode = NewNode(key, nBucket);
        pNode->pNext = m_pHashTable[nBucket];
        m_pHashTable[nBucket] = pNode;
        return pNode;
    }

    Node* NewNode(const K& key, uint32_t nBucket)
    {
        if (!m_pFreeList)
            AddBlock();
        Node* pNode = m_pFreeList;
        ::new (static_cast<void*>(&pNode->key)) K(key);
        ::new (static_cast<void*>(&pNode->value)) V();
        m_pFreeList = pNode->pNext;
        pNode->nBucket = nBucket;
        ++m_nCount;
        return pNode;
    }

    // Links the new block's nodes so that the lowest address is handed out
    // first.
    void AddBlock()
    {
        QB_Plex* pBlock = QB_Plex::Create(m_pBlocks, (size_t)m_nBlockSize, sizeof(Node));
        Node* pFirst = static_cast<Node*>(pBlock->data());
        for (int i = m_nBlockSize - 1; i >= 0; --i)
        {
            Node* pNode = ::new (static_cast<void*>(pFirst + i)) Node;
            pNode->pNext = m_pFreeList;
            m_pFreeList = pNode;
        }
    }

    void FreeNode(Node* pNode)
    {
        pNode->key.K::~K();
        pNode->value.V::~V();
        pNode->pNext = m_pFreeList;
        m_pFreeList = pNode;
        if (--m_nCount == 0)
            RemoveAll();
    }

    void AllocTable() { m_pHashTable = new Node*[m_nHashTableSize](); }
    void FreeTable()
    {
        delete[] m_pHashTable;
        m_pHashTable = nullptr;
    }

    void DestroyAllElements()
    {
        if (!m_pHashTable)
            return;
        for (uint32_t nBucket = 0; nBucket < m_nHashTableSize; ++nBucket)
        {
            for (Node* pNode = m_pHashTable[nBucket]; pNode; pNode = pNode->pNext)
            {
                pNode->key.K::~K();
                pNode->value.V::~V();
            }
        }
    }

    Node* FirstInBucketsFrom(uint32_t nBucket) const
    {
        for (; nBucket < m_nHashTableSize; ++nBucket)
            if (m_pHashTable[nBucket])
                return m_pHashTable[nBucket];
        return nullptr;
    }

    // The node at rPos, with rPos moved to its successor in walk order.
    Node* Step(QB_POSITION& rPos) const
    {
        if (!rPos || !m_pHashTable)
        {
            rPos = nullptr;
            return nullptr;
        }
        Node* pNode = rPos == QB_BEFORE_START_POSITION ? FirstInBucketsFrom(0) : reinterpret_cast<Node*>(rPos);
        Node* pNext = nullptr;
        if (pNode)
            pNext = pNode->pNext ? pNode->pNext : FirstInBucketsFrom(pNode->nBucket + 1);
        rPos = reinterpret_cast<QB_POSITION>(pNext);
        return pNode;
    }

    // Rebuilds each chain in the same order, so a copy walks like its source.
    void CopyChains(const QB_Map& other)
    {
        if (!other.m_pHashTable)
            return;
        AllocTable();
        for (uint32_t nBucket = 0; nBucket < m_nHashTableSize; ++nBucket)
        {
            Node** ppTail = &m_pHashTable[nBucket];
            for (Node* pSource = other.m_pHashTable[nBucket]; pSource; pSource = pSource->pNext)
            {
                Node* pNode = NewNode(pSource->key, nBucket);
                pNode->value = pSource->value;
                pNode->pNext = nullptr;
                *ppTail = pNode;
                ppTail = &pNode->pNext;
            }
        }
    }
};
