// A task whose supervision fails goes on without it.
#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>

#include "worker/testing/worker_fixture.h"

namespace rq {
namespace {

using namespace std::chrono_literals;
using testing::Line;
using testing::RunnerAnswers;
using testing::WorkerFixture;

constexpr const char* kNotStarted = "A supervision thread could not be started: no more threads";
constexpr const char* kEnded = "A supervision thread ended by an exception: odd";
constexpr const char* kEndedUnknown = "A supervision thread ended by an unknown exception.";

class Unwatched : public WorkerFixture {
  protected:
    // The thread with this number, the heartbeat's being the first, is not to be had.
    void InitWithoutThread(int number) {
        WorkerCoreSeams seams = Seams();
        seams.startThread = [this, number](std::function<void()> body) -> boost::thread {
            if (++m_threads == number) throw std::runtime_error("no more threads");
            return boost::thread(std::move(body));
        };
        m_core = std::make_unique<CRQWorkerBase>(std::move(seams));
        EXPECT_EQ(InitCore(), 0);
    }
    // One that stands at 50 percent until m_goOn is opened.
    void HoldTask() {
        m_script.onPerform = [this] {
            m_script.SetPercent(50);
            m_script.SetStatus(kTaskRunning);
            m_inside.Open();
            m_goOn.Wait();
            m_script.SetStatus(kTaskFinished);
            return 0;
        };
        StartWork();
        EXPECT_TRUE(m_inside.Wait());
    }
    // The task ends as it would have, and so does the worker.
    void ExpectGoodEnd() {
        m_goOn.Open();
        m_engine.DeliverDestroy();
        EXPECT_EQ(JoinWork(), 0);
        EXPECT_EQ(m_engine.sent.Statuses(), (std::vector<std::uint32_t>{3, 0}));
        Release();
    }

    std::atomic<int> m_threads = 0;
};

TEST_F(Unwatched, AHeartbeatThatCannotBeStarted) {
    InitWithoutThread(1);
    EXPECT_EQ(m_journal.Count(Line(4, kNotStarted)), 1u);
    HoldTask();
    ASSERT_TRUE(m_clock.WaitForWaiters(1));  // the progress thread's wait alone
    m_clock.Advance(5s);
    EXPECT_TRUE(m_engine.sent.WaitFor(TCP_WORKER_PROGRESS_ID, 1));
    m_clock.Advance(40s);
    ExpectGoodEnd();
    EXPECT_TRUE(m_engine.sent.WithId(TCP_WORKER_HEARTBEAT_ID).empty());
    EXPECT_EQ(m_journal.Count(Line(4, kNotStarted)), 1u);
}

TEST_F(Unwatched, AProgressThreadThatCannotBeStarted) {
    InitWithoutThread(2);
    HoldTask();
    EXPECT_EQ(m_journal.Count(Line(4, kNotStarted)), 1u);
    ASSERT_TRUE(m_clock.WaitForWaiters(1));  // the heartbeat's
    m_clock.Advance(40s);
    EXPECT_TRUE(m_engine.sent.WaitFor(TCP_WORKER_HEARTBEAT_ID, 1));
    ExpectGoodEnd();
    EXPECT_TRUE(m_engine.sent.WithId(TCP_WORKER_PROGRESS_ID).empty());
}

TEST_F(Unwatched, AHeartbeatThatEndsByAnException) {
    m_engine.onSend = [](std::uint32_t id) -> bool {
        if (id == TCP_WORKER_HEARTBEAT_ID) throw std::runtime_error("odd");
        return true;
    };
    InitWithoutThread(0);
    HoldTask();
    WaitForIdle();
    m_clock.Advance(40s);
    EXPECT_TRUE(m_journal.WaitFor(Line(5, kEnded)));
    ASSERT_TRUE(m_clock.WaitForWaiters(1));
    m_clock.Advance(40s);
    ExpectGoodEnd();
    EXPECT_EQ(m_engine.sent.WithId(TCP_WORKER_HEARTBEAT_ID).size(), 1u);
    EXPECT_EQ(m_journal.Count(Line(5, kEnded)), 1u);
}

// What a stall needs is gone with its thread, the locks that it held are not: the task's end is reported.
TEST_F(Unwatched, AProgressThreadThatEndsByAnException) {
    m_engine.onSend = [](std::uint32_t id) -> bool {
        if (id == TCP_WORKER_PROGRESS_ID) throw 3;
        return true;
    };
    InitWithoutThread(0);
    HoldTask();
    WaitForIdle();
    m_clock.Advance(5s);
    EXPECT_TRUE(m_journal.WaitFor(Line(5, kEndedUnknown)));
    m_clock.Advance(35s);
    EXPECT_TRUE(m_engine.sent.WaitFor(TCP_WORKER_HEARTBEAT_ID, 1));
    ExpectGoodEnd();
    EXPECT_EQ(m_engine.sent.WithId(TCP_WORKER_PROGRESS_ID).size(), 1u);
    EXPECT_EQ(m_journal.Count(Line(5, kEndedUnknown)), 1u);
}

}  // namespace
}  // namespace rq
