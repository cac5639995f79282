// Workers in turn on the real clock: a plug-in that reports without pause, orders in random sequence from
// another thread, a loss of the server at the end. What it looks for are races and crashes (run it under the
// checkers).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "worker/testing/worker_fixture.h"

namespace rq {
namespace {

using testing::RunnerAnswers;
using testing::RunnerScript;
using testing::ScriptedRunner;

constexpr std::uint32_t kSeed = 20170531;
constexpr int kWorkers = 60;
constexpr int kOrders = 200;

class OneWorker {
  public:
    OneWorker() : m_script(m_journal, SystemClock()), m_engine(m_journal, SystemClock()) {
        m_script.onClose = [this](std::uint32_t) { m_closed = true; };
        m_script.onPerform = [this] { return Perform(); };
    }

    void Run(std::int32_t type, std::mt19937& random) {
        CRQWorkerBase core(Seams());
        WorkerStartRecord start;
        start.parameterText = "<task/>";
        start.taskType = type;
        ASSERT_EQ(core.Init(&start), 0);
        std::vector<int> dice(kOrders);
        for (int& number : dice) number = static_cast<int>(random() % 16);
        std::thread orders([&] { GiveOrders(dice); });
        core.DoWork(start.parameterText, type);
        core.Release();
        orders.join();
        EXPECT_EQ(m_engine.sendersInside, 0);
    }

  private:
    WorkerCoreSeams Seams() {
        WorkerCoreSeams seams;
        seams.createEngineClient = [this]() -> IEngineCommunicate* {
            return new testing::RecordingEngine(m_engine);
        };
        seams.deleteEngineClient = [](IEngineCommunicate** client) {
            delete static_cast<testing::RecordingEngine*>(*client);
            *client = nullptr;
        };
        seams.createRunner = [this] { return std::make_unique<ScriptedRunner>(m_script); };
        seams.readRunningParameter = [](std::string, tagOVLCommunicationParam* parameter) {
            parameter->progressReportInterval_s = 0;  // rounds and beats without a pause
            parameter->heartbeatInterval_s = 0;
            return 0;
        };
        return seams;
    }

    std::int32_t Perform() {
        m_script.SetStatus(kTaskRunning);
        for (int step = 0; step < 200 && !m_closed; ++step) {
            m_script.SetPercent(step / 2.0);
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        m_script.SetStatus(m_closed ? kTaskCancelled : kTaskFinished);
        return 0;
    }

    // The handler is one thread, and a loss is its last call.
    void GiveOrders(const std::vector<int>& dice) {
        static constexpr std::uint32_t kCommands[] = {4004, 4006, 4002, 4019};
        for (const int number : dice) {
            if (number < 4)
                m_engine.DeliverText(TCP_TASK_ADD_ID, "<more/>");
            else if (number < 8)
                m_engine.DeliverText(TCP_TASK_UPDATE_ID, "<new/>");
            else if (number < 14)
                m_engine.DeliverCommand(kCommands[number % 2]);
            else if (number == 14)
                m_engine.Deliver(4018, nullptr);
            else
                std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
        if (dice[0] % 2 == 0) m_engine.DeliverCommand(kCommands[2 + dice[1] % 2]);
        if (dice[0] % 3 == 0) m_engine.DeliverDestroy();
        m_engine.DeliverLoss();
    }

    testing::Journal m_journal;
    RunnerScript m_script;
    testing::EngineScript m_engine;
    std::atomic<bool> m_closed = false;
};

TEST(Stress, ManyWorkersUnderRandomOrders) {
    std::mt19937 random(kSeed);
    for (int worker = 0; worker < kWorkers; ++worker) {
        OneWorker one;
        one.Run(worker % 3 == 0 ? RQ_TASK_PACKAGE : RQ_TASK_MD5_COMPUTE, random);
    }
}

}  // namespace
}  // namespace rq
