#include "link/transport.h"

#include <atomic>
#include <boost/asio/buffer.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/write.hpp>
#include <exception>
#include <system_error>
#include <utility>

#include "base/sync.h"
#include "platform/error_text.h"
#include "platform/inherit.h"

namespace rq::link {

namespace asio = boost::asio;
using asio::ip::tcp;

bool IoThread::Start(std::function<void(std::string)> onFailure) {
    if (IsRunning()) return true;
    m_io.restart();
    m_work.emplace(m_io.get_executor());
    try {
        m_thread = std::thread([this, onFailure = std::move(onFailure)] { Run(onFailure); });
    } catch (const std::system_error&) {
        m_work.reset();
        return false;
    }
    return true;
}

namespace {

std::string TextOf(const std::exception_ptr& thrown) {
    try {
        std::rethrow_exception(thrown);
    } catch (const std::exception& exception) {
        return exception.what();
    } catch (...) {
        return "an unknown exception";
    }
}

}  // namespace

// What onFailure throws is a failure again: it is called until it has done what it has to.
void IoThread::Run(const std::function<void(std::string)>& onFailure) {
    std::exception_ptr thrown;
    for (;;) {
        try {
            if (thrown) onFailure(TextOf(std::exchange(thrown, nullptr)));
            m_io.run();
            return;
        } catch (...) {
            thrown = std::current_exception();
        }
    }
}

void IoThread::Stop() {
    if (!IsRunning()) return;
    asio::post(m_io, [this] { m_io.stop(); });
    m_thread.join();
    m_work.reset();
}

namespace {

// The system's call cannot be stopped: nobody waits for its thread, and one that never comes back must not be
// followed by another at each attempt.
constexpr int kLookUpsAtOnce = 4;
std::atomic<int> g_lookUps{0};

std::vector<tcp::endpoint> SystemLookUp(const std::string& host, std::uint16_t port,
                                        boost::system::error_code& error) {
    asio::io_context io;
    std::vector<tcp::endpoint> endpoints;
    for (const auto& entry : tcp::resolver(io).resolve(host, std::to_string(port), error))
        endpoints.push_back(entry.endpoint());
    return endpoints;
}

}  // namespace

// Where a look-up's thread leaves what it has found, for as long as somebody wants it. The thread reaches the
// connection through here alone.
struct Connection::Answer {
    void Give(const Error& error, Endpoints endpoints) {
        MutexLock lock(m_lock);
        if (!m_executor) return;
        asio::post(*m_executor, [connection = m_connection, error, endpoints = std::move(endpoints)] {
            const std::shared_ptr<Connection> self = connection.lock();
            if (!self) return;
            if (error) return self->Fail("resolve", error);
            self->ConnectTo(endpoints);
        });
    }
    void Forget() {
        MutexLock lock(m_lock);
        m_executor.reset();
    }

