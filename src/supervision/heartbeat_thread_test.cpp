#include "supervision/heartbeat_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "supervision/testing/fake_core.h"
#include "supervision/testing/gate.h"

namespace rq {
namespace {

using namespace std::chrono_literals;
using testing::Line;

const std::string kEndLine =
    Line(2, "Worker thread for sending heartbeat has stopped. PID:4711, TaskID:[T1]");

class Heartbeat : public ::testing::Test {
  protected:
    ~Heartbeat() override { End(); }

    void Start() {
        m_thread = std::thread([this] { EXPECT_EQ(HeartbeatThread(m_core), 0u); });
    }
    void End() {
        if (!m_thread.joinable()) return;
        m_core.exit = true;
        m_core.heartbeatSignal.Notify();
        m_thread.join();
    }
    std::size_t Beats() const { return m_core.sent.WithId(TCP_WORKER_HEARTBEAT_ID).size(); }

    // Moves the clock to just before a beat is due and then to it.
    void ExpectBeatAfter(std::chrono::seconds interval) {
        const std::size_t before = Beats();
        ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
        m_core.clock.Advance(interval - 1ms);
        EXPECT_EQ(Beats(), before);
        m_core.clock.Advance(1ms);
        ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
        EXPECT_EQ(Beats(), before + 1);
    }

    testing::FakeCore m_core;
    std::thread m_thread;
};

struct IntervalCase {
    std::int32_t given_s;
    std::int32_t used_s;
};
class HeartbeatInterval : public Heartbeat, public ::testing::WithParamInterface<IntervalCase> {};

TEST_P(HeartbeatInterval, BeatsAtTheIntervalAndStoresIt) {
    m_core.heartbeatInterval_s = GetParam().given_s;
    Start();
    ExpectBeatAfter(std::chrono::seconds(GetParam().used_s));
    ExpectBeatAfter(std::chrono::seconds(GetParam().used_s));
    EXPECT_EQ(m_core.heartbeatInterval_s, GetParam().used_s);
}

INSTANTIATE_TEST_SUITE_P(Seconds, HeartbeatInterval,
                         ::testing::Values(IntervalCase{1, 1}, IntervalCase{59, 59}, IntervalCase{60, 40},
                                           IntervalCase{61, 40}, IntervalCase{3600, 40}),
                         [](const auto& test) { return "Of" + std::to_string(test.param.given_s); });

TEST_F(Heartbeat, RecordIsVersionAndGuid) {
    Start();
    ExpectBeatAfter(40s);
    const auto beat = m_core.sent.All().at(0);
    EXPECT_EQ(beat.As<HeartbeatRecord>().version, "1.0");
    EXPECT_EQ(beat.As<HeartbeatRecord>().workerGuid, "G1");
}

TEST_F(Heartbeat, GuidIsEmptyBeforeTheNotice) {
    m_core.hasGuid = false;
    Start();
    ExpectBeatAfter(40s);
    EXPECT_EQ(m_core.sent.All().at(0).As<HeartbeatRecord>().workerGuid, "");
}

TEST_F(Heartbeat, RefusedBeatIsFollowedByTheNextOne) {
    m_core.failures = 1;
    Start();
    ExpectBeatAfter(40s);
    ExpectBeatAfter(40s);
}

// Back to back: beats come although the clock stands still, and in a time in which a thread that slept for a
// moment between two of them would not get that far. A notification still ends the thread.
void ExpectBackToBack(testing::FakeCore& core, std::int32_t interval_s) {
    constexpr int kBeats = 20'000;
    std::atomic<int> beats = 0;
    testing::Gate enough;
    core.heartbeatInterval_s = interval_s;
    core.onSend = [&](std::uint32_t) {
        if (++beats == kBeats) enough.Open();
    };
    std::thread thread([&core] { HeartbeatThread(core); });
    EXPECT_TRUE(enough.Wait(20s));
    core.heartbeatSignal.Notify();
    thread.join();
    EXPECT_FALSE(core.exit);
    EXPECT_EQ(core.heartbeatInterval_s, interval_s);
}

TEST(HeartbeatBackToBack, IntervalOfZero) {
    testing::FakeCore core;
    ExpectBackToBack(core, 0);
}

TEST(HeartbeatBackToBack, NegativeInterval) {
    testing::FakeCore core;
    ExpectBackToBack(core, -5);
}

TEST_F(Heartbeat, NotificationDuringAWaitEndsItWithoutABeatWhateverTheFlagSays) {
    Start();
    ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
    m_core.heartbeatSignal.Notify();
    m_thread.join();
    EXPECT_FALSE(m_core.exit);
    EXPECT_EQ(Beats(), 0u);
    EXPECT_EQ(m_core.journal.LogLines(), std::vector<std::string>{kEndLine});
}

TEST_F(Heartbeat, NotificationBeforeTheWaitIsNotLost) {
    m_core.heartbeatSignal.Notify();
    Start();
    m_thread.join();
    EXPECT_EQ(Beats(), 0u);
}

TEST_F(Heartbeat, NotificationDuringASendEndsItAfterThatSend) {
    testing::Gate sending, goOn;
    m_core.onSend = [&](std::uint32_t) {
        sending.Open();
        goOn.Wait();
    };
    Start();
    ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
    m_core.clock.Advance(40s);
    ASSERT_TRUE(sending.Wait());
    std::thread stopper([this] { m_core.heartbeatSignal.Notify(); });
    goOn.Open();
    stopper.join();
    m_thread.join();
    EXPECT_EQ(Beats(), 1u);
}

TEST_F(Heartbeat, StopFlagAloneIsSeenAfterTheWait) {
    Start();
    ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
    m_core.exit = true;
    EXPECT_EQ(m_core.journal.Count(kEndLine), 0u);
    m_core.clock.Advance(40s);
    m_thread.join();
    EXPECT_EQ(Beats(), 1u);
    EXPECT_EQ(m_core.journal.Count(kEndLine), 1u);
}

TEST_F(Heartbeat, StopFlagBeforeTheStartGivesNoBeat) {
    m_core.exit = true;
    Start();
    m_thread.join();
    EXPECT_EQ(Beats(), 0u);
}

}  // namespace
}  // namespace rq
