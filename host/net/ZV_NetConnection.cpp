#include "ZV_NetConnection.h"

#include "IZV_FileShare.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <cstring>

namespace {

// Frames handed to the kernel in one write.
constexpr size_t kFramesPerWrite = 64;
// What one read may take: a few of the longest frames on a connection that
// carries a bulk transfer, and a little on one that does not.
constexpr size_t kReadBuffer = 4 * (kNetFrameHeadSize + kNetMaxPayload);
constexpr size_t kFirstReadBuffer = 4096;

}  // namespace

bool ZV_IsSelfConnected(asio::ip::tcp::socket& socket)
{
    asio::error_code ecLocal, ecRemote;
    const bool bSelf = socket.local_endpoint(ecLocal) == socket.remote_endpoint(ecRemote) && !ecLocal && !ecRemote;
    if (bSelf)
        socket.close(ecLocal);
    return bSelf;
}

ZV_NetWelcome ZV_NetConnectionOwner::OnHello(ZV_NetConnection&, const ZV_NetHello&)
{
    ZV_NetWelcome welcome;
    welcome.usResult = zvNetWrongKind;
    return welcome;
}

bool ZV_NetConnectionOwner::OnWelcome(ZV_NetConnection&, const ZV_NetWelcome&)
{
    return false;
}

ZV_NetConnection::ZV_NetConnection(asio::ip::tcp::socket socket, uint32_t ulNumber, ZV_NetConnectionOwner* lpOwner,
                                   const ZV_NetLimits& limits, const ZV_NetSecurity& security)
    : m_socket(std::move(socket)),
      m_timer(m_socket.get_executor()),
      m_deadline(m_socket.get_executor()),
      m_ulNumber(ulNumber),
      m_lpOwner(lpOwner),
      m_limits(limits),
      m_security(security),
      m_sName("connection " + std::to_string(ulNumber))
{
    asio::error_code ec;
    m_socket.set_option(asio::ip::tcp::no_delay(true), ec);
    const auto endpoint = m_socket.remote_endpoint(ec);
    m_sAddress = ec ? "?" : endpoint.address().to_string();
    if (m_security.lpTls)
        m_lpTls = std::make_unique<ZV_TlsStream>(std::move(m_socket), *m_security.lpTls);
}

template <typename Buffers, typename Handler>
void ZV_NetConnection::AsyncRead(const Buffers& buffers, Handler&& fnHandler)
{
    if (m_lpTls)
        asio::async_read(*m_lpTls, buffers, std::forward<Handler>(fnHandler));
    else
        asio::async_read(m_socket, buffers, std::forward<Handler>(fnHandler));
}

template <typename Buffers, typename Handler>
void ZV_NetConnection::AsyncWrite(const Buffers& buffers, Handler&& fnHandler)
{
    if (m_lpTls)
        asio::async_write(*m_lpTls, buffers, std::forward<Handler>(fnHandler));
    else
        asio::async_write(m_socket, buffers, std::forward<Handler>(fnHandler));
}

// ---------------------------------------------------------------------------
// The opening

void ZV_NetConnection::Accept()
{
    ArmDeadline(m_limits.msOpening);
    if (m_lpTls)
        return Handshake(true);
    ReadHello();
}

void ZV_NetConnection::Dial(const ZV_NetHello& hello, ZV_NetLoginAs loginAs, const std::string& sHost)
{
    m_hello = hello;
    m_loginAs = std::move(loginAs);
    ArmDeadline(m_limits.msOpening);
    if (!m_lpTls)
        return SendHello();
    ZV_ExpectPeerName(*m_lpTls, sHost);
    Handshake(false);
}

// A peer that says nothing, or takes its time over a login, is not let to
// hold a connection open for good.
void ZV_NetConnection::ArmDeadline(std::chrono::milliseconds msLeft)
{
    auto lpSelf = shared_from_this();
    m_deadline.expires_after(msLeft);
    m_deadline.async_wait([this, lpSelf](const asio::error_code& ec) {
        if (!ec && m_eState == State::Opening)
            Close("it did not open in time");
    });
}