    Mutex m_lock;
    std::optional<tcp::socket::executor_type> m_executor RQ_GUARDED_BY(m_lock);
    std::weak_ptr<Connection> m_connection;  // used on the I/O thread only
};

Connection::Connection(asio::io_context& io, Listener* listener, HostLookUp lookUp)
    : m_listener(listener),
      m_socket(io),
      m_lookUp(lookUp ? std::move(lookUp) : HostLookUp(&SystemLookUp)),
      m_timer(io) {}

void Connection::Open(const std::string& address, std::uint16_t port) {
    Error notNumeric;
    const asio::ip::address numeric = asio::ip::make_address(address, notNumeric);
    if (!notNumeric) return ConnectTo({tcp::endpoint(numeric, port)});
    StartLookUp(address, port);
}

void Connection::StartLookUp(const std::string& host, std::uint16_t port) {
    m_answer = std::make_shared<Answer>();
    m_answer->m_connection = weak_from_this();
    {
        MutexLock lock(m_answer->m_lock);
        m_answer->m_executor = m_socket.get_executor();
    }
    const int before = g_lookUps.fetch_add(1);
    const std::shared_ptr<void> place(nullptr, [](void*) { --g_lookUps; });
    if (before >= kLookUpsAtOnce) return m_answer->Give(asio::error::already_started, {});
    try {
        std::thread([answer = m_answer, lookUp = m_lookUp, host, port, place] {
            Error error;
            try {
                Endpoints endpoints = lookUp(host, port, error);
                answer->Give(error, std::move(endpoints));
            } catch (...) {
                // No memory: whoever waits gives up when the time for connecting is over.
            }
        }).detach();
    } catch (const std::system_error& error) {
        m_answer->Give(error.code(), {});
    }
}

void Connection::ConnectTo(const Endpoints& endpoints) {
    if (m_listener == nullptr) return;
    asio::async_connect(
        m_socket, endpoints, [self = shared_from_this()](const Error& error, const tcp::endpoint&) {
            if (error) return self->Fail("connect", error);
            if (self->m_listener == nullptr) return;
            Error ignored;
            self->m_socket.set_option(tcp::no_delay(true), ignored);
            self->m_socket.non_blocking(true, ignored);
            // Else a program that a plug-in started would keep the connection open after the worker's end.
            platform::KeepFromChildren(static_cast<std::uintptr_t>(self->m_socket.native_handle()));
            self->Read();
            self->m_listener->OnConnected();
        });
}

void Connection::Read() {
    m_socket.async_read_some(asio::buffer(m_input),
                             [self = shared_from_this()](const Error& error, std::size_t size) {
                                 if (error) return self->Fail("read", error);
                                 if (self->m_listener == nullptr) return;
                                 self->m_listener->OnBytes(std::string_view(self->m_input.data(), size));
                                 if (self->m_listener != nullptr) self->Read();
                             });
}

bool Connection::Write(std::string bytes) {
    Error ignored;  // the read tells it, once it has given what the peer had sent
    const std::size_t written = m_socket.write_some(asio::buffer(bytes), ignored);
    if (written == bytes.size()) return true;
    m_output = std::move(bytes);
    m_isWriting = true;
    asio::async_write(m_socket, asio::buffer(m_output) + written,
                      [self = shared_from_this()](const Error& error, std::size_t) {
                          self->m_isWriting = false;
                          // A failed write says nothing by itself: the read still gives what the peer had
                          // sent, then reports the end.
                          if (!error && self->m_listener != nullptr) self->m_listener->OnWritten();
                      });
    return false;
}

void Connection::ShutdownSend() {
    Error ignored;
    m_socket.shutdown(tcp::socket::shutdown_send, ignored);
}

void Connection::Close() {
    m_listener = nullptr;
    if (m_answer) m_answer->Forget();
    m_timer.cancel();
    Error ignored;
    // What a peer does not read is given up with the connection, and holds nothing back.
    if (m_isWriting) m_socket.set_option(asio::socket_base::linger(true, 0), ignored);
    m_socket.cancel(ignored);
    m_socket.close(ignored);
}

void Connection::SetTimer(std::optional<SteadyTime> time, SteadyTime now) {
    // A timer that fires too early costs less than one that is set again with each frame.
    if (!time || (m_timerAt && *m_timerAt <= *time)) return;
    m_timerAt = time;
    m_timer.expires_after(*time - now);
    m_timer.async_wait([self = shared_from_this()](const Error& error) {
        if (error || self->m_listener == nullptr) return;
        self->m_timerAt.reset();
        self->m_listener->OnTimer();
    });
}

void Connection::Fail(const char* what, const Error& error) {
    if (m_listener == nullptr) return;
    Listener* listener = m_listener;
    Close();
    if (error == asio::error::eof) return listener->OnDisconnected("the engine closed the connection");
    listener->OnDisconnected(std::string(what) + ": " + platform::ErrorText(error));
}

}  // namespace rq::link
