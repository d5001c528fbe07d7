// ZV_NetLogin: logins of the network host, SCRAM-SHA-256 (RFC 5802, RFC
// 7677) through GNU SASL. A client proves its user's secret, and a linked
// server its link secret, without sending either; the server proves in turn
// that it holds the keys made from the same secret. On TLS the -PLUS form
// binds the login to the channel (tls-exporter, RFC 9266), so that a login
// relayed into another TLS session fails.
//
// The accepting side keeps no secret: per name the salt, the iteration count
// and the two keys SCRAM checks with (StoredKey, ServerKey), in a
// credentials file that `roomcrate-server passwd` writes.
//
// Failed logins are slowed down per address: ZV_LoginGuard.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

struct Gsasl_session;

// Whose login a name is: a user's, or a linked server's (named by its number).
enum class ZV_LoginKind
{
    User,
    Server,
};

// What a server keeps of one secret. Raw bytes.
struct ZV_ScramKeys
{
    uint32_t ulIterations = 0;
    std::string sSalt;
    std::string sStoredKey;
    std::string sServerKey;
};

class ZV_Credentials
{
public:
    // RFC 7677's least; a login costs this many HMACs at each end.
    static constexpr uint32_t kIterations = 4096;

    // A name the file can hold: not empty, no control character, no space
    // at either end.
    static bool IsGoodName(const std::string& sName);
    // The keys of a secret, under a fresh random salt.
    static ZV_ScramKeys Derive(const std::string& sSecret, uint32_t ulIterations = kIterations);

    // Reads a credentials file; false with a "FILE:LINE: reason" per problem.
    bool Load(const std::string& sPath, std::vector<std::string>& vecErrors);
    // Writes the file whole beside the old one and renames it over, readable
    // by its owner only; false with the reason.
    bool Save(const std::string& sPath, std::string& sError) const;

    const ZV_ScramKeys* Find(ZV_LoginKind eKind, const std::string& sName) const;
    void Put(ZV_LoginKind eKind, const std::string& sName, ZV_ScramKeys keys);
    bool IsEmpty() const { return m_map.empty(); }

private:
    std::map<std::pair<ZV_LoginKind, std::string>, ZV_ScramKeys> m_map;
};

// What ties a login to its TLS channel: the channel's tls-exporter value
// (32 bytes). A TLS channel without one (TLS 1.2 without the extended
// master secret) can carry no login.
struct ZV_ChannelBinding
{
    bool bTls = false;
    std::string sExporter;
    bool IsTls() const { return bTls; }
};

// The mechanism a side of this binding speaks: SCRAM-SHA-256-PLUS on TLS,
// SCRAM-SHA-256 in the clear.
const char* ZV_LoginMechanism(const ZV_ChannelBinding& binding);

struct ZV_LoginStep
{
    enum class State
    {
        More,     // sData goes to the other side, whose answer comes next
        Done,     // proved; sData (the server's last word) goes to the other side
        Refused,  // sWhy says why
    };
    State eState = State::Refused;
    std::string sData;
    std::string sWhy;
};

// One side of one login. Not copied: GNU SASL holds a pointer to it.
class ZV_LoginSide
{
public:
    ZV_LoginSide(const ZV_LoginSide&) = delete;
    ZV_LoginSide& operator=(const ZV_LoginSide&) = delete;

protected:
    explicit ZV_LoginSide(ZV_ChannelBinding binding) : m_binding(std::move(binding)) {}
    ~ZV_LoginSide();

    bool Begin(bool bServer, const char* pszMechanism);
    ZV_LoginStep Run(const std::string& sIn);
    // The value of a property GNU SASL asks for; false when this side has none.
    virtual bool Answer(int nProperty, std::string& sValue) = 0;

    Gsasl_session* m_lpSession = nullptr;
    ZV_ChannelBinding m_binding;

private:
    friend struct ZV_SaslCallback;
};

// The accepting side: checks a login against the credentials. A name the
// file does not hold gets keys that match no secret, so that the exchange
// looks the same for it to the end and tells nobody which names exist.
class ZV_LoginServer final : public ZV_LoginSide
{
public:
    ZV_LoginServer(const ZV_Credentials& credentials, ZV_LoginKind eKind, ZV_ChannelBinding binding);

    // The client's first message, under the mechanism it chose; then each
    // of its answers.
    ZV_LoginStep Start(const std::string& sMechanism, const std::string& sData);
    ZV_LoginStep Step(const std::string& sData);
    // The name the client gave; once done, the name it proved.
    const std::string& GetName() const { return m_sName; }
    // Whether the credentials know the name the client gave.
    bool IsKnown() const { return m_lpKeys != nullptr; }

private:
    bool Answer(int nProperty, std::string& sValue) override;

    const ZV_Credentials& m_credentials;
    ZV_LoginKind m_eKind;
    std::string m_sName;
    const ZV_ScramKeys* m_lpKeys = nullptr;
    ZV_ScramKeys m_decoy;
};

// The dialling side: proves a name's secret.
class ZV_LoginClient final : public ZV_LoginSide
{
public:
    ZV_LoginClient(std::string sName, std::string sSecret, ZV_ChannelBinding binding);

    // The server's offer of a mechanism; refused when it is not the one
    // this channel calls for (no SCRAM without -PLUS on TLS).
    ZV_LoginStep Start(const std::string& sOffer);
    // The server's challenge, then its last word, which proves it holds the
    // keys of this secret.
    ZV_LoginStep Step(const std::string& sData);
    const char* GetMechanism() const { return ZV_LoginMechanism(m_binding); }

private:
    bool Answer(int nProperty, std::string& sValue) override;

    std::string m_sName;
    std::string m_sSecret;
    int m_nSteps = 0;
};

// Failed logins per address. After a failure every login from that address
// waits before it is answered: the setting's delay, doubled with each
// further failure up to 32 times it. An address is forgotten a quarter of
// an hour after its last failure; a login that passes forgets nothing, so
// that an account of one's own does not buy more guesses at another's.
class ZV_LoginGuard
{
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::minutes kMemory{15};
    // Addresses remembered at most; the oldest go first.
    static constexpr size_t kMaxAddresses = 10000;

    explicit ZV_LoginGuard(std::chrono::milliseconds msDelay) : m_msDelay(msDelay) {}

    std::chrono::milliseconds DelayOf(const std::string& sAddress, Clock::time_point tpNow);
    void Fail(const std::string& sAddress, Clock::time_point tpNow);
    unsigned FailuresOf(const std::string& sAddress) const;

private:
    struct Entry
    {
        unsigned nFailures = 0;
        Clock::time_point tpLast;
    };
    void Forget(Clock::time_point tpNow);

    std::chrono::milliseconds m_msDelay;
    std::map<std::string, Entry> m_mapAddresses;
};
