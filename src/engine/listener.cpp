#include "engine/listener.h"

#include <string>

#include "platform/error_text.h"
#include "platform/listening.h"

namespace rq::engine {

namespace {

// Until the next try when the system has no room for another connection.
constexpr std::chrono::milliseconds kAcceptPause(100);

}  // namespace

Listener::Listener(boost::asio::io_context& io, std::size_t maxConnections, OnConnection onConnection)
    : m_acceptor(io),
      m_pause(io),
      m_maxConnections(maxConnections),
      m_onConnection(std::move(onConnection)) {}

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
            m_pause.expires_after(kAcceptPause);
            m_pause.async_wait([this](const boost::system::error_code& stopped) {
                if (!stopped) Accept();
            });
            return;
        }
        if (*m_connections < m_maxConnections) {
            ++*m_connections;
            m_onConnection(std::move(socket), [count = m_connections] { --*count; });
        }
        Accept();
    });
}

void Listener::Stop() {
    boost::system::error_code ignored;
    m_acceptor.close(ignored);
    m_pause.cancel();
}

}  // namespace rq::engine
