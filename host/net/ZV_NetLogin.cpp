#include "ZV_NetLogin.h"

#include <gsasl.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace {

constexpr size_t kKeySize = GSASL_HASH_SHA256_SIZE;
constexpr size_t kSaltSize = 16;
constexpr uint32_t kMaxIterations = 10000000;

std::string ToBase64(const std::string& sRaw)
{
    char* psz = nullptr;
    size_t nLen = 0;
    if (gsasl_base64_to(sRaw.data(), sRaw.size(), &psz, &nLen) != GSASL_OK)
        return {};
    std::string s(psz, nLen);
    gsasl_free(psz);
    return s;
}

bool FromBase64(const std::string& s64, std::string& sRaw)
{
    char* p = nullptr;
    size_t nLen = 0;
    if (s64.empty() || gsasl_base64_from(s64.data(), s64.size(), &p, &nLen) != GSASL_OK)
        return false;
    sRaw.assign(p, nLen);
    gsasl_free(p);
    return true;
}

std::string Random(size_t nBytes)
{
    std::string s(nBytes, '\0');
    gsasl_random(s.data(), s.size());
    return s;
}

const char* KindWord(ZV_LoginKind eKind)
{
    return eKind == ZV_LoginKind::User ? "user" : "server";
}

}  // namespace

// GNU SASL asks its questions through one function per context; each session
// carries the side it belongs to.
struct ZV_SaslCallback
{
    static int Call(Gsasl*, Gsasl_session* lpSession, Gsasl_property eProperty)
    {
        auto* lpSide = lpSession ? static_cast<ZV_LoginSide*>(gsasl_session_hook_get(lpSession)) : nullptr;
        std::string sValue;
        if (!lpSide || !lpSide->Answer(eProperty, sValue))
            return GSASL_NO_CALLBACK;
        return gsasl_property_set_raw(lpSession, eProperty, sValue.data(), sValue.size());
    }

    // One context for the process, made on first use and kept to its end.
    static Gsasl* Context()
    {
        static Gsasl* const lpContext = [] {
            Gsasl* lp = nullptr;
            if (gsasl_init(&lp) != GSASL_OK)
                return (Gsasl*)nullptr;
            gsasl_callback_set(lp, &ZV_SaslCallback::Call);
            return lp;
        }();
        return lpContext;
    }
};

// ---------------------------------------------------------------------------
// ZV_Credentials

bool ZV_Credentials::IsGoodName(const std::string& sName)
{
    return !sName.empty() && sName.front() != ' ' && sName.back() != ' ' &&
           std::none_of(sName.begin(), sName.end(), [](char c) { return (unsigned char)c < 0x20 || c == 0x7F; });
}

ZV_ScramKeys ZV_Credentials::Derive(const std::string& sSecret, uint32_t ulIterations)
{
    ZV_ScramKeys keys;
    keys.ulIterations = ulIterations;
    keys.sSalt = Random(kSaltSize);
    char abSalted[kKeySize], abClient[kKeySize], abServer[kKeySize], abStored[kKeySize];
    if (gsasl_scram_secrets_from_password(GSASL_HASH_SHA256, sSecret.c_str(), ulIterations, keys.sSalt.data(),
                                          keys.sSalt.size(), abSalted, abClient, abServer, abStored) != GSASL_OK)
        return {};
    keys.sStoredKey.assign(abStored, kKeySize);
    keys.sServerKey.assign(abServer, kKeySize);
    return keys;
}

