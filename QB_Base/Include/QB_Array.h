// QB_Array: a contiguous, growable array.
//
// Growing moves the old elements by a plain byte copy instead of copying
// and destroying them one by one. Every element type the system stores is
// trivially relocatable: string handles (one pointer to a shared buffer),
// QB_UserID (a table pointer and two words), plain numbers and records made
// of these. A type that points into itself must not be stored here. The
// casts and the qualified destructor calls tell the compiler so: an element
// is always exactly a T, never of a type derived from it.
//
// Indexes are not checked by GetAt and operator[]; callers stay in bounds.
// The operations that change the size refuse negative numbers and leave the
// array as it was.
#pragma once

#include <cassert>
#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <utility>

template <class T>
class QB_Array
{
    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "storage comes from plain operator new");

public:
    QB_Array() = default;
    ~QB_Array() { SetSize(0); }
    QB_Array(const QB_Array& other) : m_nGrowBy(other.m_nGrowBy)
    {
        if (other.m_nSize == 0)
            return;
        m_pData = Allocate(other.m_nSize);
        for (int i = 0; i < other.m_nSize; ++i)
            ::new (static_cast<void*>(m_pData + i)) T(other.m_pData[i]);
        m_nSize = m_nMaxSize = other.m_nSize;
    }
    QB_Array& operator=(const QB_Array& other)
    {
        if (this != &other)
        {
            QB_Array copy(other);
            std::swap(m_pData, copy.m_pData);
            std::swap(m_nSize, copy.m_nSize);
            std::swap(m_nMaxSize, copy.m_nMaxSize);
            std::swap(m_nGrowBy, copy.m_nGrowBy);
        }
        return *this;
    }

    int GetSize() const { return m_nSize; }
    int GetCount() const { return m_nSize; }
    bool IsEmpty() const { return m_nSize == 0; }
    int GetCapacity() const { return m_nMaxSize; }

    // A grow-by of -1 keeps the stored one; 0 lets the step follow the size.
    void SetSize(int nNewSize, int nGrowBy = -1)
    {
        if (nNewSize < 0)
            return;
        if (nGrowBy >= 0)
            m_nGrowBy = nGrowBy;
        if (nNewSize == 0)
            FreeAll();
        else if (nNewSize <= m_nMaxSize)
            Resize(nNewSize);
        else
            Grow(nNewSize);
    }

    int Add(const T& value)
    {
        int nIndex = m_nSize;
        SetAtGrow(nIndex, value);
        return nIndex;
    }
    // nIndex is at or past the end: the array grows to reach it.
    void SetAtGrow(int nIndex, const T& value)
    {
        // The value may be one of ours, which growing would move away.
        if (Holds(&value))
        {
            T copy(value);
            SetSize(nIndex + 1);
            m_pData[nIndex] = copy;
            return;
        }
        SetSize(nIndex + 1);
        m_pData[nIndex] = value;
    }
    // Past the end the array first grows to reach nIndex.
    void InsertAt(int nIndex, const T& value)
    {
        if (nIndex < 0)
            return;
        if (nIndex >= m_nSize)
        {
            SetAtGrow(nIndex, value);
            return;
        }
        T copy(value);
        SetSize(m_nSize + 1);
        T* pSlot = m_pData + nIndex;
        pSlot[m_nSize - 1 - nIndex].T::~T();
        std::memmove(static_cast<void*>(pSlot + 1), static_cast<const void*>(pSlot),
                     sizeof(T) * (size_t)(m_nSize - 1 - nIndex));
        ConstructFresh(pSlot, 1);
        *pSlot = std::move(copy);
    }
    void RemoveAt(int nIndex, int nCount = 1)
    {
        if (nIndex < 0 || nCount < 0 || nCount > m_nSize - nIndex)
            return;
        Destroy(m_pData + nIndex, nCount);
        int nMoved = m_nSize - nIndex - nCount;
        std::memmove(static_cast<void*>(m_pData + nIndex), static_cast<const void*>(m_pData + nIndex + nCount),
                     sizeof(T) * (size_t)nMoved);
        m_nSize -= nCount;
    }
    void RemoveAll() { SetSize(0); }

    T& GetAt(int nIndex) { return (*this)[nIndex]; }
    const T& GetAt(int nIndex) const { return (*this)[nIndex]; }
    T& operator[](int nIndex)
    {
        assert(nIndex >= 0 && nIndex < m_nSize);
        return m_pData[nIndex];
    }
    const T& operator[](int nIndex) const
    {
        assert(nIndex >= 0 && nIndex < m_nSize);
        return m_pData[nIndex];
    }
    T* GetData() { return m_pData; }
    const T* GetData() const { return m_pData; }

    // The first index at or after nStart whose element equals value, or -1.
    int Find(const T& value, int nStart = 0) const
    {
        for (int i = nStart < 0 ? 0 : nStart; i < m_nSize; ++i)
            if (m_pData[i] == value)
                return i;
        return -1;
    }

private:
    T* m_pData = nullptr;
    int m_nSize = 0;
    int m_nMaxSize = 0;
    int m_nGrowBy = 0;

    static T* Allocate(int nCount) { return static_cast<T*>(::operator new(sizeof(T) * (size_t)nCount)); }

    static void ConstructFresh(T* p, int nCount)
    {
        if (nCount <= 0)
            return;
        std::memset(static_cast<void*>(p), 0, sizeof(T) * (size_t)nCount);
        for (int i = 0; i < nCount; ++i)
            ::new (static_cast<void*>(p + i)) T;
    }
    static void Destroy(T* p, int nCount)
    {
        for (int i = 0; i < nCount; ++i)
            p[i].T::~T();
    }

    bool Holds(const T* p) const
    {
        std::less<const T*> less;
        return m_pData && !less(p, m_pData) && less(p, m_pData + m_nSize);
    }

    void FreeAll()
    {
        Destroy(m_pData, m_nSize);
        ::operator delete(m_pData);
        m_pData = nullptr;
        m_nSize = m_nMaxSize = 0;
    }

    void Resize(int nNewSize)
    {
        if (nNewSize > m_nSize)
            ConstructFresh(m_pData + m_nSize, nNewSize - m_nSize);
        else
            Destroy(m_pData + nNewSize, m_nSize - nNewSize);
        m_nSize = nNewSize;
    }

    // Small arrays grow by a few, large ones by an eighth, but never more
    // than 1024 at a time, unless the owner chose a step.
    int GrowthStep() const
    {
        if (m_nGrowBy > 0)
            return m_nGrowBy;
        int nStep = m_nSize / 8;
        return nStep < 4 ? 4 : (nStep > 1024 ? 1024 : nStep);
    }

    void Grow(int nNewSize)
    {
        int64_t llByStep = (int64_t)m_nMaxSize + GrowthStep();
        int nNewMax = llByStep > nNewSize ? (int)(llByStep > INT32_MAX ? INT32_MAX : llByStep) : nNewSize;
        T* pNew = Allocate(nNewMax);
        if (m_nSize > 0)
            std::memcpy(static_cast<void*>(pNew), static_cast<const void*>(m_pData), sizeof(T) * (size_t)m_nSize);
        ConstructFresh(pNew + m_nSize, nNewSize - m_nSize);
        ::operator delete(m_pData);
        m_pData = pNew;
        m_nSize = nNewSize;
        m_nMaxSize = nNewMax;
    }
};
