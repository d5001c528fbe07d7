#include "ZV_NetConnection.h"

#include <spdlog/spdlog.h>

#include <algorithm>

namespace {

// Frames handed to the kernel in one write.
constexpr size_t kFramesPerWrite = 64;

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
                                   const ZV_NetLimits& limits)
    : m_socket(std::move(socket)),
      m_timer(m_socket.get_executor()),
      m_ulNumber(ulNumber),
      m_lpOwner(lpOwner),
      m_limits(limits),
      m_sName("connection " + std::to_string(ulNumber))
{
    asio::error_code ec;
    m_socket.set_option(asio::ip::tcp::no_delay(true), ec);
}

void ZV_NetConnection::Accept()
{
    ReadOpening(true);
}

void ZV_NetConnection::Dial(const ZV_NetHello& hello)
{
    m_hello = hello;
    const auto abHello = ZV_WriteHello(hello);
    Queue(std::vector<uint8_t>(abHello.begin(), abHello.end()));
    ReadOpening(false);
}

// A peer that says nothing is not let to hold a connection open for good.
void ZV_NetConnection::ReadOpening(bool bHello)
{
    auto lpSelf = shared_from_this();
    m_timer.expires_after(m_limits.msOpening);
    m_timer.async_wait([this, lpSelf](const asio::error_code& ec) {
        if (!ec && m_eState == State::Opening)
            Close("it did not open in time");
    });
    const size_t nSize = bHello ? kNetHelloSize : kNetWelcomeSize;
    asio::async_read(m_socket, asio::buffer(m_abOpening.data(), nSize),
                     [this, lpSelf, bHello](const asio::error_code& ec, size_t) {
                         if (ec)
                             return OnReadError(ec, bHello ? "before its hello" : "before its welcome");
                         m_timer.cancel();
                         TakeOpening(bHello);
                     });
}

void ZV_NetConnection::TakeOpening(bool bHello)
{
    if (m_eState != State::Opening)
        return;
    if (bHello)
    {
        ZV_NetFault eFault = ZV_ReadHello(m_abOpening.data(), m_hello);
        ZV_NetWelcome welcome;
        if (eFault == ZV_NetFault::UnknownVersion)
            welcome.usResult = zvNetUnknownVersion;
        else if (eFault != ZV_NetFault::None)
            return Close("its hello was refused: " + ZV_NetFaultText(eFault));
        else
            welcome = m_lpOwner->OnHello(*this, m_hello);
        const auto abWelcome = ZV_WriteWelcome(welcome);
        Queue(std::vector<uint8_t>(abWelcome.begin(), abWelcome.end()));
        if (welcome.usResult != zvNetAccepted)
            return Close("its hello was refused: " + ZV_NetResultText(welcome.usResult), true);
    }
    else
    {
        ZV_NetWelcome welcome;
        ZV_NetFault eFault = ZV_ReadWelcome(m_abOpening.data(), welcome);
        if (eFault != ZV_NetFault::None)
            return Close("its welcome was not understood: " + ZV_NetFaultText(eFault));
        if (welcome.usResult != zvNetAccepted)
            return Close("the server refused it: " + ZV_NetResultText(welcome.usResult));
        if (!m_lpOwner->OnWelcome(*this, welcome))
            return Close("its welcome did not fit");
    }
    m_eState = State::Open;
    ReadHead();
    m_lpOwner->OnOpened(*this);
}

void ZV_NetConnection::ReadHead()
{
    auto lpSelf = shared_from_this();
    asio::async_read(m_socket, asio::buffer(m_abHead), [this, lpSelf](const asio::error_code& ec, size_t nRead) {
        if (ec)
            return OnReadError(ec, nRead > 0 ? "inside a frame head" : nullptr);
        if (m_eState != State::Open)
            return;
        ZV_NetFault eFault = ZV_ReadFrameHead(m_abHead.data(), m_head);
        if (eFault != ZV_NetFault::None)
            return Close("a frame was refused: " + ZV_NetFaultText(eFault) + " (" + std::to_string(m_head.ulLen) +
                         ")");
        ReadPayload();
    });
}

