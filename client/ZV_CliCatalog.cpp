#include "ZV_CliCatalog.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

// A bounded reader over an event's bytes; once a read runs off the end it
// stays failed and every read gives 0.
class Reader
{
public:
    Reader(const std::vector<uint8_t>& vb, size_t nAt, size_t nEnd)
        : m_vb(vb), m_nAt(nAt), m_nEnd(nEnd), m_bOk(nAt <= nEnd)
    {
    }

    bool Ok() const { return m_bOk; }
    size_t At() const { return m_nAt; }
    void Seek(size_t nAt)
    {
        m_bOk = m_bOk && nAt <= m_nEnd;
        if (m_bOk)
            m_nAt = nAt;
    }
    uint64_t Uint(int nBytes)
    {
        if (!Take(nBytes))
            return 0;
        uint64_t ull = 0;
        for (int k = nBytes - 1; k >= 0; --k)
            ull = ull << 8 | m_vb[m_nAt - nBytes + k];
        return ull;
    }
    double F64()
    {
        if (!Take(8))
            return 0;
        double d = 0;
        std::memcpy(&d, &m_vb[m_nAt - 8], sizeof d);
        return d;
    }
    // A count of one to five bytes, its size in the lead byte's high bits.
    uint32_t Count()
    {
        const uint8_t bLead = (uint8_t)Uint(1);
        const int nMore = bLead < 0x80 ? 0 : bLead < 0xC0 ? 1 : bLead < 0xE0 ? 2 : bLead < 0xF0 ? 3 : 4;
        uint32_t ulCount = nMore == 4 ? 0 : bLead & (0x7F >> nMore);
        for (int k = 0; k < nMore; ++k)
            ulCount = ulCount << 8 | (uint32_t)Uint(1);
        return ulCount;
    }
    std::string Text()
    {
        const uint32_t ulLen = Count();
        if (!Take(ulLen))
            return {};
        return std::string((const char*)&m_vb[m_nAt - ulLen], ulLen);
    }
    void Skip(size_t n) { Take(n); }

private:
    bool Take(size_t n)
    {
        m_bOk = m_bOk && n <= m_nEnd - m_nAt;
        if (m_bOk)
            m_nAt += n;
        return m_bOk;
    }
    const std::vector<uint8_t>& m_vb;
    size_t m_nAt;
    size_t m_nEnd;
    bool m_bOk;
};

// A record's presence mask: one word whose low two bits give its width.
uint64_t ReadMask(Reader& r)
{
    const size_t nAt = r.At();
    const int nWidth = 1 << (r.Uint(1) & 3);
    r.Seek(nAt);
    return r.Uint(nWidth) >> 2;
}

struct Rights
{
    std::optional<bool> obPublic;
    std::optional<std::vector<uint32_t>> ovecAllowed;
    std::string sPath;  // folder and name, the folder in Linux form
};

// A delimited brief record: its rights, and the folder and name it was
// shared from; the reader ends behind the record whatever it held.
Rights ReadBrief(Reader& r)
{
    Rights rights;
    const size_t nStart = r.At();
    const uint32_t ulLen = (uint32_t)r.Uint(4);
    const uint64_t ullMask = ReadMask(r);
    auto Has = [&](int nBit) { return (ullMask >> nBit & 1) != 0; };
    if (Has(0))
        r.Skip(8);
    std::string asText[5];
    for (int nBit = 1; nBit <= 4; ++nBit)
        if (Has(nBit))
            asText[nBit] = r.Text();
    rights.sPath = asText[2] + asText[3];
    std::replace(rights.sPath.begin(), rights.sPath.end(), '\\', '/');
    if (Has(5))
        r.Skip(4);
    if (Has(6))
        r.Skip(8);
    if (Has(7))
        r.Skip(8);
    if (Has(8))
        r.Skip(2);
    if (Has(9))
    {
        std::vector<uint32_t> vecAllowed;
        const uint32_t ulCount = r.Count();
        for (uint32_t i = 0; i < ulCount && r.Ok(); ++i)
        {
            vecAllowed.push_back((uint32_t)r.Uint(4));
            r.Skip(4);
        }
        rights.ovecAllowed = std::move(vecAllowed);
    }
    if (Has(10))
        rights.obPublic = r.Uint(1) != 0;
    if (!r.Ok())
        return {};
    r.Seek(nStart + ulLen);
    return rights;
}

// A delimited download record: its local target (folder and name) and
// its state.
void ReadDownload(Reader& r, ZV_CliEvent& ev)
{
    const size_t nStart = r.At();
    const uint32_t ulLen = (uint32_t)r.Uint(4);
    const uint64_t ullMask = ReadMask(r);
    auto Has = [&](int nBit) { return (ullMask >> nBit & 1) != 0; };
    if (Has(0))
        r.Skip(2);
    std::string asText[5];
    for (int nBit = 1; nBit <= 4; ++nBit)
        if (Has(nBit))
            asText[nBit] = r.Text();
    for (int nBit = 5; nBit <= 7; ++nBit)
        if (Has(nBit))
            r.Skip(4);
    if (Has(8))
        r.Skip(8);
    if (Has(9))
        r.Skip(4);
    const int nState = Has(10) ? (int)r.Uint(2) : -1;
    r.Seek(nStart + ulLen);
    if (!r.Ok())
        return;
    ev.sTarget = asText[1] + asText[3];
    std::replace(ev.sTarget.begin(), ev.sTarget.end(), '\\', '/');
    ev.nDownloadState = nState;
}

