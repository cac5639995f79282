#include "kit/scripted_engine.h"
#include "link/engine_client.h"
#include "stress/link.h"
#include "worker/worker_base.h"

namespace rq::stress {
namespace {

link::EngineClientOptions Options() {
    link::EngineClientOptions options;
    options.workerVersion = "1";
    options.finalWait = std::chrono::milliseconds(100);
    options.disconnectWait = std::chrono::milliseconds(200);
    return options;
}

class SocketLink final : public Link {
  public:
    explicit SocketLink(const Draw& draw) : m_draw(draw), m_client(Options()) {
        if (m_draw.holdsFinals) m_engine.HoldFinals(true);
        ProcessCommandLine().ServerPortOverride = m_engine.Port();
    }
    ~SocketLink() override { ProcessCommandLine().ServerPortOverride = 0; }

    IEngineCommunicate& Client() override { return m_client; }
    bool WaitForWorker() override { return m_engine.WaitForFrame(link::kHelloId); }
    void Give(const PlannedOrder& order) override {
        if (order.id == TCP_SERVER_DISCONNECT_ID) return Lose(order.manner);
        m_given.push_back(order.id);
        switch (order.id) {
            case TCP_TASK_ADD_ID:
            case TCP_TASK_UPDATE_ID:
                m_engine.SendOrder(order.id, link::TaskTextOrder{m_draw.Text(order.task)});
                return;
            case TCP_TASK_CANCEL_ID:
            case TCP_TASK_SUSPEND_ID:
            case TCP_TASK_RESUME_ID:
            case TCP_TASK_FINISH_ID:
                m_engine.SendOrder(order.id, TaskCommand{});
                return;
            default:  // no order's id, but for 4014, which has no body either
                m_engine.SendNumbered(order.id, {});
        }
    }
    void LetFinalsPass() override {
        m_engine.HoldFinals(false);
        m_engine.AcknowledgeAll();
    }
    const std::vector<std::uint32_t>& Given() const override { return m_given; }

  private:
    void Lose(int manner) {
        switch (manner) {
            case 0:
                return m_engine.CloseConnection();
            case 1:
                return m_engine.ResetConnection();
            case 2:
                return m_engine.SendRaw(std::string(64, 'x'));
            default:
                return m_engine.SendControl(link::kByeId);
        }
    }

    const Draw& m_draw;
    kit::ScriptedEngine m_engine;
    link::EngineClient m_client;
    std::vector<std::uint32_t> m_given;  // the giver's
};

}  // namespace

std::unique_ptr<Link> MakeSocketLink(const Draw& draw) {
    return std::make_unique<SocketLink>(draw);
}

}  // namespace rq::stress