// One line per name: its kind, the iteration count, the salt, StoredKey and
// ServerKey (base64), and the name, which may hold spaces, last.
bool ZV_Credentials::Load(const std::string& sPath, std::vector<std::string>& vecErrors)
{
    m_map.clear();
    std::ifstream file(sPath);
    if (!file)
    {
        vecErrors.push_back(sPath + ":0: the credentials file cannot be read (write it with roomcrate-server passwd)");
        return false;
    }
    const size_t nErrors = vecErrors.size();
    std::string sLine;
    for (int nLine = 1; std::getline(file, sLine); ++nLine)
    {
        if (sLine.empty() || sLine[0] == '#')
            continue;
        auto Fail = [&](const std::string& sWhy) {
            vecErrors.push_back(sPath + ":" + std::to_string(nLine) + ": " + sWhy);
        };
        std::istringstream line(sLine);
        std::string sKind, sIterations, sSalt, sStored, sServer, sName;
        line >> sKind >> sIterations >> sSalt >> sStored >> sServer;
        std::getline(line >> std::ws, sName);
        ZV_ScramKeys keys;
        const bool bNumber = !sIterations.empty() && sIterations.size() <= 8 &&
                             std::all_of(sIterations.begin(), sIterations.end(), ::isdigit);
        keys.ulIterations = bNumber ? (uint32_t)std::stoul(sIterations) : 0;
        if (sKind != "user" && sKind != "server")
            Fail("a line begins with \"user\" or \"server\"");
        else if (sName.empty())
            Fail("the line names nobody");
        else if (keys.ulIterations < kIterations || keys.ulIterations > kMaxIterations)
            Fail("the iteration count must be a whole number from 4096 to 10000000");
        else if (!FromBase64(sSalt, keys.sSalt) || !FromBase64(sStored, keys.sStoredKey) ||
                 !FromBase64(sServer, keys.sServerKey) || keys.sStoredKey.size() != kKeySize ||
                 keys.sServerKey.size() != kKeySize)
            Fail("the salt and the two keys must be base64, the keys of 32 bytes each");
        else if (!m_map.emplace(std::make_pair(sKind == "user" ? ZV_LoginKind::User : ZV_LoginKind::Server, sName),
                                keys)
                      .second)
            Fail(sKind + " \"" + sName + "\" appears twice");
    }
    return vecErrors.size() == nErrors;
}

