// Listener: accepts TCP connections and hands each to a callback, with a place among the others. Runs on the
// I/O thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <functional>
#include <memory>

#include "base/result.h"
#include "engine/places.h"

namespace rq::engine {

class Listener {
  public:
    using Socket = boost::asio::ip::tcp::socket;
    using OnConnection = std::function<void(Socket, std::unique_ptr<Place>)>;

    Listener(boost::asio::io_context& io, const Places::Limits& limits, OnConnection onConnection);

    // Port 0: any free one. Begins to accept.
    Result<void> Listen(std::uint16_t port);
    std::uint16_t Port() const { return m_port; }
    const Places& Visitors() const { return *m_places; }
    void Stop();

  private:
    void Accept();
    void AcceptWaiting();
    void Take(Socket socket);

    boost::asio::ip::tcp::acceptor m_acceptor;
    boost::asio::steady_timer m_pause;
    OnConnection m_onConnection;
    std::uint16_t m_port = 0;
    std::shared_ptr<Places> m_places;
};

}  // namespace rq::engine
