#include "stress/life.h"

#include <thread>

#include "base/paths.h"
#include "plugin/work_runner.h"
#include "records/task_codes.h"
#include "stress/hasty_clock.h"
#include "stress/link.h"
#include "stress/plugin.h"
#include "worker/worker_base.h"

namespace rq::stress {
namespace {

// Between two rounds of the ending: the worker may have been about to connect, or about to suspend.
constexpr std::chrono::milliseconds kEndingRound{10};

class Giver {
  public:
    Giver(const Draw& draw, Link& link) : m_draw(draw), m_link(link) {}

    void Run() {
        // A package's plug-in that fails comes before the connection.
        if (m_draw.failsInit && IsPackageType(m_draw.type)) return;
        if (!m_link.WaitForWorker()) return;
        for (const PlannedOrder& order : m_draw.orders) {
            if (m_over.WaitUntil(SystemClock().Steady() + order.delay)) return;
            m_link.Give(order);
        }
        if (m_over.WaitFor(m_draw.endingDelay)) return;
        do {
            m_link.LetFinalsPass();
            End();
        } while (!m_over.WaitFor(kEndingRound));
    }
    // The worker is gone.
    void Stop() { m_over.Notify(); }

  private:
    void End() {
        const auto give = [this](std::uint32_t id) { m_link.Give({{}, id, 0, false, 0}); };
        switch (m_draw.ending) {
            case Ending::Stop:
                give(TCP_TASK_CANCEL_ID);
                return give(TCP_WORKER_DESTROY_ID);
            case Ending::Finish:
                give(TCP_WORKER_DESTROY_ID);
                return give(TCP_TASK_FINISH_ID);
            case Ending::Loss:
                return give(TCP_SERVER_DISCONNECT_ID);
            case Ending::LeftAlone:
                return give(TCP_TASK_RESUME_ID);
        }
    }

    const Draw& m_draw;
    Link& m_link;
    Signal m_over;
};

class Life {
  public:
    Life(const Draw& draw, const std::filesystem::path& folder, Counts& counts)
        : m_draw(draw),
          m_folder(WideFromPath(folder) + PathSeparator()),
          m_watch(counts),
          m_plugin(draw, m_watch, counts),
          m_link(draw.isBySocket ? MakeSocketLink(draw) : MakeDirectLink(draw)) {}

    // What the run driver does.
    void Run() {
        Giver giver(m_draw, *m_link);
        std::thread orders([&giver] { giver.Run(); });
        {
            CRQWorkerBase core(Seams());
            WorkerStartRecord start;
            start.parameterText = m_draw.Text(0);
            start.taskType = m_draw.type;
            if (core.Init(&start) == 0) core.DoWork(start.parameterText, m_draw.type);
            core.Release();
            giver.Stop();
            orders.join();
        }
        m_watch.CheckEnd();
        CheckOrders();
    }
    Watch& GetWatch() { return m_watch; }

  private:
    WorkerCoreSeams Seams() {
        WorkerCoreSeams seams;
        seams.clock = &m_clock;
        seams.createEngineClient = [this] { return m_watch.MakeClient(m_link->Client()); };
        seams.deleteEngineClient = &Watch::DeleteClient;
        seams.createRunner = [this] {
            WorkRunnerSeams runner;
            runner.clock = &m_clock;
            runner.moduleDirectory = m_folder;
            Plugin::FillIn(runner);
            return std::make_unique<WorkRunner>(std::move(runner));
        };
        seams.readRunningParameter = [this](const std::string&, tagOVLCommunicationParam* parameter) {
            parameter->heartbeatInterval_s = m_draw.heartbeat_s;
            parameter->progressReportInterval_s = m_draw.report_s;
            parameter->progressPatrolTimeout_s = m_draw.patrol_s;
            return 0;
        };
        return seams;
    }

    // The handler got what was given, once and in this order; the rest was lost with a connection.
    void CheckOrders() {
        auto given = m_link->Given().begin();
        const auto end = m_link->Given().end();
        for (const std::uint32_t id : m_watch.Handled()) {
            if (id == TCP_SERVER_DISCONNECT_ID) continue;
            while (given != end && *given != id) ++given;
            if (given == end)
                return m_watch.Fail("the handler got order " + std::to_string(id) + " out of order");
            ++given;
        }
    }

    const Draw& m_draw;
    const WideText m_folder;
    HastyClock m_clock;
    Watch m_watch;
    Plugin m_plugin;
    std::unique_ptr<Link> m_link;
};

}  // namespace

std::vector<std::string> LiveOneLife(const Draw& draw, const std::filesystem::path& folder, Counts& counts) {
    Life life(draw, folder, counts);
    life.Run();
    for (const std::uint32_t id : life.GetWatch().Handled()) ++counts.orders[id];
    ++counts.lives;
    return life.GetWatch().Failures();
}

}  // namespace rq::stress
