// A session over more than one connection, and the file of a status that nobody acknowledged.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <stdexcept>

#include "kit/files.h"
#include "kit/temp_dir.h"
#include "link/client_test_kit.h"
#include "link/spool_file.h"

namespace rq::link {
namespace {

using namespace std::chrono_literals;

class EngineClientResume : public ::testing::Test {
  protected:
    static kit::ScriptedEngineOptions WithWindow(std::uint32_t window_ms = 60'000) {
        kit::ScriptedEngineOptions options;
        options.welcome.resumeWindow_ms = window_ms;
        options.welcome.attempt = "named";
        return options;
    }
    std::size_t CountLogged(const std::string& part) const {
        std::size_t count = 0;
        for (const std::string& line : kit::ReadLines(m_path))
            count += line.find(part) != std::string::npos ? 1 : 0;
        return count;
    }
    bool WaitForLog(const std::string& part) const { return kit::WaitForText(m_path, part); }

    kit::TempDir m_folder;
    const std::filesystem::path m_path = m_folder.Path() / "link_C.log";
    EngineClientOptions m_options;
};

TEST_F(EngineClientResume, ACutIsNotNoticed) {
    kit::ScriptedEngine engine(WithWindow());
    m_options.token = "secret";
    m_options.attempt = "own";
    TestClient test(m_options, WideFromPath(m_path));
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    ASSERT_TRUE(test.SendState(kTaskRunning));
    ASSERT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID));
    engine.SendOrder(TCP_TASK_SUSPEND_ID, TaskCommand{});
    ASSERT_TRUE(engine.WaitForAck(1));
    engine.ResetConnection();
    EXPECT_TRUE(test.SendProgress(1));  // whether it knows of the loss already or not
    EXPECT_EQ(test.Connect(engine.Port()), 1u);
    ASSERT_TRUE(engine.WaitForConnections(2));
    ASSERT_TRUE(engine.WaitForFrame(TCP_WORKER_PROGRESS_ID));
    EXPECT_TRUE(test.SendState(kTaskFinished));
    const Hello hello = engine.LastHello();
    EXPECT_EQ(hello.token, "secret");
    EXPECT_EQ(hello.attempt, "named");
    EXPECT_EQ(hello.resumeSessionId, 1u);
    EXPECT_EQ(hello.resumeReceived, 1u);
    std::vector<std::uint64_t> seqs;
    for (const Frame& frame : engine.Taken()) seqs.push_back(frame.seq);
    EXPECT_EQ(seqs, (std::vector<std::uint64_t>{1, 2, 3}));
    engine.SendOrder(TCP_TASK_RESUME_ID, TaskCommand{});
    EXPECT_TRUE(engine.WaitForAck(2));
    test.client->Disconnect();
    EXPECT_TRUE(engine.WaitForFrame(kByeId));
    EXPECT_EQ(test.handler.All().size(), 2u);
    EXPECT_EQ(test.handler.Count(TCP_SERVER_DISCONNECT_ID), 0u);
    EXPECT_EQ(CountLogged("session 1 interrupted: "), 1u);
    EXPECT_EQ(CountLogged("session 1 resumed after "), 1u);
    EXPECT_EQ(CountLogged("lost"), 0u);
    EXPECT_EQ(CountLogged("disconnected, session 1"), 1u);
}

TEST_F(EngineClientResume, AWaitForAFinalStatusOutlivesTheConnection) {
    kit::ScriptedEngine engine(WithWindow());
    m_options.finalWait = 1h;
    TestClient test(m_options);
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.HoldFinals(true);
    bool sent = false;
    std::thread sender([&] { sent = test.SendState(kTaskFinished); });
    ASSERT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID));
    engine.ResetConnection();
    ASSERT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID, 2));  // the same once more
    engine.AcknowledgeAll();
    sender.join();
    EXPECT_TRUE(sent);
    EXPECT_EQ(engine.Taken().size(), 1u);
}

TEST_F(EngineClientResume, WelcomesAckEndsTheWaitToo) {
    kit::ScriptedEngine engine(WithWindow());
    m_options.finalWait = 1h;
    TestClient test(m_options);
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.CutAfter(SIZE_MAX, 1);  // its acknowledgement is cut
    EXPECT_TRUE(test.SendState(kTaskFinished));
    EXPECT_EQ(engine.Connections(), 2u);
    EXPECT_EQ(engine.Frames(TCP_WORKER_STATE_ID).size(), 1u);
}