bool ZV_Credentials::Save(const std::string& sPath, std::string& sError) const
{
    std::string sText =
        "# Written by \"roomcrate-server passwd\". No secret is kept here, only what a login is checked\n"
        "# with: kind, iteration count, salt, StoredKey, ServerKey (SCRAM-SHA-256), name. Keep it private\n"
        "# all the same: whoever reads it may try guesses at the secrets at leisure.\n";
    for (const auto& [key, keys] : m_map)
        sText += std::string(KindWord(key.first)) + " " + std::to_string(keys.ulIterations) + " " +
                 ToBase64(keys.sSalt) + " " + ToBase64(keys.sStoredKey) + " " + ToBase64(keys.sServerKey) + " " +
                 key.second + "\n";
    const std::string sTemp = sPath + ".new";
    unlink(sTemp.c_str());
    const int nFile = open(sTemp.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    bool bDone = nFile >= 0 && write(nFile, sText.data(), sText.size()) == (ssize_t)sText.size() && fsync(nFile) == 0;
    if (nFile >= 0)
        bDone = close(nFile) == 0 && bDone;
    bDone = bDone && std::rename(sTemp.c_str(), sPath.c_str()) == 0;
    if (!bDone)
    {
        sError = sPath + ": cannot be written";
        unlink(sTemp.c_str());
    }
    return bDone;
}

const ZV_ScramKeys* ZV_Credentials::Find(ZV_LoginKind eKind, const std::string& sName) const
{
    auto it = m_map.find({eKind, sName});
    return it == m_map.end() ? nullptr : &it->second;
}

void ZV_Credentials::Put(ZV_LoginKind eKind, const std::string& sName, ZV_ScramKeys keys)
{
    m_map[{eKind, sName}] = std::move(keys);
}

// ---------------------------------------------------------------------------
// The two sides

const char* ZV_LoginMechanism(const ZV_ChannelBinding& binding)
{
    return binding.IsTls() ? "SCRAM-SHA-256-PLUS" : "SCRAM-SHA-256";
}

ZV_LoginSide::~ZV_LoginSide()
{
    if (m_lpSession)
        gsasl_finish(m_lpSession);
}

bool ZV_LoginSide::Begin(bool bServer, const char* pszMechanism)
{
    Gsasl* lpContext = ZV_SaslCallback::Context();
    if (!lpContext)
        return false;
    const int nResult = bServer ? gsasl_server_start(lpContext, pszMechanism, &m_lpSession)
                                : gsasl_client_start(lpContext, pszMechanism, &m_lpSession);
    if (nResult != GSASL_OK)
    {
        m_lpSession = nullptr;
        return false;
    }
    gsasl_session_hook_set(m_lpSession, this);
    return true;
}

ZV_LoginStep ZV_LoginSide::Run(const std::string& sIn)
{
    ZV_LoginStep step;
    if (!m_lpSession)
    {
        step.sWhy = "the login had not begun";
        return step;
    }
    char* pOut = nullptr;
    size_t nOut = 0;
    const int nResult = gsasl_step(m_lpSession, sIn.data(), sIn.size(), &pOut, &nOut);
    if (nResult == GSASL_OK || nResult == GSASL_NEEDS_MORE)
    {
        step.eState = nResult == GSASL_OK ? ZV_LoginStep::State::Done : ZV_LoginStep::State::More;
        step.sData.assign(pOut ? pOut : "", pOut ? nOut : 0);
    }
    else
        step.sWhy = gsasl_strerror(nResult);
    gsasl_free(pOut);
    return step;
}

ZV_LoginServer::ZV_LoginServer(const ZV_Credentials& credentials, ZV_LoginKind eKind, ZV_ChannelBinding binding)
    : ZV_LoginSide(std::move(binding)), m_credentials(credentials), m_eKind(eKind)
{
}

ZV_LoginStep ZV_LoginServer::Start(const std::string& sMechanism, const std::string& sData)
{
    ZV_LoginStep step;
    const std::string sOffer = ZV_LoginMechanism(m_binding);
    if (sMechanism != sOffer)
    {
        step.sWhy = "it chose " + sMechanism + " where " + sOffer + " was offered";
        return step;
    }
    if (!Begin(true, sOffer.c_str()))
    {
        step.sWhy = "GNU SASL does not start " + sOffer;
        return step;
    }
    return Step(sData);
}

ZV_LoginStep ZV_LoginServer::Step(const std::string& sData)
{
    ZV_LoginStep step = Run(sData);
    if (const char* pszName = m_lpSession ? gsasl_property_fast(m_lpSession, GSASL_AUTHID) : nullptr)
        m_sName = pszName;
    if (step.eState == ZV_LoginStep::State::Refused && step.sWhy.empty())
        step.sWhy = "refused";
    if (step.eState == ZV_LoginStep::State::Refused && !m_sName.empty())
        step.sWhy = IsKnown() ? "its proof does not hold for " + std::string(KindWord(m_eKind)) + " \"" + m_sName +
                                    "\" (" + step.sWhy + ")"
                              : "no " + std::string(KindWord(m_eKind)) + " \"" + m_sName + "\" has credentials here";
    if (step.eState != ZV_LoginStep::State::Done)
        return step;
    // A login acts for the name it proved and for nobody else.
    const char* pszActAs = gsasl_property_fast(m_lpSession, GSASL_AUTHZID);
    if (!IsKnown() || (pszActAs && *pszActAs && m_sName != pszActAs))
    {
        step.eState = ZV_LoginStep::State::Refused;
        step.sWhy = "it asked to act as \"" + std::string(pszActAs ? pszActAs : "") + "\"";
    }
    return step;
}

bool ZV_LoginServer::Answer(int nProperty, std::string& sValue)
{
    const bool bKeys = nProperty == GSASL_SCRAM_ITER || nProperty == GSASL_SCRAM_SALT ||
                       nProperty == GSASL_SCRAM_STOREDKEY || nProperty == GSASL_SCRAM_SERVERKEY;
    if (bKeys && !m_lpKeys && m_decoy.sSalt.empty())
    {
        const char* pszName = gsasl_property_fast(m_lpSession, GSASL_AUTHID);
        m_sName = pszName ? pszName : "";
        m_lpKeys = m_credentials.Find(m_eKind, m_sName);
        if (!m_lpKeys)
        {
            // The same salt for the same name each time it is asked, as a
            // name that exists has; keys that match no secret.
            static const std::string sDecoyKey = Random(kKeySize);
            const std::string sWho = std::string(KindWord(m_eKind)) + " " + m_sName;
            unsigned char abMac[EVP_MAX_MD_SIZE];
            unsigned int nMac = 0;
            HMAC(EVP_sha256(), sDecoyKey.data(), (int)sDecoyKey.size(), (const unsigned char*)sWho.data(),
                 sWho.size(), abMac, &nMac);
            m_decoy = {ZV_Credentials::kIterations, std::string((const char*)abMac, kSaltSize), Random(kKeySize),
                       Random(kKeySize)};
        }
    }
    const ZV_ScramKeys& keys = m_lpKeys ? *m_lpKeys : m_decoy;
    switch (nProperty)
    {
    case GSASL_SCRAM_ITER: sValue = std::to_string(keys.ulIterations); return true;
    case GSASL_SCRAM_SALT: sValue = ToBase64(keys.sSalt); return true;
    case GSASL_SCRAM_STOREDKEY: sValue = ToBase64(keys.sStoredKey); return true;
    case GSASL_SCRAM_SERVERKEY: sValue = ToBase64(keys.sServerKey); return true;
    case GSASL_CB_TLS_EXPORTER:
        sValue = ToBase64(m_binding.sExporter);
        return !m_binding.sExporter.empty();
    default: return false;  // tls-unique among them: it has no meaning on TLS 1.3
    }
}

ZV_LoginClient::ZV_LoginClient(std::string sName, std::string sSecret, ZV_ChannelBinding binding)
    : ZV_LoginSide(std::move(binding)), m_sName(std::move(sName)), m_sSecret(std::move(sSecret))
{
}

ZV_LoginStep ZV_LoginClient::Start(const std::string& sOffer)
{
    ZV_LoginStep step;
    if (sOffer != GetMechanism())
        step.sWhy = "the server offers " + sOffer + " where this channel calls for " + GetMechanism();
    else if (!Begin(false, GetMechanism()))
        step.sWhy = std::string("GNU SASL does not start ") + GetMechanism();
    else
        step = Run({});
    return step;
}

// The client's first message was Start's; the server's challenge comes
// next, and its last word third, which alone may finish the login.
ZV_LoginStep ZV_LoginClient::Step(const std::string& sData)
{
    ZV_LoginStep step = Run(sData);
    const bool bLast = ++m_nSteps == 2;
    if (step.eState == ZV_LoginStep::State::Refused)
        step.sWhy = bLast ? "the server did not prove that it holds this secret's keys (" + step.sWhy + ")"
                          : "the server's challenge was not understood (" + step.sWhy + ")";
    else if ((step.eState == ZV_LoginStep::State::Done) != bLast)
    {
        step.eState = ZV_LoginStep::State::Refused;
        step.sWhy = "the server ended the login out of turn";
    }
    return step;
}

bool ZV_LoginClient::Answer(int nProperty, std::string& sValue)
{
    switch (nProperty)
    {
    case GSASL_AUTHID: sValue = m_sName; return true;
    case GSASL_PASSWORD: sValue = m_sSecret; return true;
    case GSASL_CB_TLS_EXPORTER:
        sValue = ToBase64(m_binding.sExporter);
        return !m_binding.sExporter.empty();
    default: return false;
    }
}

// ---------------------------------------------------------------------------
// ZV_LoginGuard

std::chrono::milliseconds ZV_LoginGuard::DelayOf(const std::string& sAddress, Clock::time_point tpNow)
{
    Forget(tpNow);
    const unsigned nFailures = FailuresOf(sAddress);
    return nFailures == 0 ? std::chrono::milliseconds(0) : m_msDelay * (1 << std::min(nFailures - 1, 5u));
}

void ZV_LoginGuard::Fail(const std::string& sAddress, Clock::time_point tpNow)
{
    Forget(tpNow);
    Entry& entry = m_mapAddresses[sAddress];
    ++entry.nFailures;
    entry.tpLast = tpNow;
    if (m_mapAddresses.size() <= kMaxAddresses)
        return;
    auto itOldest = std::min_element(m_mapAddresses.begin(), m_mapAddresses.end(),
                                     [](const auto& a, const auto& b) { return a.second.tpLast < b.second.tpLast; });
    m_mapAddresses.erase(itOldest);
}

unsigned ZV_LoginGuard::FailuresOf(const std::string& sAddress) const
{
    auto it = m_mapAddresses.find(sAddress);
    return it == m_mapAddresses.end() ? 0 : it->second.nFailures;
}

void ZV_LoginGuard::Forget(Clock::time_point tpNow)
{
    std::erase_if(m_mapAddresses, [tpNow](const auto& item) { return tpNow - item.second.tpLast > kMemory; });
}
