// The link's transport on the simulation's network: the same operations as the real one has (IoThread and
// Connection), for the engine client that is compiled into the simulation. No sockets; everything of a
// Connection is called on the I/O thread, its listener too.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "base/clock.h"

namespace rq::sim {
class Socket;
}

namespace rq::link {

class Connection;

// There are no names to be looked up.
using HostLookUp = std::function<void()>;

class IoThread {
  public:
    IoThread() = default;
    ~IoThread() { Stop(); }
    IoThread(const IoThread&) = delete;
    IoThread& operator=(const IoThread&) = delete;

    bool Start(std::function<void(std::string)> onFailure);
    void Stop();
    bool IsRunning() const { return m_thread.joinable(); }
    template <class Work>
    void Post(Work work) {
        Take(std::function<void()>(std::move(work)));
    }
    IoThread& Io() { return *this; }

    // The thread calls OnTimerDue of the connection at that time; one timer for all.
    void SetTimer(std::weak_ptr<Connection> connection, std::optional<SteadyTime> time);

  private:
    void Take(std::function<void()> work);
    void Run();
    bool TimerIsDue() const;

    std::deque<std::function<void()>> m_work;
    std::weak_ptr<Connection> m_timed;
    std::optional<SteadyTime> m_timer;
    bool m_isStopped = false;
    std::thread m_thread;
};

class Connection : public std::enable_shared_from_this<Connection> {
  public:
    class Listener {
      public:
        virtual void OnConnected() = 0;
        virtual void OnBytes(std::string_view bytes) = 0;
        virtual void OnWritten() = 0;
        virtual void OnDisconnected(std::string reason) = 0;
        virtual void OnTimer() = 0;

      protected:
        ~Listener() = default;
    };

    Connection(IoThread& io, Listener* listener, const HostLookUp&) : m_io(io), m_listener(listener) {}

    void Open(const std::string& address, std::uint16_t port);
    bool Write(std::string bytes);
    void ShutdownSend();
    void Close();
    void SetTimer(std::optional<SteadyTime> time, SteadyTime now);

    void OnTimerDue();
    // From the network: `what` runs on the I/O thread unless the connection is closed by then.
    void Happens(std::function<void(Listener&)> what);
    // The same; nothing comes after it.
    void Ends(std::string reason);

  private:
    IoThread& m_io;
    Listener* m_listener;
    std::shared_ptr<sim::Socket> m_socket;
    std::optional<SteadyTime> m_timerAt;
};

}  // namespace rq::link