TEST_F(EngineClientResume, AFinalStatusOfAnInterruptionFailsInItsTimeAndIsSentAgainAsANewOne) {
    kit::ScriptedEngine engine(WithWindow());
    m_options.finalWait = 50ms;
    TestClient test(m_options, WideFromPath(m_path));
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.BeAway(true);
    ASSERT_TRUE(WaitForLog("session 1 interrupted"));
    EXPECT_FALSE(test.SendState(kTaskFinished));
    EXPECT_FALSE(test.SendState(kTaskFinished));
    engine.BeAway(false);
    while (!test.SendState(kTaskFinished)) {
    }
    const std::vector<Frame> taken = engine.Taken();
    ASSERT_GE(taken.size(), 3u);
    for (std::size_t i = 0; i < taken.size(); ++i) EXPECT_EQ(taken[i].seq, i + 1);
    EXPECT_TRUE(test.handler.All().empty());
}

TEST_F(EngineClientResume, AnEngineThatStaysAwayIsLostWithTheWindow) {
    kit::ScriptedEngine engine(WithWindow(400));
    Gate gate;
    TestClient test(m_options, WideFromPath(m_path));
    test.handler.onCall = [&gate](std::uint32_t id) {
        if (id == TCP_TASK_SUSPEND_ID) gate.Pass();
    };
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.SendOrder(TCP_TASK_SUSPEND_ID, TaskCommand{});
    ASSERT_TRUE(test.handler.WaitFor(1));  // and does not return
    engine.SendOrder(TCP_TASK_RESUME_ID, TaskCommand{});
    engine.SendOrder(TCP_TASK_ADD_ID, TaskTextOrder{"<a/>", 0});
    ASSERT_TRUE(test.SendState(kTaskCancelled));  // the engine has read, so that all of its orders were sent
    const SteadyTime begin = SystemClock().Steady();
    engine.BeAway(true);
    ASSERT_TRUE(WaitForLog("session 1 lost: not resumed within 400 ms"));
    EXPECT_GE(SystemClock().Steady() - begin, 390ms);
    gate.Open();
    ASSERT_TRUE(test.handler.WaitFor(2));
    for (std::size_t calls = 2; test.handler.Count(TCP_SERVER_DISCONNECT_ID) == 0; ++calls)
        ASSERT_TRUE(test.handler.WaitFor(calls));
    EXPECT_EQ(test.handler.All().back().id, TCP_SERVER_DISCONNECT_ID);
    EXPECT_EQ(test.handler.All().back().sessionId, 1u);
    EXPECT_FALSE(test.SendProgress());
    // The owner may connect again.
    engine.BeAway(false);
    EXPECT_EQ(test.Connect(engine.Port()), 2u);
    EXPECT_EQ(test.handler.Count(TCP_SERVER_DISCONNECT_ID), 1u);
}

TEST_F(EngineClientResume, ARefusalOfTheSessionEndsItAtOnce) {
    kit::ScriptedEngine engine(WithWindow());
    TestClient test(m_options, WideFromPath(m_path));
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.RefuseToResume(kRefuseSession);
    engine.ResetConnection();
    ASSERT_TRUE(test.handler.WaitFor(1));
    EXPECT_EQ(test.handler.All()[0].id, TCP_SERVER_DISCONNECT_ID);
    EXPECT_EQ(CountLogged("session 1 lost: refused by the engine, code 6: not resumed"), 1u);
}

TEST_F(EngineClientResume, AnEngineThatIsEndingIsAskedAgain) {
    kit::ScriptedEngine engine(WithWindow());
    TestClient test(m_options, WideFromPath(m_path));
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.RefuseToResume(kRefuseEnding);
    engine.ResetConnection();
    ASSERT_TRUE(engine.WaitForFrame(kHelloId, 4));
    EXPECT_EQ(CountLogged("session 1 not resumed yet: refused by the engine, code 5"),
              1u);  // of two or three
    engine.ResumeAgain();
    EXPECT_TRUE(test.SendState(kTaskFinished));
    EXPECT_TRUE(test.handler.All().empty());
}

// The engine has not noticed the loss: the new connection takes the old one's place.
TEST_F(EngineClientResume, ASilentEngineIsConnectedToAgain) {
    kit::ScriptedEngineOptions options = WithWindow();
    options.welcome.pingInterval_ms = 0;
    options.welcome.silenceLimit_ms = 100;
    kit::ScriptedEngine engine(options);
    TestClient test(m_options, WideFromPath(m_path));
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.StopReading();
    EXPECT_TRUE(test.SendProgress());
    EXPECT_TRUE(engine.WaitForClosed(1));
    EXPECT_TRUE(engine.WaitForFrame(TCP_WORKER_PROGRESS_ID));
    EXPECT_TRUE(test.handler.All().empty());
    EXPECT_GE(CountLogged("session 1 interrupted: the engine was silent for 100 ms"), 1u);
}