void ZV_NetConnection::Handshake(bool bAccept)
{
    auto lpSelf = shared_from_this();
    m_lpTls->async_handshake(bAccept ? asio::ssl::stream_base::server : asio::ssl::stream_base::client,
                             [this, lpSelf, bAccept](const asio::error_code& ec) {
                                 if (m_eState != State::Opening)
                                     return;
                                 if (ec)
                                 {
                                     bool bUntrusted = false;
                                     const std::string sWhy = ZV_TlsFailure(*m_lpTls, ec, bUntrusted);
                                     if (bUntrusted)
                                         m_eFailure = Failure::Untrusted;
                                     return Close(sWhy);
                                 }
                                 m_binding = ZV_BindingOf(m_lpTls->native_handle());
                                 if (bAccept)
                                     ReadHello();
                                 else
                                     SendHello();
                             });
}

void ZV_NetConnection::ReadHello()
{
    auto lpSelf = shared_from_this();
    AsyncRead(asio::buffer(m_abOpening.data(), kNetHelloSize), [this, lpSelf](const asio::error_code& ec, size_t) {
        if (ec)
            return OnReadError(ec, "before its hello");
        TakeHello();
    });
}

void ZV_NetConnection::TakeHello()
{
    if (m_eState != State::Opening)
        return;
    const ZV_NetFault eFault = ZV_ReadHello(m_abOpening.data(), m_hello);
    if (eFault == ZV_NetFault::UnknownVersion)
    {
        ZV_NetWelcome welcome;
        welcome.usResult = zvNetUnknownVersion;
        SendWelcome(welcome, {});
        return Close("its hello was refused: " + ZV_NetResultText(welcome.usResult), true);
    }
    if (eFault != ZV_NetFault::None)
        return Close("its hello was refused: " + ZV_NetFaultText(eFault));
    if (m_security.lpCredentials)
        return AskLogin();
    AnswerHello({});
}

// An address that failed to log in lately waits before its login is even
// offered; the opening's deadline waits as long on top.
void ZV_NetConnection::AskLogin()
{
    const auto msWait = m_security.lpGuard ? m_security.lpGuard->DelayOf(m_sAddress, ZV_LoginGuard::Clock::now())
                                           : std::chrono::milliseconds(0);
    if (msWait.count() == 0)
        return OfferLogin();
    spdlog::warn("{}: failed logins from {} lately: {}; its login waits {} ms", m_sName, m_sAddress,
                 m_security.lpGuard->FailuresOf(m_sAddress), msWait.count());
    ArmDeadline(msWait + m_limits.msOpening);
    auto lpSelf = shared_from_this();
    m_timer.expires_after(msWait);
    m_timer.async_wait([this, lpSelf](const asio::error_code& ec) {
        if (!ec && m_eState == State::Opening)
            OfferLogin();
    });
}

// A server link logs in under its server's number, a client under its
// user's name; each in the credentials' own table.
void ZV_NetConnection::OfferLogin()
{
    const bool bServer = m_hello.usKind == zvConfServerTypeCommand || m_hello.usKind == zvConfServerTypeData;
    m_lpLoginServer = std::make_unique<ZV_LoginServer>(
        *m_security.lpCredentials, bServer ? ZV_LoginKind::Server : ZV_LoginKind::User, m_binding);
    ZV_NetWelcome welcome;
    welcome.usResult = zvNetLogIn;
    SendWelcome(welcome, ZV_LoginMechanism(m_binding));
    ReadLogin();
}

void ZV_NetConnection::ReadLogin()
{
    auto lpSelf = shared_from_this();
    AsyncRead(asio::buffer(m_abOpening.data(), kNetLoginHeadSize), [this, lpSelf](const asio::error_code& ec, size_t) {
        if (ec)
            return OnReadError(ec, "inside its login");
        if (m_eState != State::Opening)
            return;
        ZV_NetLoginHead head;
        const ZV_NetFault eFault = ZV_ReadLoginHead(m_abOpening.data(), head);
        if (eFault != ZV_NetFault::None)
            return RefuseLogin(ZV_NetFaultText(eFault));
        m_vbOpening.resize(head.bMechanismLen + head.usDataLen);
        AsyncRead(asio::buffer(m_vbOpening), [this, lpSelf, head](const asio::error_code& ecBody, size_t) {
            if (ecBody)
                return OnReadError(ecBody, "inside its login");
            if (m_eState != State::Opening)
                return;
            const char* p = (const char*)m_vbOpening.data();
            TakeLogin(std::string(p, head.bMechanismLen), std::string(p + head.bMechanismLen, head.usDataLen));
        });
    });
}

