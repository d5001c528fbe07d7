// The three string classes. The conversions are set against the rules of
// the library's own codec worked out here unit by unit (UTF-8 by bits 7, 5
// and 4 of a lead byte, surrogate halves one by one; the ANSI code page one
// byte to one unit and back). Then a run of string operations on a few
// strings that share buffers, each set against std::basic_string: a change
// to one string never shows in another that shared its buffer.
#include "ZV_FuzzCheck.h"

#include "QB_String.h"

#include "ZV_FuzzInput.h"

#include <algorithm>
#include <string>

namespace {

// UTF-8 to UTF-16 as the library decodes it: a lead byte with bits 7, 5 and
// 4 set is dropped, continuation bytes are not looked at, a sequence cut off
// by the end gives nothing, and a zero unit ends the text.
std::u16string DecodeUtf8(const std::string& s)
{
    std::u16string sOut;
    const auto* b = reinterpret_cast<const unsigned char*>(s.data());
    for (size_t i = 0; i < s.size();)
    {
        size_t n = !(b[i] & 0x80) ? 1 : !(b[i] & 0x20) ? 2 : !(b[i] & 0x10) ? 3 : 0;
        if (n == 0)
        {
            ++i;
            continue;
        }
        if (i + n > s.size())
            break;
        if (n == 1)
            sOut += (char16_t)b[i];
        else if (n == 2)
            sOut += (char16_t)(((b[i] & 0x1F) << 6) | (b[i + 1] & 0x3F));
        else
            sOut += (char16_t)(((b[i] & 0x0F) << 12) | ((b[i + 1] & 0x3F) << 6) | (b[i + 2] & 0x3F));
        i += n;
    }
    return sOut.substr(0, sOut.find(u'\0'));
}

std::string EncodeUtf8(const std::u16string& s)
{
    std::string sOut;
    for (char16_t u : s.substr(0, s.find(u'\0')))
    {
        if (u < 0x80)
            sOut += (char)u;
        else if (u < 0x800)
            sOut += {(char)(0xC0 | (u >> 6)), (char)(0x80 | (u & 0x3F))};
        else
            sOut += {(char)(0xE0 | (u >> 12)), (char)(0x80 | ((u >> 6) & 0x3F)), (char)(0x80 | (u & 0x3F))};
    }
    return sOut;
}

template <typename S>
auto Std(const S& s)
{
    return std::basic_string<std::remove_cv_t<std::remove_reference_t<decltype(s[0])>>>(s.GetString(),
                                                                                       (size_t)s.GetLength());
}

void FuzzConversions(ZV_FuzzReader& in)
{
    const std::string sBytes = in.Text(256);
    // UTF-8 in, and back: what the decoder gives must survive the encoder.
    const QB_StringW sWide = QB_Utf8ToWide(sBytes.data(), (int)sBytes.size());
    FUZZ_CHECK(Std(sWide) == DecodeUtf8(sBytes), "UTF-8 decoded wrong");
    const QB_StringU8 sUtf8 = QB_WideToUtf8(sWide.GetString(), sWide.GetLength());
    FUZZ_CHECK(Std(sUtf8) == EncodeUtf8(Std(sWide)), "UTF-16 encoded wrong");
    FUZZ_CHECK(Std(QB_Utf8ToWide(sUtf8.GetString(), sUtf8.GetLength())) == Std(sWide), "UTF-16 did not come back");

    // Any units, surrogate halves alone included, round-trip through UTF-8.
    std::u16string sUnits;
    for (size_t i = 0; i + 1 < sBytes.size(); i += 2)
        sUnits += (char16_t)((uint8_t)sBytes[i] | (uint8_t)sBytes[i + 1] << 8);
    const std::u16string sToZero = sUnits.substr(0, sUnits.find(u'\0'));
    const QB_StringU8 sOut = QB_WideToUtf8(sUnits.data(), (int)sUnits.size());
    FUZZ_CHECK(Std(sOut) == EncodeUtf8(sUnits), "units encoded wrong");
    FUZZ_CHECK(Std(QB_Utf8ToWide(sOut.GetString(), sOut.GetLength())) == sToZero, "units did not come back");

    // The code page is one byte to one unit: every byte comes back, and a
    // unit it does not hold becomes "?".
    const std::string sAnsiToZero = sBytes.substr(0, sBytes.find('\0'));
    const QB_StringW sFromAnsi = QB_AnsiToWide(sBytes.data(), (int)sBytes.size());
    FUZZ_CHECK(sFromAnsi.GetLength() == (int)sAnsiToZero.size(), "ANSI widened to another length");
    FUZZ_CHECK(Std(QB_WideToAnsi(sFromAnsi.GetString(), sFromAnsi.GetLength())) == sAnsiToZero, "ANSI did not come back");
    const QB_StringA sAnsi = QB_WideToAnsi(sUnits.data(), (int)sUnits.size());
    FUZZ_CHECK(sAnsi.GetLength() == (int)sToZero.size(), "units narrowed to another length");
    for (int i = 0; i < sAnsi.GetLength(); ++i)
    {
        const QB_StringW sBack = QB_AnsiToWide(sAnsi.GetString() + i, 1);
        FUZZ_CHECK(sBack[0] == sToZero[i] || sAnsi[i] == '?', "unit %04X narrowed to a byte of another unit",
                   (unsigned)sToZero[i]);
    }
}

// A few strings, each beside its model; operations pick them by number, so
// that copies share buffers and changes must not leak from one to another.
template <typename S, typename C>
class ZV_StringRun
{
public:
    explicit ZV_StringRun(ZV_FuzzReader& in) : m_in(in) {}

