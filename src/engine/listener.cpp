#include "engine/listener.h"

#include <boost/asio/ip/v6_only.hpp>
#include <string>

#include "platform/error_text.h"
#include "platform/listening.h"

namespace rq::engine {

namespace {

// Until the next try when the system has no room for another connection.
constexpr std::chrono::milliseconds kAcceptPause(100);
// Connections that are taken in one go. Those that wait in the system's queue have all to be taken before a
// new one has its turn, and a flood is to be taken in faster than it comes.
constexpr int kAtOnce = 64;

}  // namespace

Listener::Listener(boost::asio::io_context& io, const Places::Limits& limits, OnConnection onConnection)
    : m_io(io), m_onConnection(std::move(onConnection)), m_places(std::make_shared<Places>(limits)) {}

Result<void> Listener::Listen(std::uint16_t port, const std::string& further) {
    using boost::asio::ip::address_v4;
    m_port = port;
    m_doors.clear();  // of an earlier try
    boost::system::error_code error;
    const auto address = boost::asio::ip::make_address(further, error);
    if (!further.empty() && error) return Fail("\"" + further + "\" is not an address to listen on");
    // Every IPv4 address includes the one that workers and rqctl connect to.
    const bool isAll = !further.empty() && address == address_v4::any();
    if (!isAll) {
        if (auto opened = Open(address_v4::loopback()); !opened) return opened;
    }
    if (!further.empty() && address != address_v4::loopback()) {
        if (auto opened = Open(address); !opened) return opened;
    }
    for (auto& door : m_doors) Accept(door);
    return {};
}

Result<void> Listener::Open(const boost::asio::ip::address& address) {
    using boost::asio::ip::tcp;
    const tcp::endpoint endpoint(address, m_port);
    auto& acceptor = m_doors.emplace_back(m_io).acceptor;
    boost::system::error_code error;
    acceptor.open(endpoint.protocol(), error);
    if (!error && !platform::PrepareListening(static_cast<std::uintptr_t>(acceptor.native_handle())))
        return Fail("cannot listen: the system refuses to prepare a socket");
    if (!error && address.is_v6()) acceptor.set_option(boost::asio::ip::v6_only(true), error);
    if (!error) acceptor.bind(endpoint, error);
    if (!error) acceptor.listen(boost::asio::socket_base::max_listen_connections, error);
    if (!error) acceptor.non_blocking(true, error);
    if (!error) m_port = acceptor.local_endpoint(error).port();
    if (error) {
        const std::string host = address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
        return Fail("cannot listen on " + host + ":" + std::to_string(m_port) + ": " +
                    platform::ErrorText(error) + " (another port may be given, 0 takes a free one)");
    }
    return {};
}

void Listener::Accept(Door& door) {
    door.acceptor.async_accept([this, &door](const boost::system::error_code& error, Socket socket) {
        if (error == boost::asio::error::operation_aborted) return;
        if (error) {
            m_places->SendOneAway();
            door.pause.expires_after(kAcceptPause);
            door.pause.async_wait([this, &door](const boost::system::error_code& stopped) {
                if (!stopped) Accept(door);
            });
            return;
        }
        Take(std::move(socket));
        AcceptWaiting(door);
        Accept(door);
    });
}

void Listener::AcceptWaiting(Door& door) {
    for (int taken = 1; taken < kAtOnce && door.acceptor.is_open(); ++taken) {
        boost::system::error_code error;
        Socket socket(m_io);
        door.acceptor.accept(socket, error);
        if (error) return;
        Take(std::move(socket));
    }
}

void Listener::Take(Socket socket) {
    m_onConnection(std::move(socket), m_places->Enter());
}

void Listener::Stop() {
    for (auto& door : m_doors) {
        boost::system::error_code ignored;
        door.acceptor.close(ignored);
        door.pause.cancel();
    }
}

}  // namespace rq::engine