void ReadBatch(Reader& r, ZV_CliEvent& ev)
{
    const uint32_t ulIDs = r.Count();
    for (uint32_t i = 0; i < ulIDs && r.Ok(); ++i)
        ev.vecFileIDs.push_back((uint16_t)r.Uint(2));
    const uint32_t ulBriefs = r.Count();
    for (uint32_t i = 0; i < ulBriefs && r.Ok(); ++i)
    {
        Rights rights = ReadBrief(r);
        ev.vecPublic.push_back(rights.obPublic);
        ev.vecAllowed.push_back(std::move(rights.ovecAllowed));
        ev.vecPaths.push_back(std::move(rights.sPath));
    }
    const uint32_t ulValues = r.Count();
    for (uint32_t i = 0; i < ulValues && r.Ok(); ++i)
        ev.vecValues.push_back(r.F64());
}

}  // namespace

ZV_CliEvent ZV_ReadCliEvent(uint16_t usEvent, const std::vector<uint8_t>& vb)
{
    ZV_CliEvent ev;
    ev.usEvent = usEvent;
    Reader r(vb, 2, vb.size());
    ev.ulResult = (uint32_t)r.Uint(4);
    if (usEvent == 3011)
    {
        ev.bUpload = (uint8_t)r.Uint(1);
        ev.usFileID = (uint16_t)r.Uint(2);
        ev.usState = (uint16_t)r.Uint(2);
        ev.bValid = r.Ok();
        return ev;
    }
    if (usEvent == 3013)
    {
        ReadBatch(r, ev);
        ev.bValid = r.Ok();
        return ev;
    }
    ev.usFileID = (uint16_t)r.Uint(2);
    ev.bValid = r.Ok();
    if (!ev.bValid)
        return ev;
    switch (usEvent)
    {
    case 3000:
    case 3003:
    {
        Rights rights = ReadBrief(r);
        const double dPercent = r.F64();
        if (r.Ok())
            ev.dPercent = dPercent, ev.obPublic = rights.obPublic, ev.ovecAllowed = std::move(rights.ovecAllowed);
        break;
    }
    case 3002:
    {
        ReadDownload(r, ev);
        const double dPercent = r.F64();
        if (r.Ok())
            ev.dPercent = dPercent;
        break;
    }
    case 3008:
    case 3009:
    {
        const double dPercent = r.F64();
        if (r.Ok())
            ev.dPercent = dPercent;
        break;
    }
    default:
        break;
    }
    return ev;
}

const char* ZV_CliDownloadText(ZV_CliDownload eState)
{
    switch (eState)
    {
    case ZV_CliDownload::None:
        return "-";
    case ZV_CliDownload::Running:
        return "downloading";
    case ZV_CliDownload::Stopped:
        return "stopped";
    case ZV_CliDownload::Finished:
        return "downloaded";
    case ZV_CliDownload::Failed:
        return "failed";
    }
    return "-";
}

ZV_CliFileState* ZV_CliCatalog::Find(uint16_t usFileID)
{
    auto it = m_mapFiles.find(usFileID);
    return it == m_mapFiles.end() ? nullptr : &it->second;
}