void ZV_NetConnection::ReadPayload()
{
    auto lpSelf = shared_from_this();
    m_vbPayload.resize(m_head.ulLen);
    asio::async_read(m_socket, asio::buffer(m_vbPayload), [this, lpSelf](const asio::error_code& ec, size_t) {
        if (ec)
            return OnReadError(ec, m_head.ulLen > 0 ? "inside a frame" : nullptr);
        if (m_eState != State::Open)
            return;
        if (!m_lpOwner->OnFrame(*this, m_head, m_vbPayload.data()))
            return Close({});
        if (m_eState == State::Open)
            ReadAfterThrottle(kNetFrameHeadSize + m_head.ulLen);
    });
}

// A read rate holds the next read back until the bytes read so far fit it;
// the peer's side then fills up and its sender holds, as with a slow link.
void ZV_NetConnection::ReadAfterThrottle(size_t nBytes)
{
    if (m_limits.ullReadRate == 0)
        return ReadHead();
    const auto tpNow = std::chrono::steady_clock::now();
    m_tpNextRead = std::max(m_tpNextRead, tpNow) +
                   std::chrono::microseconds(nBytes * 1000000 / m_limits.ullReadRate);
    if (m_tpNextRead <= tpNow)
        return ReadHead();
    auto lpSelf = shared_from_this();
    m_timer.expires_at(m_tpNextRead);
    m_timer.async_wait([this, lpSelf](const asio::error_code& ec) {
        if (!ec && m_eState == State::Open)
            ReadHead();
    });
}

void ZV_NetConnection::OnReadError(const asio::error_code& ec, const char* pszWhere)
{
    if (m_eState == State::Closed || m_eState == State::Closing)
        return;
    if (pszWhere)
        Close("the stream ended " + std::string(pszWhere));
    else
        Close(ec == asio::error::eof ? "the peer closed it" : "it broke: " + ec.message());
}

bool ZV_NetConnection::Send(const ZV_NetFrameHead& head, const uint8_t* pData)
{
    if (m_eState != State::Open)
        return false;
    std::vector<uint8_t> vbFrame(kNetFrameHeadSize + head.ulLen);
    const auto abHead = ZV_WriteFrameHead(head);
    std::copy(abHead.begin(), abHead.end(), vbFrame.begin());
    if (head.ulLen > 0)
        std::copy(pData, pData + head.ulLen, vbFrame.begin() + kNetFrameHeadSize);
    Queue(std::move(vbFrame));
    if (m_nQueued <= m_limits.nQueueHardLimit)
        return true;
    Close("its peer does not read: " + std::to_string(m_nQueued) + " bytes queued");
    return false;
}

void ZV_NetConnection::Queue(std::vector<uint8_t> vbFrame)
{
    m_nQueued += vbFrame.size();
    m_queue.push_back(std::move(vbFrame));
    if (m_nWriting == 0)
        WriteNext();
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
    auto lpSelf = shared_from_this();
    asio::async_write(m_socket, vecBuffers, [this, lpSelf](const asio::error_code& ec, size_t) {
        const bool bWasFull = IsFull();
        for (size_t i = 0; i < m_nWriting; ++i)
        {
            m_nQueued -= m_queue.front().size();
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

void ZV_NetConnection::Close(const std::string& sReason, bool bFlush)
{
    if (m_eState == State::Closed || m_eState == State::Closing)
        return;
    if (!sReason.empty())
        spdlog::info("{} closed: {}", m_sName, sReason);
    m_eState = State::Closing;
    m_timer.cancel();
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
    m_socket.shutdown(asio::ip::tcp::socket::shutdown_both, ec);
    m_socket.close(ec);
    m_timer.cancel();
    // A write under way still holds its frames; its end lets them go.
    if (m_nWriting == 0)
    {
        m_queue.clear();
        m_nQueued = 0;
    }
    auto lpSelf = shared_from_this();
    asio::post(m_socket.get_executor(), [this, lpSelf] { m_lpOwner->OnClosed(*this); });
}