    void Run()
    {
        while (m_in.Left() > 0)
        {
            Step();
            for (int i = 0; i < kSlots; ++i)
            {
                FUZZ_CHECK(Std(m_as[i]) == m_asModel[i], "string %d differs from its model", i);
                FUZZ_CHECK(m_as[i].GetString()[m_as[i].GetLength()] == 0, "string %d lost its terminator", i);
                FUZZ_CHECK(m_as[i].GetLength() <= m_as[i].GetCapacity(), "string %d is longer than its buffer", i);
            }
        }
    }

private:
    static constexpr int kSlots = 3;
    static constexpr size_t kMaxLength = 2048;
    using Model = std::basic_string<C>;

    ZV_FuzzReader& m_in;
    S m_as[kSlots];
    Model m_asModel[kSlots];

    Model Text()
    {
        const std::string s = m_in.Text(24);
        Model m;
        for (char ch : s)
            m += (C)(sizeof(C) == 1 ? ch : (C)(uint8_t)ch * 0x101);
        return m;
    }
    int Index(int nLength) { return m_in.Range(-2, nLength + 2); }
    static bool IsSpace(C ch) { return ch == ' ' || (ch >= 9 && ch <= 13); }

    void Step()
    {
        // Appending a string to itself doubles it; a cap keeps each run short.
        for (int i = 0; i < kSlots; ++i)
            if (m_asModel[i].size() > kMaxLength)
            {
                m_as[i].Truncate((int)kMaxLength);
                m_asModel[i].resize(kMaxLength);
            }
        const int a = m_in.Range(0, kSlots - 1);
        const int b = m_in.Range(0, kSlots - 1);
        S& s = m_as[a];
        Model& m = m_asModel[a];
        const int nLen = (int)m.size();
        switch (m_in.Range(0, 12))
        {
        case 0: { const Model t = Text(); s = S(t.data(), (int)t.size()); m = t; break; }
        case 1:
            m_as[b] = s;
            m_asModel[b] = m;
            FUZZ_CHECK(s.IsEmpty() || a == b || s.GetRefCount() >= 2, "a copy did not share its buffer");
            break;
        case 2: { const Model t = Text(); s.Append(t.data(), (int)t.size()); m += t; break; }
        case 3: { const Model t = m_asModel[b]; s.Append(m_as[b]); m += t; break; }
        case 4: { const C ch = (C)m_in.Int<uint16_t>(); s.AppendChar(ch); m += ch; break; }
        case 5:
        {
            const int n = Index(nLen);
            const int nCount = Index(nLen);
            const Model sLeft = n < 0 ? Model() : m.substr(0, (size_t)n);
            const Model sRight = n < 0 ? Model() : m.substr((size_t)std::max(0, nLen - n));
            const int nFirst = std::max(0, n);
            const Model sMid = nFirst >= nLen || nCount <= 0 ? Model() : m.substr((size_t)nFirst, (size_t)nCount);
            FUZZ_CHECK(Std(s.Left(n)) == sLeft && Std(s.Right(n)) == sRight, "Left or Right of %d", n);
            FUZZ_CHECK(Std(s.Mid(n, nCount)) == sMid, "Mid of %d, %d", n, nCount);
            m_as[b] = s.Mid(n);
            m_asModel[b] = nFirst >= nLen ? Model() : m.substr((size_t)nFirst);
            break;
        }
        case 6:
        {
            const Model t = Text().substr(0, 2);
            const int nStart = Index(nLen);
            const size_t nAt = nStart > nLen ? Model::npos : m.find(t, (size_t)std::max(0, nStart));
            FUZZ_CHECK(s.Find(S(t.data(), (int)t.size()), nStart) == (nAt == Model::npos ? -1 : (int)nAt), "Find");
            const C ch = t.empty() ? (C)' ' : t[0];
            const size_t nCh = m.find(ch, (size_t)std::max(0, nStart));
            FUZZ_CHECK(s.Find(ch, nStart) == (nCh == Model::npos ? -1 : (int)nCh), "Find of a character");
            const size_t nLast = m.rfind(ch);
            FUZZ_CHECK(s.ReverseFind(ch) == (nLast == Model::npos ? -1 : (int)nLast), "ReverseFind");
            break;
        }
        case 7:
        {
            size_t n = 0;
            while (n < m.size() && IsSpace(m[n]))
                ++n;
            s.TrimLeft();
            m.erase(0, n);
            break;
        }
        case 8:
            while (!m.empty() && IsSpace(m.back()))
                m.pop_back();
            s.TrimRight();
            break;
        case 9:
        {
            const int i = Index(nLen);
            const C ch = (C)m_in.Int<uint16_t>();
            s.SetAt(i, ch);
            if (i >= 0 && i < nLen)
                m[(size_t)i] = ch;
            break;
        }
        case 10:
        {
            const int n = Index(nLen);
            s.Truncate(n);
            if (n >= 0 && n < nLen)
                m.resize((size_t)n);
            break;
        }
        case 11:
        {
            // Direct writing: some characters and a zero behind them.
            const int nMin = m_in.Range(0, 40);
            const Model t = Text();
            const size_t nRoom = (size_t)std::max(nMin, nLen);
            const size_t nWrite = std::min(t.size(), nRoom);
            C* p = s.GetBuffer(nMin);
            FUZZ_CHECK(p != nullptr && s.GetCapacity() >= (int)nRoom, "GetBuffer gave too little room");
            std::copy(t.begin(), t.begin() + (ptrdiff_t)nWrite, p);
            p[nWrite] = 0;
            s.ReleaseBuffer(-1);
            m = t.substr(0, nWrite);
            m = m.substr(0, m.find((C)0));
            break;
        }
        default:
        {
            const int nSign = s.Compare(m_as[b]);
            const int nModel = m.compare(m_asModel[b]);
            FUZZ_CHECK((nSign > 0) == (nModel > 0) && (nSign < 0) == (nModel < 0), "Compare gave %d", nSign);
            break;
        }
        }
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    ZV_FuzzReader in(pData, nSize);
    switch (in.Range(0, 2))
    {
    case 0: FuzzConversions(in); break;
    case 1: ZV_StringRun<QB_StringU8, char>(in).Run(); break;
    default: ZV_StringRun<QB_StringW, char16_t>(in).Run(); break;
    }
    return 0;
}