void ZV_NetConnection::TakeLogin(const std::string& sMechanism, const std::string& sData)
{
    const bool bFirst = !m_bLoginBegun;
    if (bFirst != !sMechanism.empty())
        return RefuseLogin("its login names a mechanism out of turn");
    m_bLoginBegun = true;
    const ZV_LoginStep step = bFirst ? m_lpLoginServer->Start(sMechanism, sData) : m_lpLoginServer->Step(sData);
    switch (step.eState)
    {
    case ZV_LoginStep::State::More:
    {
        ZV_NetWelcome welcome;
        welcome.usResult = zvNetLogIn;
        SendWelcome(welcome, step.sData);
        return ReadLogin();
    }
    case ZV_LoginStep::State::Refused: return RefuseLogin(step.sWhy);
    case ZV_LoginStep::State::Done:
        m_sLogin = m_lpLoginServer->GetName();
        m_lpLoginServer.reset();
        return AnswerHello(step.sData);
    }
}

void ZV_NetConnection::RefuseLogin(const std::string& sWhy)
{
    if (m_security.lpGuard)
        m_security.lpGuard->Fail(m_sAddress, ZV_LoginGuard::Clock::now());
    spdlog::warn("{} closed: its login was refused: {}", m_sName, sWhy);
    ZV_NetWelcome welcome;
    welcome.usResult = zvNetLoginRefused;
    SendWelcome(welcome, {});
    Close({}, true);
}

void ZV_NetConnection::SendWelcome(ZV_NetWelcome welcome, const std::string& sLoginData)
{
    welcome.usLoginLen = (uint16_t)sLoginData.size();
    const auto abWelcome = ZV_WriteWelcome(welcome);
    std::vector<uint8_t> vb(abWelcome.begin(), abWelcome.end());
    vb.insert(vb.end(), sLoginData.begin(), sLoginData.end());
    Queue(std::move(vb));
}

// The owner's answer, with the server's last word of the login when it
// lets the peer in.
void ZV_NetConnection::AnswerHello(const std::string& sLoginData)
{
    const ZV_NetWelcome welcome = m_lpOwner->OnHello(*this, m_hello);
    const bool bAccepted = welcome.usResult == zvNetAccepted;
    SendWelcome(welcome, bAccepted ? sLoginData : std::string());
    // A login of one user that asks in another's name counts as a failed
    // one: it is a try at someone else's account.
    if (welcome.usResult == zvNetNotThatUser && m_security.lpGuard)
    {
        m_security.lpGuard->Fail(m_sAddress, ZV_LoginGuard::Clock::now());
        spdlog::warn("{} closed: its login as \"{}\" is not the one its hello names", m_sName, m_sLogin);
        return Close({}, true);
    }
    if (!bAccepted)
        return Close("its hello was refused: " + ZV_NetResultText(welcome.usResult), true);
    Opened();
}

void ZV_NetConnection::SendHello()
{
    const auto abHello = ZV_WriteHello(m_hello);
    Queue(std::vector<uint8_t>(abHello.begin(), abHello.end()));
    ReadWelcome();
}

void ZV_NetConnection::ReadWelcome()
{
    auto lpSelf = shared_from_this();
    AsyncRead(asio::buffer(m_abOpening.data(), kNetWelcomeSize), [this, lpSelf](const asio::error_code& ec, size_t) {
        if (ec)
            return OnReadError(ec, "before its welcome");
        if (m_eState != State::Opening)
            return;
        ZV_NetWelcome welcome;
        const ZV_NetFault eFault = ZV_ReadWelcome(m_abOpening.data(), welcome);
        if (eFault != ZV_NetFault::None)
            return Close("its welcome was not understood: " + ZV_NetFaultText(eFault));
        m_vbOpening.resize(welcome.usLoginLen);
        AsyncRead(asio::buffer(m_vbOpening), [this, lpSelf, welcome](const asio::error_code& ecData, size_t) {
            if (ecData)
                return OnReadError(ecData, "inside its welcome");
            if (m_eState == State::Opening)
                TakeWelcome(welcome, std::string(m_vbOpening.begin(), m_vbOpening.end()));
        });
    });
}

