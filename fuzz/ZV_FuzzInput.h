// The harnesses' input, read from the front: numbers little-endian, a
// choice in a range taking only the bytes the range needs, text behind a
// length byte. What is used up reads as zeros. The writer makes the same
// form, so that seeds can be written with the code's own encoders.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace zv_fuzz {

// Bytes a choice among nWidth + 1 values takes.
inline int WidthBytes(uint64_t ullWidth)
{
    int n = 0;
    for (; ullWidth > 0; ullWidth >>= 8)
        ++n;
    return n;
}

} // namespace zv_fuzz

class ZV_FuzzReader
{
public:
    ZV_FuzzReader(const uint8_t* pData, size_t nSize) : m_p(pData), m_nLeft(nSize) {}

    bool Empty() const { return m_nLeft == 0; }
    size_t Left() const { return m_nLeft; }

    uint8_t Byte()
    {
        if (m_nLeft == 0)
            return 0;
        --m_nLeft;
        return *m_p++;
    }
    template <typename T>
    T Int()
    {
        using U = std::make_unsigned_t<T>;
        U u = 0;
        for (size_t i = 0; i < sizeof(T); ++i)
            u |= (U)((U)Byte() << (8 * i));
        return (T)u;
    }
    // A value from nMin to nMax.
    template <typename T>
    T Range(T nMin, T nMax)
    {
        const uint64_t ullWidth = (uint64_t)nMax - (uint64_t)nMin;
        uint64_t ull = 0;
        for (int i = 0, n = zv_fuzz::WidthBytes(ullWidth); i < n; ++i)
            ull |= (uint64_t)Byte() << (8 * i);
        return (T)((uint64_t)nMin + (ullWidth == UINT64_MAX ? ull : ull % (ullWidth + 1)));
    }
    bool Bool() { return (Byte() & 1) != 0; }
    std::vector<uint8_t> Bytes(size_t n)
    {
        n = n < m_nLeft ? n : m_nLeft;
        std::vector<uint8_t> vb(m_p, m_p + n);
        m_p += n;
        m_nLeft -= n;
        return vb;
    }
    // A length byte, then that many bytes (fewer at the end of the input).
    std::string Text(size_t nMax = 255)
    {
        const std::vector<uint8_t> vb = Bytes(Range<size_t>(0, nMax));
        return std::string(vb.begin(), vb.end());
    }
    std::string Rest()
    {
        const std::vector<uint8_t> vb = Bytes(m_nLeft);
        return std::string(vb.begin(), vb.end());
    }

private:
    const uint8_t* m_p;
    size_t m_nLeft;
};

class ZV_FuzzWriter
{
public:
    void Byte(uint8_t b) { m_vb.push_back(b); }
    template <typename T>
    void Int(T value)
    {
        using U = std::make_unsigned_t<T>;
        for (size_t i = 0; i < sizeof(T); ++i)
            Byte((uint8_t)((U)value >> (8 * i)));
    }
    template <typename T>
    void Range(T value, T nMin, T nMax)
    {
        const uint64_t ull = (uint64_t)value - (uint64_t)nMin;
        for (int i = 0, n = zv_fuzz::WidthBytes((uint64_t)nMax - (uint64_t)nMin); i < n; ++i)
            Byte((uint8_t)(ull >> (8 * i)));
    }
    void Bool(bool b) { Byte(b ? 1 : 0); }
    void Raw(const void* p, size_t n)
    {
        const auto* pb = static_cast<const uint8_t*>(p);
        m_vb.insert(m_vb.end(), pb, pb + n);
    }
    void Raw(const std::string& s) { Raw(s.data(), s.size()); }
    void Raw(const std::vector<uint8_t>& vb) { Raw(vb.data(), vb.size()); }
    void Text(const std::string& s, size_t nMax = 255)
    {
        Range<size_t>(s.size(), 0, nMax);
        Raw(s);
    }
    const std::vector<uint8_t>& Data() const { return m_vb; }

private:
    std::vector<uint8_t> m_vb;
};
