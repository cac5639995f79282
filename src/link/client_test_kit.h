// What the client's tests share: a handler that records what it gets, and a client with a session to a
// scripted engine.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/paths.h"
#include "base/sync.h"
#include "kit/fake_clock.h"
#include "kit/scripted_engine.h"
#include "link/engine_client.h"

namespace rq::link {

struct Handled {
    std::uint32_t id = 0;
    std::uint32_t sessionId = 0;
    std::string text;
    std::optional<TaskCommand> command;
};

// Any thread. `onCall`, set before the client is connected, runs inside each call after it was recorded.
class HandlerRecord {
  public:
    static constexpr std::chrono::seconds kPatience = kit::ScriptedEngine::kPatience;

    static void Handle(std::uint32_t id, const void* payload, void* context) {
        static_cast<HandlerRecord*>(context)->Record(id, payload);
    }
    std::vector<Handled> All() const {
        Signal::Hold hold(m_signal);
        return m_handled;
    }
    std::size_t Count(std::uint32_t id) const {
        std::size_t count = 0;
        for (const Handled& handled : All()) count += handled.id == id ? 1 : 0;
        return count;
    }
    // Bounded; whether that many calls have begun.
    bool WaitFor(std::size_t count) const {
        const SteadyTime deadline = SystemClock().Steady() + kPatience;
        Signal::Hold hold(m_signal);
        while (m_handled.size() < count)
            if (!m_signal.WaitUntil(hold, deadline)) break;
        return m_handled.size() >= count;
    }

    std::function<void(std::uint32_t id)> onCall;

  private:
    void Record(std::uint32_t id, const void* payload) {
        Handled handled{id, 0, {}, {}};
        if (id == TCP_SERVER_DISCONNECT_ID) {
            handled.sessionId = static_cast<const DisconnectPayload*>(payload)->sessionId;
        } else if (id == TCP_TASK_ADD_ID || id == TCP_TASK_UPDATE_ID) {
            const auto* text = static_cast<const TaskTextPayload*>(payload);
            handled.sessionId = text->sessionId;
            handled.text = text->text;
        } else {
            const auto* command = static_cast<const TaskCommandPayload*>(payload);
            handled.sessionId = command->sessionId;
            if (command->command != nullptr) handled.command = *command->command;
        }
        {
            Signal::Hold hold(m_signal);
            m_handled.push_back(handled);
            m_signal.Notify(hold);
        }
        if (onCall) onCall(id);
    }

    mutable Signal m_signal;
    std::vector<Handled> m_handled;
};

// A gate that a test opens.
class Gate {
  public:
    void Open() {
        Signal::Hold hold(m_signal);
        m_open = true;
        m_signal.Notify(hold);
    }
    // Whether it was opened in time.
    bool Pass() {
        const SteadyTime deadline = SystemClock().Steady() + HandlerRecord::kPatience;
        Signal::Hold hold(m_signal);
        while (!m_open)
            if (!m_signal.WaitUntil(hold, deadline)) break;
        m_signal.Notify(hold);  // for whoever waits as well
        return m_open;
    }

  private:
    Signal m_signal;
    bool m_open = false;
};

// The system's clock, which lets something happen on the I/O thread of a client that has it, where that asks
// for the time. Made, and connected first, on the test's thread.
class IoThreadClock final : public Clock {
  public:
    // Before the answer to the I/O thread's question after `skipped` further ones, once.
    void Arm(std::function<void()> act, int skipped = 0) {
        MutexLock lock(m_lock);
        m_act = std::move(act);
        m_skipped = skipped;
    }
    bool IsArmed() {
        MutexLock lock(m_lock);
        return m_act != nullptr;
    }

    SteadyTime Steady() override {
        if (const std::function<void()> act = Next()) act();
        return SystemClock().Steady();
    }
    LocalTime Local() override { return SystemClock().Local(); }
    void WaitUntil(boost::unique_lock<boost::mutex>& lock, boost::condition_variable& condition,
                   SteadyTime deadline) override {
        SystemClock().WaitUntil(lock, condition, deadline);
    }
    void SleepFor(std::chrono::milliseconds duration) override { SystemClock().SleepFor(duration); }

  private:
    std::function<void()> Next() {
        const std::thread::id self = std::this_thread::get_id();
        MutexLock lock(m_lock);
        if (self == m_owner) return nullptr;
        if (m_io == std::thread::id()) m_io = self;
        if (self != m_io || !m_act || m_skipped-- > 0) return nullptr;
        return std::exchange(m_act, nullptr);
    }

    const std::thread::id m_owner = std::this_thread::get_id();
    Mutex m_lock;
    std::thread::id m_io RQ_GUARDED_BY(m_lock);  // nobody else asks before the first connection
    std::function<void()> m_act RQ_GUARDED_BY(m_lock);
    int m_skipped RQ_GUARDED_BY(m_lock) = 0;
};

// A client whose handler is `handler`, for one test.
struct TestClient {
    explicit TestClient(const EngineClientOptions& options = {}, const std::wstring& logFile = {})
        : client(CreateEngineClient(options)) {
        const EngineClientSetup setup{&handler, &HandlerRecord::Handle, logFile};
        client->Initialize(&setup);
    }
    ~TestClient() { DeleteEngineClient(&client); }
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    std::uint32_t Connect(std::uint16_t port) {
        const EngineEndpoint endpoint{"127.0.0.1", port};
        return session = client->Connect(&endpoint);
    }
    bool SendProgress(float percent = 1) {
        const EngineProgressMessage message{
            4009, "process", "Worker", "Lite/Agent", {{"T", "", "", percent, 0}}};
        return client->SendMessage(session, TCP_WORKER_PROGRESS_ID, &message);
    }
    bool SendState(std::uint32_t status) {
        EngineStateMessage message{4009, "state", "Worker", "Lite/Agent", {}};
        message.entries.emplace_back().status = status;
        return client->SendMessage(session, TCP_WORKER_STATE_ID, &message);
    }

    HandlerRecord handler;
    IEngineCommunicate* client;
    std::uint32_t session = kNoSession;
};

// A clock for a connection that is made when Connect has given up: before, the link's own thread gets no
// time. Made on the test's thread.
class LateConnectionClock final : public Clock {
  public:
    SteadyTime Steady() override {
        if (std::this_thread::get_id() != m_test) m_gate.Pass();
        return m_fake.Steady();
    }
    LocalTime Local() override { return m_fake.Local(); }
    void WaitUntil(boost::unique_lock<boost::mutex>& lock, boost::condition_variable& condition,
                   SteadyTime deadline) override {
        m_fake.WaitUntil(lock, condition, deadline);
    }
    void SleepFor(std::chrono::milliseconds duration) override { m_fake.SleepFor(duration); }

    // Whether that came to pass.
    bool ConnectInVain(TestClient& test, const kit::ScriptedEngine& engine) {
        std::thread time([this] {
            m_fake.WaitForWaiters(1);
            m_fake.Advance(std::chrono::hours(1));
        });
        const std::uint32_t session = test.Connect(engine.Port());
        time.join();
        m_gate.Open();
        return session == kNoSession && engine.WaitForFrame(kHelloId);
    }

  private:
    const std::thread::id m_test = std::this_thread::get_id();
    kit::FakeClock m_fake;
    Gate m_gate;
};

}  // namespace rq::link