void ZV_CliCatalog::Apply(const ZV_CliEvent& ev, bool bJoining)
{
    if (!ev.bValid)
        return;
    auto Rights = [](ZV_CliFileState& file, const auto& obPublic, const auto& ovecAllowed) {
        if (obPublic)
            file.bPublic = *obPublic;
        if (ovecAllowed)
            file.vecAllowed = *ovecAllowed;
    };
    switch (ev.usEvent)
    {
    case 3000:
    case 3003:
        if (ev.ulResult != 0)
            return;
        Rights(m_mapFiles[ev.usFileID], ev.obPublic, ev.ovecAllowed);
        if (ev.dPercent >= 0)
            m_mapFiles[ev.usFileID].dServerPercent = ev.dPercent;
        return;
    case 3013:
        for (size_t i = 0; i < ev.vecFileIDs.size(); ++i)
        {
            ZV_CliFileState& file = m_mapFiles[ev.vecFileIDs[i]];
            if (i < ev.vecPublic.size())
                Rights(file, ev.vecPublic[i], ev.vecAllowed[i]);
            if (i < ev.vecValues.size())
                file.dServerPercent = bJoining ? ev.vecValues[i] / 100.0 : ev.vecValues[i];
        }
        return;
    case 3004:
    case 3005:
        if (ev.ulResult == 0)
            m_mapFiles.erase(ev.usFileID);
        return;
    case 3008:
        if (ZV_CliFileState* lpFile = Find(ev.usFileID); lpFile && ev.dPercent >= 0)
            lpFile->dServerPercent = ev.dPercent;
        return;
    case 3002:
        if (ZV_CliFileState* lpFile = Find(ev.usFileID))
        {
            lpFile->eDownload = ev.ulResult != 0           ? ZV_CliDownload::Failed
                                : ev.nDownloadState == 2 ? ZV_CliDownload::Stopped
                                : ev.nDownloadState == 3 ? ZV_CliDownload::Finished
                                                         : ZV_CliDownload::Running;
            if (!ev.sTarget.empty())
                lpFile->sTarget = ev.sTarget;
            if (ev.dPercent >= 0)
                lpFile->dDownloadPercent = ev.dPercent;
        }
        return;
    case 3009:
        if (ZV_CliFileState* lpFile = Find(ev.usFileID); lpFile && ev.dPercent >= 0)
            lpFile->dDownloadPercent = ev.dPercent;
        return;
    case 3007:
        if (ZV_CliFileState* lpFile = Find(ev.usFileID))
        {
            lpFile->eDownload = ev.ulResult == 0 ? ZV_CliDownload::Finished : ZV_CliDownload::Failed;
            if (ev.ulResult == 0)
                lpFile->dDownloadPercent = 100;
        }
        return;
    case 3011:
        if (ZV_CliFileState* lpFile = Find(ev.usFileID); lpFile && !ev.bUpload)
        {
            static const ZV_CliDownload aeStates[] = {ZV_CliDownload::Running, ZV_CliDownload::Running,
                                                      ZV_CliDownload::Stopped, ZV_CliDownload::Finished};
            if (ev.usState < 4)
                lpFile->eDownload = aeStates[ev.usState];
        }
        else if (lpFile && ev.usState == 3)
            lpFile->dServerPercent = 100;
        return;
    default:
        return;
    }
}

ZV_CliMatch ZV_ResolveFile(const std::string& sWord, const std::map<uint16_t, std::string>& mapNames)
{
    ZV_CliMatch match;
    for (const auto& [usFileID, sName] : mapNames)
        if (sName == sWord)
            match.vecMatches.push_back(usFileID);
    if (match.vecMatches.size() == 1)
        match.ousFileID = match.vecMatches[0];
    // A number names the file of that FileID when no file bears it as a name.
    if (match.vecMatches.empty() && !sWord.empty() && sWord.size() <= 5 &&
        sWord.find_first_not_of("0123456789") == std::string::npos)
    {
        const unsigned long ulID = std::stoul(sWord);
        if (mapNames.count((uint16_t)ulID) && ulID <= 0xFFFF)
            match.ousFileID = (uint16_t)ulID;
    }
    return match;
}

ZV_CliUserMatch ZV_ResolveUser(const std::string& sWord, const std::map<uint32_t, std::string>& mapNames)
{
    ZV_CliUserMatch match;
    if (!sWord.empty() && sWord.size() <= 10 && sWord.find_first_not_of("0123456789") == std::string::npos)
    {
        const unsigned long long ullUser = std::stoull(sWord);
        if (ullUser != 0 && ullUser <= 0xFFFFFFFF)
            match.oulUser = (uint32_t)ullUser;
        return match;
    }
    for (const auto& [ulUser, sName] : mapNames)
        if (sName == sWord)
            match.vecMatches.push_back(ulUser);
    if (match.vecMatches.size() == 1)
        match.oulUser = match.vecMatches[0];
    return match;
}

std::string ZV_FreeTarget(const std::string& sDir, const std::string& sName)
{
    namespace fs = std::filesystem;
    const fs::path name(sName);
    const std::string sStem = name.stem().string();
    const std::string sExt = name.extension().string();
    std::error_code ec;
    for (int n = 0;; ++n)
    {
        const fs::path target = fs::path(sDir) / (n == 0 ? sName : sStem + "(" + std::to_string(n) + ")" + sExt);
        if (!fs::exists(target, ec))
            return target.string();
    }
}

std::string ZV_Sha256OfFile(const std::string& sPath)
{
    std::ifstream file(sPath, std::ios::binary);
    if (!file)
        return {};
    EVP_MD_CTX* lpCtx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(lpCtx, EVP_sha256(), nullptr);
    std::vector<char> vcBuffer(1 << 20);
    while (file)
    {
        file.read(vcBuffer.data(), (std::streamsize)vcBuffer.size());
        EVP_DigestUpdate(lpCtx, vcBuffer.data(), (size_t)file.gcount());
    }
    unsigned char abDigest[EVP_MAX_MD_SIZE];
    unsigned int nDigest = 0;
    EVP_DigestFinal_ex(lpCtx, abDigest, &nDigest);
    EVP_MD_CTX_free(lpCtx);
    if (file.bad())
        return {};
    static const char szHex[] = "0123456789abcdef";
    std::string sHex;
    for (unsigned int i = 0; i < nDigest; ++i)
        sHex += {szHex[abDigest[i] >> 4], szHex[abDigest[i] & 15]};
    return sHex;
}
