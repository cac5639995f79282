// Listener: accepts TCP connections on loopback and hands each to a callback, up to a number at a time; what
// comes beyond that is closed at once. Runs on the I/O thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "base/result.h"

namespace rq::engine {

class Listener {
  public:
    using Socket = boost::asio::ip::tcp::socket;
    // Gets the connection and what is to be called once when it is closed.
    using OnConnection = std::function<void(Socket, std::function<void()>)>;

    Listener(boost::asio::io_context& io, std::size_t maxConnections, OnConnection onConnection);

    // Port 0: any free one. Begins to accept.
    Result<void> Listen(std::uint16_t port);
    std::uint16_t Port() const { return m_port; }
    std::size_t Connections() const { return *m_connections; }
    void Stop();

  private:
    void Accept();

    boost::asio::ip::tcp::acceptor m_acceptor;
    boost::asio::steady_timer m_pause;
    std::size_t m_maxConnections;
    OnConnection m_onConnection;
    std::uint16_t m_port = 0;
    std::shared_ptr<std::size_t> m_connections = std::make_shared<std::size_t>(0);
};

}  // namespace rq::engine