TEST_F(EngineClientResume, AHandlerThatRunsMeanwhileIsNotCalledTwice) {
    kit::ScriptedEngine engine(WithWindow());
    TestClient test(m_options);
    Gate gate;
    test.handler.onCall = [&gate](std::uint32_t) { gate.Pass(); };
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.SendOrder(TCP_TASK_SUSPEND_ID, TaskCommand{});
    ASSERT_TRUE(test.handler.WaitFor(1));
    engine.ResetConnection();
    ASSERT_TRUE(engine.WaitForFrame(kHelloId, 2));
    EXPECT_EQ(engine.LastHello().resumeReceived, 1u);
    EXPECT_EQ(engine.AckedByWorker(), 0u);
    gate.Open();
    EXPECT_TRUE(engine.WaitForAck(1));
    EXPECT_EQ(test.handler.All().size(), 1u);
}

// With and without an attempt under way; the client's threads end with it.
TEST_F(EngineClientResume, DisconnectDuringAnInterruptionWaitsForNothing) {
    for (const bool isUnderWay : {false, true}) {
        kit::ScriptedEngine engine(WithWindow());
        m_options.disconnectWait = 24h;
        TestClient test(m_options);
        ASSERT_EQ(test.Connect(engine.Port()), 1u);
        if (isUnderWay) {
            engine.RefuseToResume(0);
            engine.ResetConnection();
            ASSERT_TRUE(engine.WaitForFrame(kHelloId, 2));
        } else {
            engine.BeAway(true);
            ASSERT_TRUE(engine.WaitForConnections(3));
        }
        test.client->Disconnect();
        EXPECT_TRUE(test.handler.All().empty());
        EXPECT_EQ(engine.Frames(kByeId).size(), 0u);
        EXPECT_FALSE(test.SendProgress());
        engine.BeAway(false);
        engine.ResumeAgain();
        EXPECT_EQ(test.Connect(engine.Port()), 2u);
    }
}

// What the thread was about to do is not known to be done.
TEST_F(EngineClientResume, AnExceptionOnTheIoThreadIsNotResumed) {
    IoThreadClock clock;
    m_options.clock = &clock;
    kit::ScriptedEngine engine(WithWindow());
    TestClient test(m_options, WideFromPath(m_path));
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    clock.Arm([] { throw std::runtime_error("odd"); });
    engine.SendOrder(TCP_TASK_SUSPEND_ID, TaskCommand{});
    ASSERT_TRUE(test.handler.WaitFor(1));
    EXPECT_EQ(test.handler.All()[0].id, TCP_SERVER_DISCONNECT_ID);
    EXPECT_EQ(engine.Connections(), 1u);
    EXPECT_EQ(CountLogged("session 1 lost: an exception on the I/O thread: odd"), 1u);
}

// Wherever the stream is cut, in either direction and as often as that.
TEST_F(EngineClientResume, AtRandomCutsNothingIsLostOrDoubled) {
    constexpr int kMessages = 400;
    constexpr int kOrders = 200;
    std::mt19937 random(7);
    kit::ScriptedEngine engine(WithWindow());
    m_options.limits.settled = 0ms;
    TestClient test(m_options);
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    for (int i = 1; i <= kMessages; ++i) {
        if (i % 4 == 0) engine.CutAfter(1 + random() % 300, 1 + random() % 300);
        ASSERT_TRUE(test.SendProgress(static_cast<float>(i)));
        if (i % 2 == 0) engine.SendOrder(TCP_TASK_ADD_ID, TaskTextOrder{"order " + std::to_string(i / 2), 0});
        // The next cut is of a connection that stands.
        const auto count = static_cast<std::size_t>(i);
        if (i % 10 != 0) continue;
        ASSERT_TRUE(kit::WaitUntil([&] { return engine.Taken().size() == count; }));
    }
    engine.CutAfter(SIZE_MAX, SIZE_MAX);
    while (!test.SendState(kTaskFinished)) {
    }
    ASSERT_TRUE(engine.WaitForAck(kOrders));
    EXPECT_GE(engine.Connections(), 10u);
    const std::vector<Frame> taken = engine.Taken();
    ASSERT_EQ(taken.size(), kMessages + 1u);
    for (int i = 0; i < kMessages; ++i) {
        const Frame& frame = taken[static_cast<std::size_t>(i)];
        const Result<WorkerRecord> record = DecodeWorkerRecord(frame.id, frame.body);
        EXPECT_EQ(std::get<EngineProgressMessage>(*record).entries.at(0).percent, static_cast<float>(i + 1));
    }
    const std::vector<Handled> handled = test.handler.All();
    ASSERT_EQ(handled.size(), static_cast<std::size_t>(kOrders));
    for (std::size_t i = 0; i < handled.size(); ++i)
        EXPECT_EQ(handled[i].text, "order " + std::to_string(i + 1));
}

}  // namespace
}  // namespace rq::link
