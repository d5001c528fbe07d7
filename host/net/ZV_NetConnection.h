// ZV_NetConnection: one TCP connection of the network host. It opens with a
// TLS handshake when its host has TLS, then the hello, the login when the
// accepting side asks for one, and the welcome; then it reads frames one at
// a time and hands each whole to its owner, and writes what the owner
// queues, in order.
//
// A peer's bytes are checked here before the owner sees them: a hello or a
// frame head that is wrong, a login that does not prove its name, a payload
// longer than a module sends, or a stream that ends inside a frame closes
// the connection with a log line. The owner hears of a connection only once
// its login, if one was asked, went through: OnHello names who it proved.
// What the owner queues is counted until the kernel took it, so that the
// owner can hold its OnSend pump while the count is at the bound; a peer
// that lets the count grow past the hard limit (it stopped reading, while
// the other side kept sending it answers) is closed rather than let the
// memory grow.
//
// Everything runs on the thread of the io_context; nothing here locks.
#pragma once

#include "ZV_NetTls.h"
#include "ZV_NetWire.h"

#include <asio.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

class ZV_NetConnection;

// A dial towards a port of this machine where nothing listens may be given
// that very port as its own and connect to itself; such a socket is closed
// and the dial tried again.
bool ZV_IsSelfConnected(asio::ip::tcp::socket& socket);

class ZV_NetConnectionOwner
{
public:
    // Accepting side: the answer to a hello, after the login when one was
    // asked (GetLogin names who it proved). Anything but zvNetAccepted is
    // written and the connection closed.
    virtual ZV_NetWelcome OnHello(ZV_NetConnection& conn, const ZV_NetHello& hello);
    // Dialling side: false closes the connection.
    virtual bool OnWelcome(ZV_NetConnection& conn, const ZV_NetWelcome& welcome);
    // Both sides, once the opening is through; frames may be queued now.
    virtual void OnOpened(ZV_NetConnection& conn) = 0;
    // A whole frame; false closes the connection (the owner logs why).
    virtual bool OnFrame(ZV_NetConnection& conn, const ZV_NetFrameHead& head, const uint8_t* pData) = 0;
    // The queued bytes went below the bound.
    virtual void OnRoom(ZV_NetConnection& conn) {}
    // Once, when the connection is gone for whatever reason.
    virtual void OnClosed(ZV_NetConnection& conn) = 0;

protected:
    ~ZV_NetConnectionOwner() = default;
};

struct ZV_NetLimits
{
    // Bytes queued on one connection at which the OnSend pump holds.
    size_t nQueueBound = 1u << 20;
    // Bytes queued at which the connection is closed.
    size_t nQueueHardLimit = 16u << 20;
    // Time a peer has for its hello or welcome.
    std::chrono::milliseconds msOpening{10000};
    // Bytes a second this side reads at most; 0 is no limit.
    uint64_t ullReadRate = 0;
};

// What the connections of one host share for their openings.
struct ZV_NetSecurity
{
    // TLS on every connection when set: the accepting side's certificate,
    // or the dialling side's trust.
    std::shared_ptr<asio::ssl::context> lpTls;
    // Accepting side: every connection logs in when set.
    const ZV_Credentials* lpCredentials = nullptr;
    ZV_LoginGuard* lpGuard = nullptr;
};

// Whom the dialling side logs in as; without a name it has nothing to log
// in with, and takes a server that asks for no login.
struct ZV_NetLoginAs
{
    std::string sName;
    std::string sSecret;
};

class ZV_NetConnection : public std::enable_shared_from_this<ZV_NetConnection>
{
public:
    // Why a dialled connection closed before it opened, where dialling again
    // would end the same way.
    enum class Failure
    {
        None,
        Refused,    // the server refused the login
        Untrusted,  // the server did not prove who it is
    };

    ZV_NetConnection(asio::ip::tcp::socket socket, uint32_t ulNumber, ZV_NetConnectionOwner* lpOwner,
                     const ZV_NetLimits& limits, const ZV_NetSecurity& security);
    ZV_NetConnection(const ZV_NetConnection&) = delete;
    ZV_NetConnection& operator=(const ZV_NetConnection&) = delete;

    // The accepting side waits for a hello; the dialling side sends one,
    // and on TLS takes only a certificate for sHost.
    void Accept();
    void Dial(const ZV_NetHello& hello, ZV_NetLoginAs loginAs, const std::string& sHost);