void ZV_NetConnection::TakeWelcome(const ZV_NetWelcome& welcome, const std::string& sData)
{
    if (welcome.usResult == zvNetLogIn)
    {
        if (m_loginAs.sName.empty())
        {
            m_eFailure = Failure::Refused;
            return Close("the server asks for a login, and this side has none to give");
        }
        std::string sMechanism;
        ZV_LoginStep step;
        if (!m_lpLoginClient)
        {
            m_lpLoginClient = std::make_unique<ZV_LoginClient>(m_loginAs.sName, m_loginAs.sSecret, m_binding);
            step = m_lpLoginClient->Start(sData);
            sMechanism = m_lpLoginClient->GetMechanism();
        }
        else
            step = m_lpLoginClient->Step(sData);
        if (step.eState != ZV_LoginStep::State::More)
            return Distrust(step.sWhy);
        const auto abHead = ZV_WriteLoginHead({(uint8_t)sMechanism.size(), (uint16_t)step.sData.size()});
        std::vector<uint8_t> vb(abHead.begin(), abHead.end());
        vb.insert(vb.end(), sMechanism.begin(), sMechanism.end());
        vb.insert(vb.end(), step.sData.begin(), step.sData.end());
        Queue(std::move(vb));
        return ReadWelcome();
    }
    if (welcome.usResult != zvNetAccepted)
    {
        if (welcome.usResult == zvNetLoginRefused || welcome.usResult == zvNetNotThatUser)
            m_eFailure = Failure::Refused;
        return Close("the server refused it: " + ZV_NetResultText(welcome.usResult));
    }
    // A side with a secret takes only a server that proves it holds the
    // keys of that secret.
    if (!m_loginAs.sName.empty() && !m_lpLoginClient)
        return Distrust("the server let it in without a login, and so proved nothing of itself");
    if (m_lpLoginClient)
    {
        const ZV_LoginStep step = m_lpLoginClient->Step(sData);
        if (step.eState != ZV_LoginStep::State::Done)
            return Distrust(step.sWhy);
        m_lpLoginClient.reset();
    }
    if (!m_lpOwner->OnWelcome(*this, welcome))
        return Close("its welcome did not fit");
    Opened();
}

void ZV_NetConnection::Distrust(const std::string& sWhy)
{
    m_eFailure = Failure::Untrusted;
    Close("its login failed: " + sWhy);
}

void ZV_NetConnection::Opened()
{
    m_deadline.cancel();
    m_eState = State::Open;
    m_vbRead.resize(kFirstReadBuffer);
    ReadFrames();
    m_lpOwner->OnOpened(*this);
}

// ---------------------------------------------------------------------------
// Frames

// Reads take what the socket holds, up to the buffer, and hand on every
// whole frame in it; a frame is handed on from the buffer itself. A bulk
// transfer so costs one read for several blocks rather than two for each.
void ZV_NetConnection::ReadFrames()
{
    while (m_eState == State::Open && m_nReadEnd - m_nReadBegin >= kNetFrameHeadSize)
    {
        const uint8_t* pFrame = m_vbRead.data() + m_nReadBegin;
        ZV_NetFrameHead head;
        const ZV_NetFault eFault = ZV_ReadFrameHead(pFrame, head);
        if (eFault != ZV_NetFault::None)
            return Close("a frame was refused: " + ZV_NetFaultText(eFault) + " (" + std::to_string(head.ulLen) +
                         ")");
        const size_t nFrame = kNetFrameHeadSize + head.ulLen;
        if (m_nReadEnd - m_nReadBegin < nFrame)
            break;
        m_nReadBegin += nFrame;
        if (!m_lpOwner->OnFrame(*this, head, pFrame + kNetFrameHeadSize))
            return Close({});
        if (Throttled(nFrame))
            return;
    }
    if (m_eState != State::Open)
        return;
    MakeRoom();
    auto lpSelf = shared_from_this();
    auto fnRead = [this, lpSelf](const asio::error_code& ec, size_t nRead) {
        // A read that filled the buffer left more behind: a bulk transfer,
        // which takes fewer reads with a larger buffer.
        if (m_nReadEnd + nRead == m_vbRead.size() && m_vbRead.size() < kReadBuffer)
            m_vbRead.resize(std::min(2 * m_vbRead.size(), kReadBuffer));
        m_nReadEnd += nRead;
        const size_t nKept = m_nReadEnd - m_nReadBegin;
        if (ec)
            return OnReadError(ec, nKept == 0 ? nullptr : nKept < kNetFrameHeadSize ? "inside a frame head"
                                                                                     : "inside a frame");
        if (m_eState == State::Open)
            ReadFrames();
    };
    const auto buffer = asio::buffer(m_vbRead.data() + m_nReadEnd, m_vbRead.size() - m_nReadEnd);
    if (m_lpTls)
        m_lpTls->async_read_some(buffer, std::move(fnRead));
    else
        m_socket.async_read_some(buffer, std::move(fnRead));
}

