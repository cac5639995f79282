// Times of the link: all from one clock, which need not be that of the sockets' timers.
#include <gtest/gtest.h>

#include "kit/fake_clock.h"
#include "link/client_test_kit.h"

namespace rq::link {
namespace {

using namespace std::chrono_literals;

// The system's clock, read from another beginning: on Windows the clock that stops with a suspended machine
// and the standard library's, which does not, are apart like this.
class ShiftedClock final : public Clock {
  public:
    explicit ShiftedClock(std::chrono::hours shift) : m_shift(shift) {}

    SteadyTime Steady() override { return SystemClock().Steady() + m_shift; }
    LocalTime Local() override { return SystemClock().Local(); }
    void WaitUntil(boost::unique_lock<boost::mutex>& lock, boost::condition_variable& condition,
                   SteadyTime deadline) override {
        SystemClock().WaitUntil(lock, condition, deadline - m_shift);
    }
    void SleepFor(std::chrono::milliseconds duration) override { SystemClock().SleepFor(duration); }

  private:
    const std::chrono::hours m_shift;
};

class EngineClientClock : public ::testing::TestWithParam<int> {
  protected:
    EngineClientClock() { m_options.clock = &m_clock; }
    static std::chrono::nanoseconds Took(const std::function<void()>& call) {
        const SteadyTime begin = SystemClock().Steady();
        call();
        return SystemClock().Steady() - begin;
    }

    ShiftedClock m_clock{std::chrono::hours(GetParam())};
    EngineClientOptions m_options;
};

TEST_P(EngineClientClock, ConnectsAndEndsInTime) {
    kit::ScriptedEngineOptions engineOptions;
    engineOptions.closeOnBye = false;
    kit::ScriptedEngine engine(engineOptions);
    TestClient test(m_options);
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    EXPECT_TRUE(test.SendState(kTaskFinished));
    engine.StopReading();  // it does not see the end of the connection either
    // The engine does not close: the whole of disconnectWait, and no more than that.
    const auto took = Took([&] { test.client->Disconnect(); });
    EXPECT_GE(took, 1s);
    EXPECT_LT(took, HandlerRecord::kPatience);
}

TEST_P(EngineClientClock, GivesUpAnEngineThatDoesNotAnswer) {
    kit::ScriptedEngineOptions engineOptions;
    engineOptions.answerHello = false;
    kit::ScriptedEngine engine(engineOptions);
    m_options.limits.connect = 200ms;
    TestClient test(m_options);
    const auto took = Took([&] { EXPECT_EQ(test.Connect(engine.Port()), kNoSession); });
    EXPECT_GE(took, 190ms);
    EXPECT_LT(took, HandlerRecord::kPatience);
}

TEST_P(EngineClientClock, LosesASilentEngine) {
    kit::ScriptedEngineOptions engineOptions;
    engineOptions.welcome.pingInterval_ms = 0;
    engineOptions.welcome.silenceLimit_ms = 100;
    kit::ScriptedEngine engine(engineOptions);
    TestClient test(m_options);
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    ASSERT_TRUE(test.handler.WaitFor(1));
    EXPECT_EQ(test.handler.All()[0].id, TCP_SERVER_DISCONNECT_ID);
}

INSTANTIATE_TEST_SUITE_P(Shifts, EngineClientClock, ::testing::Values(-100, 100));

// A machine that was suspended: the sockets' timer fires, but for the link hardly any time has passed.
TEST(EngineClientClock, TimeInWhichTheClockStoodIsNoSilence) {
    kit::ScriptedEngineOptions engineOptions;
    engineOptions.welcome.pingInterval_ms = 0;
    engineOptions.welcome.silenceLimit_ms = 50;
    engineOptions.acknowledge = false;
    kit::ScriptedEngine engine(engineOptions);
    kit::FakeClock clock;
    EngineClientOptions options;
    options.clock = &clock;
    TestClient test(options);
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    SystemClock().SleepFor(300ms);
    EXPECT_TRUE(test.handler.All().empty());
    EXPECT_TRUE(test.SendProgress());
    ASSERT_TRUE(engine.WaitForFrame(TCP_WORKER_PROGRESS_ID));
    clock.Advance(51ms);
    ASSERT_TRUE(test.handler.WaitFor(1));
    EXPECT_EQ(test.handler.All()[0].id, TCP_SERVER_DISCONNECT_ID);
}

}  // namespace
}  // namespace rq::link
