// Listener: accepts TCP connections and hands each to a callback, with a place among the others. Runs on the
// I/O thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "base/result.h"
#include "engine/places.h"

namespace rq::engine {

class Listener {
  public:
    using Socket = boost::asio::ip::tcp::socket;
    using OnConnection = std::function<void(Socket, std::unique_ptr<Place>)>;

    Listener(boost::asio::io_context& io, const Places::Limits& limits, OnConnection onConnection);

    // Begins to accept on 127.0.0.1 and on `further`, an address or nothing, at the same port; 0: a free one.
    Result<void> Listen(std::uint16_t port, const std::string& further = {});
    std::uint16_t Port() const { return m_port; }
    const Places& Visitors() const { return *m_places; }
    void Stop();

  private:
    struct Door {
        explicit Door(boost::asio::io_context& io) : acceptor(io), pause(io) {}
        boost::asio::ip::tcp::acceptor acceptor;
        boost::asio::steady_timer pause;
    };

    Result<void> Open(const boost::asio::ip::address& address);
    void Accept(Door& door);
    void AcceptWaiting(Door& door);
    void Take(Socket socket);

    boost::asio::io_context& m_io;
    std::list<Door> m_doors;
    OnConnection m_onConnection;
    std::uint16_t m_port = 0;
    std::shared_ptr<Places> m_places;
};

}  // namespace rq::engine