// The frame under way fits behind what is kept, and a read has room.
void ZV_NetConnection::MakeRoom()
{
    size_t nNeed = kNetFrameHeadSize;
    if (m_nReadEnd - m_nReadBegin >= kNetFrameHeadSize)
    {
        ZV_NetFrameHead head;
        ZV_ReadFrameHead(m_vbRead.data() + m_nReadBegin, head);
        nNeed += head.ulLen;
    }
    if (m_nReadBegin == m_nReadEnd)
        m_nReadBegin = m_nReadEnd = 0;
    else if (m_vbRead.size() - m_nReadBegin < nNeed || m_nReadEnd == m_vbRead.size())
    {
        std::memmove(m_vbRead.data(), m_vbRead.data() + m_nReadBegin, m_nReadEnd - m_nReadBegin);
        m_nReadEnd -= m_nReadBegin;
        m_nReadBegin = 0;
    }
    if (m_vbRead.size() < nNeed)
        m_vbRead.resize(nNeed);
}

// A read rate holds the frames back until the bytes taken so far fit it;
// the peer's side then fills up and its sender holds, as with a slow link.
bool ZV_NetConnection::Throttled(size_t nBytes)
{
    if (m_limits.ullReadRate == 0)
        return false;
    const auto tpNow = std::chrono::steady_clock::now();
    m_tpNextRead = std::max(m_tpNextRead, tpNow) +
                   std::chrono::microseconds(nBytes * 1000000 / m_limits.ullReadRate);
    if (m_tpNextRead <= tpNow)
        return false;
    auto lpSelf = shared_from_this();
    m_timer.expires_at(m_tpNextRead);
    m_timer.async_wait([this, lpSelf](const asio::error_code& ec) {
        if (!ec && m_eState == State::Open)
            ReadFrames();
    });
    return true;
}

void ZV_NetConnection::OnReadError(const asio::error_code& ec, const char* pszWhere)
{
    if (m_eState == State::Closed || m_eState == State::Closing)
        return;
    if (pszWhere)
        Close("the stream ended " + std::string(pszWhere));
    else
        Close(ec == asio::error::eof || ec == asio::ssl::error::stream_truncated ? "the peer closed it"
                                                                                  : "it broke: " + ec.message());
}

bool ZV_NetConnection::Send(const ZV_NetFrameHead& head, const uint8_t* pData)
{
    if (m_eState != State::Open)
        return false;
    std::vector<uint8_t> vbFrame;
    if (!m_vecSpare.empty())
    {
        vbFrame = std::move(m_vecSpare.back());
        m_vecSpare.pop_back();
        m_nSpare -= vbFrame.capacity();
        vbFrame.clear();
    }
    const auto abHead = ZV_WriteFrameHead(head);
    vbFrame.insert(vbFrame.end(), abHead.begin(), abHead.end());
    if (head.ulLen > 0)
        vbFrame.insert(vbFrame.end(), pData, pData + head.ulLen);
    Queue(std::move(vbFrame));
    if (m_nQueued <= m_limits.nQueueHardLimit)
        return true;
    Close("its peer does not read: " + std::to_string(m_nQueued) + " bytes queued");
    return false;
}

