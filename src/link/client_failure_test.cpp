// What is thrown on the link's I/O thread: it ends the session and nothing else.
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "base/paths.h"
#include "kit/files.h"
#include "kit/temp_dir.h"
#include "link/client_test_kit.h"

namespace rq::link {
namespace {

using namespace std::chrono_literals;

class EngineClientFailure : public ::testing::Test {
  protected:
    EngineClientFailure() { m_options.clock = &m_clock; }

    bool IsLogged(const std::string& end) const {
        const std::vector<std::string> lines = kit::ReadLines(m_path);
        return std::any_of(lines.begin(), lines.end(),
                           [&](const std::string& line) { return line.ends_with(end); });
    }
    // With a final status that waits for its acknowledgement meanwhile.
    void ExpectLoss(const std::function<void()>& act, const std::string& text) {
        kit::ScriptedEngine engine;
        m_options.finalWait = 24h;
        TestClient test(m_options, WideFromPath(m_path));
        ASSERT_EQ(test.Connect(engine.Port()), 1u);
        engine.HoldFinals(true);
        bool sent = true;
        std::thread sender([&] { sent = test.SendState(kTaskFinished); });
        EXPECT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID));
        m_clock.Arm(act);
        engine.SendOrder(TCP_TASK_SUSPEND_ID, TaskCommand{});
        sender.join();
        EXPECT_FALSE(sent);
        ASSERT_TRUE(test.handler.WaitFor(1));
        EXPECT_TRUE(engine.WaitForClosed(1));
        EXPECT_TRUE(IsLogged("] the I/O thread caught: " + text));
        EXPECT_TRUE(IsLogged("] session 1 lost: an exception on the I/O thread: " + text));
        // The thread goes on, for another session.
        engine.HoldFinals(false);
        EXPECT_EQ(test.Connect(engine.Port()), 2u);
        EXPECT_TRUE(test.SendState(kTaskFinished));
        const std::vector<Handled> handled = test.handler.All();
        ASSERT_EQ(handled.size(), 1u);
        EXPECT_EQ(handled[0].id, TCP_SERVER_DISCONNECT_ID);
        EXPECT_EQ(handled[0].sessionId, 1u);
    }

    kit::TempDir m_folder;
    const std::filesystem::path m_path = m_folder.Path() / "link_C.log";
    IoThreadClock m_clock;
    EngineClientOptions m_options;
};

TEST_F(EngineClientFailure, AnExceptionIsALoss) {
    ExpectLoss([] { throw std::runtime_error("odd"); }, "odd");
}

TEST_F(EngineClientFailure, WhatIsNoExceptionOfTheLibraryIsALossToo) {
    ExpectLoss([] { throw 3; }, "an unknown exception");
}

// At every point of the way to a session: the attempt fails at once, or the session that it gave is lost.
TEST_F(EngineClientFailure, DuringAConnectItFailsTheAttempt) {
    int failed = 0;
    int lost = 0;
    while (true) {
        IoThreadClock clock;
        m_options.clock = &clock;
        kit::ScriptedEngine engine;
        TestClient test(m_options, WideFromPath(m_path));
        clock.Arm([] { throw std::runtime_error("odd"); }, failed + lost);
        const std::uint32_t session = test.Connect(engine.Port());
        if (session == kNoSession) {
            ++failed;
            EXPECT_TRUE(IsLogged(" failed: an exception on the I/O thread: odd"));
            EXPECT_NE(test.Connect(engine.Port()), kNoSession);
            EXPECT_TRUE(test.handler.All().empty());
        } else if (SystemClock().SleepFor(20ms); !clock.IsArmed()) {
            ++lost;
            ASSERT_TRUE(test.handler.WaitFor(1));
            EXPECT_EQ(test.handler.All()[0].id, TCP_SERVER_DISCONNECT_ID);
            EXPECT_EQ(test.handler.All()[0].sessionId, session);
        } else {
            break;
        }
        std::filesystem::remove(m_path);
    }
    EXPECT_GE(failed, 4);
    EXPECT_LE(failed + lost, 20);
}

}  // namespace
}  // namespace rq::link