    uint32_t GetNumber() const { return m_ulNumber; }
    // What the connection is, for log lines; the owner names it once known.
    const std::string& GetName() const { return m_sName; }
    void SetName(std::string sName) { m_sName = std::move(sName); }
    const ZV_NetHello& GetHello() const { return m_hello; }
    bool IsOpen() const { return m_eState == State::Open; }
    // The peer's IP address, as failed logins are counted by.
    const std::string& GetAddress() const { return m_sAddress; }
    // Accepting side: the name the peer's login proved; empty when no
    // login was asked.
    const std::string& GetLogin() const { return m_sLogin; }
    Failure GetFailure() const { return m_eFailure; }

    // Queues a frame; false when the connection is closed or closes now.
    bool Send(const ZV_NetFrameHead& head, const uint8_t* pData);
    size_t GetQueuedBytes() const { return m_nQueued; }
    bool IsFull() const { return m_nQueued >= m_limits.nQueueBound; }

    // Closes with a log line (empty: none), after what is queued went out
    // when bFlush is set; the owner hears OnClosed once, from the io_context.
    void Close(const std::string& sReason, bool bFlush = false);

private:
    enum class State
    {
        Opening,
        Open,
        Closing,
        Closed,
    };

    asio::ip::tcp::socket& Socket() { return m_lpTls ? m_lpTls->next_layer() : m_socket; }
    template <typename Buffers, typename Handler>
    void AsyncRead(const Buffers& buffers, Handler&& fnHandler);
    template <typename Buffers, typename Handler>
    void AsyncWrite(const Buffers& buffers, Handler&& fnHandler);

    // The opening, accepting side.
    void ArmDeadline(std::chrono::milliseconds msLeft);
    void Handshake(bool bAccept);
    void ReadHello();
    void TakeHello();
    void AskLogin();
    void OfferLogin();
    void ReadLogin();
    void TakeLogin(const std::string& sMechanism, const std::string& sData);
    void RefuseLogin(const std::string& sWhy);
    void SendWelcome(ZV_NetWelcome welcome, const std::string& sLoginData);
    void AnswerHello(const std::string& sLoginData);
    // The opening, dialling side.
    void SendHello();
    void ReadWelcome();
    void TakeWelcome(const ZV_NetWelcome& welcome, const std::string& sData);
    void Distrust(const std::string& sWhy);
    void Opened();

    void ReadFrames();
    void MakeRoom();
    bool Throttled(size_t nBytes);
    void Queue(std::vector<uint8_t> vbFrame);
    void Spare(std::vector<uint8_t> vbFrame);
    void WriteNext();
    void OnReadError(const asio::error_code& ec, const char* pszWhere);
    void Finish();

    asio::ip::tcp::socket m_socket;  // in the clear; on TLS the stream holds it
    std::unique_ptr<ZV_TlsStream> m_lpTls;
    asio::steady_timer m_timer;      // the read rate's, and a login's wait
    asio::steady_timer m_deadline;   // the opening's
    uint32_t m_ulNumber;
    ZV_NetConnectionOwner* m_lpOwner;
    ZV_NetLimits m_limits;
    ZV_NetSecurity m_security;
    std::string m_sName;
    std::string m_sAddress;
    State m_eState = State::Opening;
    Failure m_eFailure = Failure::None;
    ZV_NetHello m_hello;
    ZV_ChannelBinding m_binding;
    ZV_NetLoginAs m_loginAs;
    std::unique_ptr<ZV_LoginServer> m_lpLoginServer;
    bool m_bLoginBegun = false;
    std::unique_ptr<ZV_LoginClient> m_lpLoginClient;
    std::string m_sLogin;
    std::array<uint8_t, std::max(kNetHelloSize, kNetWelcomeSize)> m_abOpening{};
    std::vector<uint8_t> m_vbOpening;
    std::vector<uint8_t> m_vbRead;  // frames read and not yet handed on: [m_nReadBegin, m_nReadEnd)
    size_t m_nReadBegin = 0;
    size_t m_nReadEnd = 0;
    std::deque<std::vector<uint8_t>> m_queue;
    std::vector<std::vector<uint8_t>> m_vecSpare;  // buffers of frames written, for the next
    size_t m_nSpare = 0;                            // their capacity
    size_t m_nQueued = 0;
    size_t m_nWriting = 0;  // frames of the queue's front in the write under way
    bool m_bWriteDue = false;
    std::vector<uint8_t> m_vbTlsOut;  // the frames of a write on TLS, in one piece
    std::chrono::steady_clock::time_point m_tpNextRead{};
};