// The write waits for the handlers already due, so that what they queue
// (a block and the notices about it) goes out in one write.
void ZV_NetConnection::Queue(std::vector<uint8_t> vbFrame)
{
    m_nQueued += vbFrame.size();
    m_queue.push_back(std::move(vbFrame));
    if (m_nWriting > 0 || m_bWriteDue)
        return;
    m_bWriteDue = true;
    asio::post(m_timer.get_executor(), [this, lpSelf = shared_from_this()] {
        m_bWriteDue = false;
        if (m_nWriting == 0)
            WriteNext();
    });
}

void ZV_NetConnection::WriteNext()
{
    if (m_queue.empty() || m_eState == State::Closed)
    {
        if (m_eState == State::Closing)
            Finish();
        return;
    }
    std::vector<asio::const_buffer> vecBuffers;
    m_nWriting = std::min(m_queue.size(), kFramesPerWrite);
    for (size_t i = 0; i < m_nWriting; ++i)
        vecBuffers.push_back(asio::buffer(m_queue[i]));
    // TLS writes one buffer at a time, and ends a record with each: the
    // frames go as one piece, so that records are whole and few.
    if (m_lpTls && m_nWriting > 1)
    {
        m_vbTlsOut.clear();
        for (size_t i = 0; i < m_nWriting; ++i)
            m_vbTlsOut.insert(m_vbTlsOut.end(), m_queue[i].begin(), m_queue[i].end());
        vecBuffers.assign(1, asio::buffer(m_vbTlsOut));
    }
    auto lpSelf = shared_from_this();
    AsyncWrite(vecBuffers, [this, lpSelf](const asio::error_code& ec, size_t) {
        const bool bWasFull = IsFull();
        for (size_t i = 0; i < m_nWriting; ++i)
        {
            m_nQueued -= m_queue.front().size();
            Spare(std::move(m_queue.front()));
            m_queue.pop_front();
        }
        m_nWriting = 0;
        if (m_eState == State::Closed)
        {
            m_queue.clear();
            m_nQueued = 0;
            return;
        }
        if (ec)
        {
            if (m_eState == State::Closing)
                Finish();
            else
                Close("it broke while writing: " + ec.message());
            return;
        }
        if (bWasFull && !IsFull() && m_eState == State::Open)
            m_lpOwner->OnRoom(*this);
        WriteNext();
    });
}

// Frames written leave their buffers for the next ones, up to the queue's
// bound, so that a bulk transfer neither allocates nor clears a buffer per
// frame.
void ZV_NetConnection::Spare(std::vector<uint8_t> vbFrame)
{
    if (m_nSpare + vbFrame.capacity() > m_limits.nQueueBound)
        return;
    m_nSpare += vbFrame.capacity();
    m_vecSpare.push_back(std::move(vbFrame));
}

void ZV_NetConnection::Close(const std::string& sReason, bool bFlush)
{
    if (m_eState == State::Closed || m_eState == State::Closing)
        return;
    if (!sReason.empty())
        spdlog::info("{} closed: {}", m_sName, sReason);
    m_eState = State::Closing;
    m_timer.cancel();
    m_deadline.cancel();
    if (bFlush && m_nWriting == 0 && !m_queue.empty())
        WriteNext();
    if (!bFlush || m_nWriting == 0)
        Finish();
    // Otherwise the write under way finishes the close when the queue is out.
}

// The owner hears of the end from the io_context, never from inside one of
// its own calls into the connection.
void ZV_NetConnection::Finish()
{
    if (m_eState == State::Closed)
        return;
    m_eState = State::Closed;
    asio::error_code ec;
    Socket().shutdown(asio::ip::tcp::socket::shutdown_both, ec);
    Socket().close(ec);
    m_timer.cancel();
    m_deadline.cancel();
    // A write under way still holds its frames; its end lets them go.
    if (m_nWriting == 0)
    {
        m_queue.clear();
        m_nQueued = 0;
    }
    auto lpSelf = shared_from_this();
    asio::post(m_timer.get_executor(), [this, lpSelf] { m_lpOwner->OnClosed(*this); });
}
