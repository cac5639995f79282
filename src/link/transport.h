// The link's sockets: one I/O thread (IoThread) and one TCP connection on it (Connection). Everything of a
// Connection is called on the I/O thread, its listener too; IoThread's operations are for any thread but the
// I/O thread itself, Post for that too.
#pragma once

#include <array>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/clock.h"

namespace rq::link {

class IoThread {
  public:
    IoThread() = default;
    ~IoThread() { Stop(); }
    IoThread(const IoThread&) = delete;
    IoThread& operator=(const IoThread&) = delete;

    // False when no thread can be started. `onFailure` is called on the thread with what was thrown into it.
    bool Start(std::function<void(std::string)> onFailure);
    // Runs what is already due, then ends the thread and joins it. Nothing posted later runs.
    void Stop();
    bool IsRunning() const { return m_thread.joinable(); }
    template <class Work>
    void Post(Work work) {
        boost::asio::post(m_io, std::move(work));
    }
    boost::asio::io_context& Io() { return m_io; }

  private:
    void Run(const std::function<void(std::string)>& onFailure);

    boost::asio::io_context m_io{1};
    std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> m_work;
    std::thread m_thread;
};

// The addresses of a host name, on a thread of its own; what fails is told in the error.
using HostLookUp = std::function<std::vector<boost::asio::ip::tcp::endpoint>(
    const std::string& host, std::uint16_t port, boost::system::error_code& error)>;

class Connection : public std::enable_shared_from_this<Connection> {
  public:
    class Listener {
      public:
        virtual void OnConnected() = 0;
        virtual void OnBytes(std::string_view bytes) = 0;
        virtual void OnWritten() = 0;
        // The connection failed or the peer closed it. Nothing comes after it.
        virtual void OnDisconnected(std::string reason) = 0;
        virtual void OnTimer() = 0;

      protected:
        ~Listener() = default;
    };

    // `listener` outlives the I/O thread or is let go by Close(), before which a connection must not go. An
    // empty look-up is the system's.
    Connection(boost::asio::io_context& io, Listener* listener, HostLookUp lookUp = {});

    void Open(const std::string& address, std::uint16_t port);
    // One at a time. True when the system has taken everything at once; else the next after OnWritten.
    bool Write(std::string bytes);
    void ShutdownSend();
    // The listener hears nothing more.
    void Close();
    // OnTimer comes at `time`, or earlier: at a time that was wanted before this one, or because the timer is
    // armed for `time` - `now`, which may be those of any clock, and that clock has not come so far. It then
    // sets the timer again. Without a time nothing is wanted.
    void SetTimer(std::optional<SteadyTime> time, SteadyTime now);

  private:
    using Error = boost::system::error_code;
    using Endpoints = std::vector<boost::asio::ip::tcp::endpoint>;
    struct Answer;

    void StartLookUp(const std::string& host, std::uint16_t port);
    void ConnectTo(const Endpoints& endpoints);
    void Read();
    void Fail(const char* what, const Error& error);

    Listener* m_listener;
    boost::asio::ip::tcp::socket m_socket;
    HostLookUp m_lookUp;
    std::shared_ptr<Answer> m_answer;  // of a look-up that is under way
    boost::asio::steady_timer m_timer;
    std::optional<SteadyTime> m_timerAt;
    std::array<char, std::size_t{64} * 1024> m_input{};
    std::string m_output;
    bool m_isWriting = false;
};

}  // namespace rq::link
