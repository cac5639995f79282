// The loss of a session when memory is short. A program of its own: it replaces operator new.
#include <gtest/gtest.h>

#include <atomic>

#include "kit/temp_dir.h"
#include "kit/watched_new.h"
#include "link/client_test_kit.h"

namespace {

// Of the thread that they belong to: allocations that still succeed, and how many then fail.
thread_local int t_good = 0;
thread_local int t_failing = 0;
std::atomic<bool> g_hasFailed{false};

}  // namespace

bool rq::kit::MayAllocate(std::size_t) {
    if (t_failing == 0 || t_good-- > 0) return true;
    --t_failing;
    g_hasFailed = true;
    return false;
}

namespace rq::link {
namespace {

using namespace std::chrono_literals;

// Whichever allocation it is that fails while the I/O thread takes in an order and a frame that ends the
// session, and however many do: the worker hears of the loss, once and last, and no sender waits on.
class EngineClientMemory : public ::testing::TestWithParam<int> {
  protected:
    // False when there are fewer allocations than that. With a window the engine does not resume the session.
    bool LoseWithout(int allocation, std::uint32_t window_ms) {
        IoThreadClock clock;
        EngineClientOptions options;
        options.clock = &clock;
        options.finalWait = 24h;
        kit::TempDir folder;
        kit::ScriptedEngineOptions engineOptions;
        engineOptions.welcome.resumeWindow_ms = window_ms;
        engineOptions.welcome.attempt = "named";
        if (window_ms != 0) engineOptions.welcome.spoolFolder = folder.Utf8();
        kit::ScriptedEngine engine(engineOptions);
        TestClient test(options);
        EXPECT_EQ(test.Connect(engine.Port()), 1u);
        engine.HoldFinals(true);
        bool sent = true;
        std::thread sender([&] { sent = test.SendState(kTaskFinished); });
        EXPECT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID));
        engine.RefuseToResume(kRefuseSession);
        g_hasFailed = false;
        clock.Arm([allocation] {
            t_good = allocation;
            t_failing = GetParam();
        });
        engine.SendRaw(*EncodeFrame({1, 0, TCP_TASK_SUSPEND_ID, {}}) +
                       *EncodeFrame({9, 0, TCP_TASK_SUSPEND_ID, {}}));
        EXPECT_TRUE(WaitForLoss(test.handler)) << allocation;
        if (::testing::Test::HasFailure()) test.client->Disconnect();
        sender.join();
        EXPECT_FALSE(sent);
        EXPECT_EQ(test.handler.Count(TCP_SERVER_DISCONNECT_ID), 1u);
        EXPECT_EQ(test.handler.All().back().id, TCP_SERVER_DISCONNECT_ID);
        return g_hasFailed;
    }
    static bool WaitForLoss(const HandlerRecord& handler) {
        for (std::size_t calls = 1; calls <= 2; ++calls) {
            if (!handler.WaitFor(calls)) return false;
            if (handler.Count(TCP_SERVER_DISCONNECT_ID) > 0) return true;
        }
        return false;
    }
};

TEST_P(EngineClientMemory, IsShortAndTheLossIsTold) {
    for (const std::uint32_t window_ms : {0u, 60'000u}) {
        int allocations = 0;
        while (!HasFailure() && LoseWithout(allocations, window_ms)) ++allocations;
        EXPECT_GE(allocations, 3);
    }
}

INSTANTIATE_TEST_SUITE_P(Failing, EngineClientMemory, ::testing::Values(1, 100));

}  // namespace
}  // namespace rq::link
