// QB_List: a doubly linked list whose nodes come from blocks.
//
// A walk runs in insertion order, head to tail. Positions are node
// addresses and are not checked: callers only pass back positions this list
// gave them and that still hold an element. RemoveAt and Find also take
// the null position, as nothing to remove and as the head.
// When the last element goes, the list gives back all its blocks.
#pragma once

#include "QB_Plex.h"

#include <cassert>
#include <new>
#include <utility>

template <class T>
class QB_List
{
public:
    explicit QB_List(int nBlockSize = 10) : m_nBlockSize(nBlockSize > 0 ? nBlockSize : 10) {}
    ~QB_List() { RemoveAll(); }
    QB_List(const QB_List& other) : m_nBlockSize(other.m_nBlockSize) { AddTail(other); }
    QB_List& operator=(const QB_List& other)
    {
        if (this != &other)
        {
            RemoveAll();
            AddTail(other);
        }
        return *this;
    }

    int GetCount() const { return m_nCount; }
    bool IsEmpty() const { return m_nCount == 0; }

    QB_POSITION AddTail(const T& value)
    {
        Node* pNode = NewNode(value, m_pTail, nullptr);
        (m_pTail ? m_pTail->pNext : m_pHead) = pNode;
        m_pTail = pNode;
        return ToPosition(pNode);
    }
    // Appending a list to itself doubles it.
    void AddTail(const QB_List& other)
    {
        int nLeft = other.m_nCount;
        for (Node* pNode = other.m_pHead; nLeft > 0; pNode = pNode->pNext, --nLeft)
            AddTail(pNode->value);
    }
    QB_POSITION AddHead(const T& value)
    {
        Node* pNode = NewNode(value, nullptr, m_pHead);
        (m_pHead ? m_pHead->pPrev : m_pTail) = pNode;
        m_pHead = pNode;
        return ToPosition(pNode);
    }

    // On an empty list these give a default value and change nothing.
    T RemoveHead()
    {
        if (!m_pHead)
            return T();
        T value(std::move(m_pHead->value));
        RemoveAt(ToPosition(m_pHead));
        return value;
    }
    T RemoveTail()
    {
        if (!m_pTail)
            return T();
        T value(std::move(m_pTail->value));
        RemoveAt(ToPosition(m_pTail));
        return value;
    }
    void RemoveAt(QB_POSITION pos)
    {
        Node* pNode = FromPosition(pos);
        if (!pNode)
            return;
        (pNode->pPrev ? pNode->pPrev->pNext : m_pHead) = pNode->pNext;
        (pNode->pNext ? pNode->pNext->pPrev : m_pTail) = pNode->pPrev;
        FreeNode(pNode);
    }
    void RemoveAll()
    {
        for (Node* pNode = m_pHead; pNode; pNode = pNode->pNext)
            pNode->value.T::~T();
        m_pHead = m_pTail = nullptr;
        m_nCount = 0;
        m_pFreeList = nullptr;
        if (m_pBlocks)
            m_pBlocks->FreeDataChain();
        m_pBlocks = nullptr;
    }

    QB_POSITION GetHeadPosition() const { return ToPosition(m_pHead); }
    QB_POSITION GetTailPosition() const { return ToPosition(m_pTail); }

    // The element at pos; pos moves to the next one, null after the tail.
    T& GetNext(QB_POSITION& pos)
    {
        Node* pNode = FromPosition(pos);
        pos = ToPosition(pNode->pNext);
        return pNode->value;
    }
    const T& GetNext(QB_POSITION& pos) const
    {
        const Node* pNode = FromPosition(pos);
        pos = ToPosition(pNode->pNext);
        return pNode->value;
    }
    T& GetPrev(QB_POSITION& pos)
    {
        Node* pNode = FromPosition(pos);
        pos = ToPosition(pNode->pPrev);
        return pNode->value;
    }
    T& GetAt(QB_POSITION pos) { return FromPosition(pos)->value; }
    // The list must not be empty.
    T& GetHead()
    {
        assert(m_pHead);
        return m_pHead->value;
    }
    T& GetTail()
    {
        assert(m_pTail);
        return m_pTail->value;
    }

    // The first position after startAfter (or from the head) whose element
    // equals value, or null.
    QB_POSITION Find(const T& value, QB_POSITION startAfter = nullptr) const
    {
        Node* pNode = startAfter ? FromPosition(startAfter)->pNext : m_pHead;
        for (; pNode; pNode = pNode->pNext)
            if (pNode->value == value)
                return ToPosition(pNode);
        return nullptr;
    }

private:
    // The value lives in a union so that a node on the free list is raw room.
    struct Node
    {
        Node* pNext;
        Node* pPrev;
        union
        {
            T value;
        };
        Node() {}
        ~Node() {}
    };
    static_assert(alignof(Node) <= alignof(QB_Plex), "nodes sit right behind a block header");

    Node* m_pHead = nullptr;
    Node* m_pTail = nullptr;
    int m_nCount = 0;
    Node* m_pFreeList = nullptr;
    QB_Plex* m_pBlocks = nullptr;
    int m_nBlockSize;

    static QB_POSITION ToPosition(Node* pNode) { return reinterpret_cast<QB_POSITION>(pNode); }
    static Node* FromPosition(QB_POSITION pos) { return reinterpret_cast<Node*>(pos); }

    Node* NewNode(const T& value, Node* pPrev, Node* pNext)
    {
        if (!m_pFreeList)
            AddBlock();
        Node* pNode = m_pFreeList;
        ::new (static_cast<void*>(&pNode->value)) T(value);
        m_pFreeList = pNode->pNext;
        pNode->pPrev = pPrev;
        pNode->pNext = pNext;
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
        pNode->value.~T();
        pNode->pNext = m_pFreeList;
        m_pFreeList = pNode;
        if (--m_nCount == 0)
            RemoveAll();
    }
};
