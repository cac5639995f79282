// The thread on which the worker's message handler is called, one message at a time and in order. Push and
// the operations of the loss are the I/O thread's; any other belongs to the client's owner.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <thread>
#include <variant>

#include "base/sync.h"
#include "link/codec.h"
#include "link/engine_communicate.h"

namespace rq::link {

// The session is over: becomes TCP_SERVER_DISCONNECT_ID.
struct ServerLost {};

struct Delivery {
    std::uint64_t connection = 0;  // which of the client's connections it came by
    std::uint32_t sessionId = kNoSession;
    std::uint64_t seq = 0;
    std::uint32_t id = 0;
    std::variant<Order, ServerLost> content;
};

class HandlerThread {
  public:
    HandlerThread() = default;
    ~HandlerThread() { Stop(); }
    HandlerThread(const HandlerThread&) = delete;
    HandlerThread& operator=(const HandlerThread&) = delete;

    // `onHanded` is called on this thread after the handler has returned from an order. False when no thread
    // can be started. A null handler takes everything and does nothing.
    bool Start(EngineMessageHandler handler, void* context, std::function<void(const Delivery&)> onHanded);
    void Push(Delivery delivery);
    // Keeps what is to be told at the loss of a session that begins, so that PushLoss needs no memory. The
    // newest one counts.
    void ReserveLoss(Delivery loss);
    void ForgetLoss();
    bool HasLoss();
    // Pushes it, once; nothing without one.
    void PushLoss();
    // Drops what waits and lets nothing new begin; a call that runs goes on.
    void Refuse();
    // Refuse(), then waits for the end of the thread.
    void Stop();
    bool IsRunning() const { return m_thread.joinable(); }
    bool IsThisThread() const { return m_thread.get_id() == std::this_thread::get_id(); }

  private:
    void Run();
    bool Next(Delivery* delivery);
    void Call(const Delivery& delivery);

    EngineMessageHandler m_handler = nullptr;
    void* m_context = nullptr;
    std::function<void(const Delivery&)> m_onHanded;
    Signal m_signal;
    std::list<Delivery> m_waiting RQ_GUARDED_BY(m_signal);
    std::list<Delivery> m_loss RQ_GUARDED_BY(m_signal);  // one at most
    bool m_refuse RQ_GUARDED_BY(m_signal) = false;
    std::thread m_thread;
};

}  // namespace rq::link
