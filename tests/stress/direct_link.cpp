#include <atomic>
#include <thread>

#include "base/sync.h"
#include "records/engine_messages.h"
#include "stress/link.h"

namespace rq::stress {
namespace {

constexpr std::uint32_t kSession = 7;

class DirectLink final : public Link, private IEngineCommunicate {
  public:
    explicit DirectLink(const Draw& draw) : m_draw(draw) {}

    // ---- Link ----
    IEngineCommunicate& Client() override { return *this; }
    bool WaitForWorker() override { return m_reached.WaitFor(std::chrono::minutes(1)); }
    void Give(const PlannedOrder& order) override {
        MutexLock lock(m_handlerLock);
        if (m_isRefused) return;
        m_given.push_back(order.id);
        switch (order.id) {
            case TCP_SERVER_DISCONNECT_ID:
                m_given.pop_back();
                return Lose();
            case TCP_TASK_ADD_ID:
            case TCP_TASK_UPDATE_ID:
                return GiveText(order);
            default:
                return GiveCommand(order);
        }
    }
    void LetFinalsPass() override { m_finalsPass = true; }
    const std::vector<std::uint32_t>& Given() const override { return m_given; }

  private:
    void Initialize(const EngineClientSetup* setup) override { m_setup = *setup; }
    std::uint32_t Connect(const EngineEndpoint*) override {
        if (m_connects++ < m_draw.failingConnects) return kNoSession;
        m_reached.Notify();
        std::this_thread::sleep_for(m_draw.connectDelay);
        return kSession;
    }
    void Disconnect() override {
        MutexLock lock(m_handlerLock);  // a call that runs is waited for
        m_isRefused = true;
    }
    void Uninitialize() override {}
    bool SendMessage(std::uint32_t session, std::uint32_t id, const void* record) override {
        if (session == kNoSession || m_isLost) return false;
        if (m_draw.holdsFinals && !m_finalsPass && id == TCP_WORKER_STATE_ID &&
            static_cast<const EngineStateMessage*>(record)->entries.at(0).status != kTaskRunning)
            return false;
        return m_draw.refusesEach == 0 || m_sends++ % (m_draw.refusesEach + 1) != 0;
    }

    void Lose() RQ_REQUIRES(m_handlerLock) {
        m_isLost = true;
        m_isRefused = true;
        const DisconnectPayload payload{kSession};
        Handle(TCP_SERVER_DISCONNECT_ID, &payload);
    }
    void GiveText(const PlannedOrder& order) {
        const std::string text = m_draw.Text(order.task);
        const TaskTextPayload payload{kSession, 0, order.isBare ? nullptr : text.c_str()};
        Handle(order.id, order.isBare && order.manner == 0 ? nullptr : &payload);
    }
    void GiveCommand(const PlannedOrder& order) {
        TaskCommand command;
        command.taskIds = {"T0", m_draw.tasks.front().id};
        const TaskCommandPayload payload{kSession, 0, order.isBare ? nullptr : &command};
        Handle(order.id, order.isBare && order.manner == 0 ? nullptr : &payload);
    }
    void Handle(std::uint32_t id, const void* payload) { m_setup.handler(id, payload, m_setup.context); }

    const Draw& m_draw;
    EngineClientSetup m_setup;
    int m_connects = 0;
    Signal m_reached;
    Mutex m_handlerLock;
    bool m_isRefused RQ_GUARDED_BY(m_handlerLock) = false;
    std::atomic<bool> m_isLost = false;
    std::atomic<bool> m_finalsPass = false;
    std::atomic<std::uint32_t> m_sends = 0;
    std::vector<std::uint32_t> m_given;  // the giver's
};

}  // namespace

std::unique_ptr<Link> MakeDirectLink(const Draw& draw) {
    return std::make_unique<DirectLink>(draw);
}

}  // namespace rq::stress
