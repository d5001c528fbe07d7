// A TCP relay on loopback that a test can cut (no connection held or taken)
// and restore on the same port. It keeps what the first connection sent, as
// someone on the way would see it.
#pragma once

#include <asio.hpp>

#include <future>
#include <list>
#include <memory>
#include <string>
#include <thread>

class ZV_TestProxy
{
public:
    ZV_TestProxy(uint16_t usPort, uint16_t usTarget) : m_usTarget(usTarget), m_usPort(usPort), m_acceptor(m_io)
    {
        Listen(m_usPort);
        m_thread = std::thread([this] {
            auto work = asio::make_work_guard(m_io);
            m_io.run();
        });
    }
    ~ZV_TestProxy()
    {
        OnThread([this] {
            Drop();
            m_io.stop();
        });
        m_thread.join();
    }

    std::string GetAddress() const { return "127.0.0.1:" + std::to_string(m_usPort); }
    void Cut() { OnThread([this] { Drop(); }); }
    void Restore() { OnThread([this] { Listen(m_usPort); }); }
    std::string Recorded()
    {
        std::string sRecorded;
        OnThread([&] { sRecorded = m_sRecorded; });
        return sRecorded;
    }

private:
    struct Pair
    {
        explicit Pair(asio::io_context& io) : client(io), server(io) {}
        asio::ip::tcp::socket client;
        asio::ip::tcp::socket server;
        bool bRecorded = false;
        std::array<char, 65536> abUp{}, abDown{};
    };

    template <typename F>
    void OnThread(F&& fn)
    {
        std::promise<void> done;
        asio::post(m_io, [&] {
            fn();
            done.set_value();
        });
        done.get_future().wait();
    }

    // The port may take a moment to be free again after a cut.
    void Listen(uint16_t usPort)
    {
        const asio::ip::tcp::endpoint endpoint(asio::ip::address_v4::loopback(), usPort);
        for (int nTry = 0;; ++nTry)
        {
            asio::error_code ec;
            m_acceptor.open(endpoint.protocol(), ec);
            m_acceptor.set_option(asio::ip::tcp::acceptor::reuse_address(true), ec);
            m_acceptor.bind(endpoint, ec);
            if (!ec)
                m_acceptor.listen(asio::socket_base::max_listen_connections, ec);
            if (!ec || nTry == 100)
                break;
            m_acceptor.close(ec);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        Accept();
    }

    void Drop()
    {
        asio::error_code ec;
        m_acceptor.close(ec);
        for (auto& lpPair : m_pairs)
        {
            lpPair->client.close(ec);
            lpPair->server.close(ec);
        }
        m_pairs.clear();
    }

    void Accept()
    {
        auto lpPair = std::make_shared<Pair>(m_io);
        m_acceptor.async_accept(lpPair->client, [this, lpPair](const asio::error_code& ec) {
            if (ec)
                return;
            Accept();
            m_pairs.push_back(lpPair);
            lpPair->bRecorded = !m_bRecording;
            m_bRecording = true;
            const asio::ip::tcp::endpoint target(asio::ip::address_v4::loopback(), m_usTarget);
            lpPair->server.async_connect(target, [this, lpPair](const asio::error_code& ecConnect) {
                if (ecConnect)
                    return;
                Relay(lpPair, lpPair->client, lpPair->server, lpPair->abUp);
                Relay(lpPair, lpPair->server, lpPair->client, lpPair->abDown);
            });
        });
    }

    void Relay(std::shared_ptr<Pair> lpPair, asio::ip::tcp::socket& from, asio::ip::tcp::socket& to,
               std::array<char, 65536>& abBuffer)
    {
        from.async_read_some(asio::buffer(abBuffer), [=, this, &from, &to, &abBuffer](const asio::error_code& ec,
                                                                                        size_t nRead) {
            asio::error_code ecClose;
            if (ec)
            {
                to.shutdown(asio::ip::tcp::socket::shutdown_send, ecClose);
                return;
            }
            if (lpPair->bRecorded && &from == &lpPair->client && m_sRecorded.size() < kRecordLimit)
                m_sRecorded.append(abBuffer.data(), nRead);
            asio::async_write(to, asio::buffer(abBuffer.data(), nRead),
                              [=, this, &from, &to, &abBuffer](const asio::error_code& ecWrite, size_t) {
                                  if (!ecWrite)
                                      Relay(lpPair, from, to, abBuffer);
                              });
        });
    }

    static constexpr size_t kRecordLimit = 1 << 16;
    uint16_t m_usTarget;
    uint16_t m_usPort = 0;
    bool m_bRecording = false;
    std::string m_sRecorded;
    asio::io_context m_io;
    asio::ip::tcp::acceptor m_acceptor;
    std::list<std::shared_ptr<Pair>> m_pairs;
    std::thread m_thread;
};
