#include "engine/listener.h"

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
    : m_acceptor(io),
      m_pause(io),
      m_onConnection(std::move(onConnection)),
      m_places(std::make_shared<Places>(limits)) {}

Result<void> Listener::Listen(std::uint16_t port) {
    using boost::asio::ip::tcp;
    const tcp::endpoint endpoint(boost::asio::ip::address_v4::loopback(), port);
    boost::system::error_code error;
    m_acceptor.close(error);  // of an earlier try
    m_acceptor.open(endpoint.protocol(), error);
    if (!error && !platform::PrepareListening(static_cast<std::uintptr_t>(m_acceptor.native_handle())))
        return Fail("cannot listen: the system refuses to prepare a socket");
    if (!error) m_acceptor.bind(endpoint, error);
    if (!error) m_acceptor.listen(boost::asio::socket_base::max_listen_connections, error);
    if (!error) m_acceptor.non_blocking(true, error);
    if (!error) m_port = m_acceptor.local_endpoint(error).port();
    if (error) {
        return Fail("cannot listen on 127.0.0.1:" + std::to_string(port) + ": " + platform::ErrorText(error) +
                    " (another port may be given, 0 takes a free one)");
    }
    Accept();
    return {};
}

void Listener::Accept() {
    m_acceptor.async_accept([this](const boost::system::error_code& error, Socket socket) {
        if (error == boost::asio::error::operation_aborted) return;
        if (error) {
            m_places->SendOneAway();
            m_pause.expires_after(kAcceptPause);
            m_pause.async_wait([this](const boost::system::error_code& stopped) {
                if (!stopped) Accept();
            });
            return;
        }
        Take(std::move(socket));
        AcceptWaiting();
        Accept();
    });
}

void Listener::AcceptWaiting() {
    for (int taken = 1; taken < kAtOnce && m_acceptor.is_open(); ++taken) {
        boost::system::error_code error;
        Socket socket(m_acceptor.get_executor());
        m_acceptor.accept(socket, error);
        if (error) return;
        Take(std::move(socket));
    }
}

void Listener::Take(Socket socket) {
    m_onConnection(std::move(socket), m_places->Enter());
}

void Listener::Stop() {
    boost::system::error_code ignored;
    m_acceptor.close(ignored);
    m_pause.cancel();
}

}  // namespace rq::engine
