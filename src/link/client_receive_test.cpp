// Orders, loss, the end of a session.
#include <gtest/gtest.h>

#include <atomic>

#include "link/client_test_kit.h"

namespace rq::link {
namespace {

using namespace std::chrono_literals;

TEST(EngineClientReceive, OrdersReachTheHandlerWithTheirPayloads) {
    kit::ScriptedEngine engine;
    TestClient test;
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    TaskCommand command;
    command.uuid[15] = 0xAB;
    command.taskIds = {"one", "two", "three"};
    for (const std::uint32_t id : {4002u, 4004u, 4006u, 4019u}) engine.SendOrder(id, command);
    engine.SendOrder(TCP_TASK_UPDATE_ID, TaskTextOrder{"<u/>\xC8\xCE", 0});
    const std::string large(10u << 20, 'x');
    engine.SendOrder(TCP_TASK_ADD_ID, TaskTextOrder{large, 0});
    engine.SendOrder(TCP_WORKER_DESTROY_ID, DestroyOrder{});
    ASSERT_TRUE(test.handler.WaitFor(7));
    const std::vector<Handled> handled = test.handler.All();
    const std::uint32_t ids[] = {4002, 4004, 4006, 4019, 4015, 4017, 4014};
    for (std::size_t i = 0; i < std::size(ids); ++i) {
        EXPECT_EQ(handled[i].id, ids[i]);
        EXPECT_EQ(handled[i].sessionId, 1u);
        if (i < 4) {
            ASSERT_TRUE(handled[i].command.has_value());
            EXPECT_EQ(handled[i].command->uuid, command.uuid);
            EXPECT_EQ(handled[i].command->taskIds, command.taskIds);
        }
    }
    EXPECT_EQ(handled[4].text, "<u/>\xC8\xCE");
    EXPECT_EQ(handled[5].text, large);
    EXPECT_TRUE(engine.WaitForAck(7));
}

TEST(EngineClientReceive, MissingFieldsAndAZeroByteNeverReachTheHandlerAsNull) {
    kit::ScriptedEngine engine;
    TestClient test;
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.SendNumbered(TCP_TASK_ADD_ID, "");
    engine.SendNumbered(TCP_TASK_UPDATE_ID, std::string("\x0A\x05"
                                                        "ab\0cd",
                                                        7));
    engine.SendNumbered(TCP_TASK_CANCEL_ID, "");
    ASSERT_TRUE(test.handler.WaitFor(3));
    const std::vector<Handled> handled = test.handler.All();
    EXPECT_EQ(handled[0].text, "");
    EXPECT_EQ(handled[1].text, "ab");
    ASSERT_TRUE(handled[2].command.has_value());
    EXPECT_TRUE(handled[2].command->taskIds.empty());
}

TEST(EngineClientReceive, AnOrderIsAcknowledgedWhenItsHandlerHasReturned) {
    kit::ScriptedEngine engine;
    TestClient test;
    Gate gate;
    test.handler.onCall = [&gate](std::uint32_t) { gate.Pass(); };
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.SendOrder(TCP_WORKER_DESTROY_ID, DestroyOrder{});
    ASSERT_TRUE(test.handler.WaitFor(1));
    ASSERT_TRUE(test.SendState(kTaskFinished));  // frames go out, and carry no ack of it
    EXPECT_EQ(engine.AckedByWorker(), 0u);
    gate.Open();
    EXPECT_TRUE(engine.WaitForAck(1));
}

// An unknown id reaches the handler, which prints it; an id that means a loss to the handler does not, nor
// does a repeat.
TEST(EngineClientReceive, UnknownIdsAndRepeatsAreAcknowledged) {
    kit::ScriptedEngine engine;
    TestClient test;
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.SendNumbered(5000, "?");
    engine.SendNumbered(TCP_WORKER_STATE_ID, "an id of the worker's");
    engine.SendNumbered(TCP_SERVER_DISCONNECT_ID, "");
    engine.SendControl(99, "?");
    engine.SendOrder(TCP_WORKER_DESTROY_ID, DestroyOrder{});
    engine.SendRaw(*EncodeFrame({4, 0, TCP_WORKER_DESTROY_ID, {}}));
    engine.SendOrder(TCP_TASK_ADD_ID, TaskTextOrder{"<t/>", 0});
    ASSERT_TRUE(engine.WaitForAck(5));
    const std::vector<Handled> handled = test.handler.All();
    ASSERT_EQ(handled.size(), 4u);
    EXPECT_EQ(handled[0].id, 5000u);
    EXPECT_EQ(handled[1].id, TCP_WORKER_STATE_ID);
    EXPECT_EQ(handled[2].id, TCP_WORKER_DESTROY_ID);
    EXPECT_EQ(handled[3].id, TCP_TASK_ADD_ID);
}

TEST(EngineClientReceive, BadFramesAreALossReportedOnce) {
    const std::vector<std::string> bad = {std::string(4, '\0'),                      // length 0
                                          std::string("\x01\0\0\x01", 4),            // over 16 MiB
                                          std::string("\x03\0\0\0\xFF\xFF\xFF", 7),  // no message
                                          *EncodeFrame({9, 0, 4014, {}}),            // a gap
                                          *EncodeFrame({1, 9, 4014, {}}),            // acks too much
                                          *EncodeFrame({0, 0, kWelcomeId, {}}),      // out of place
                                          *EncodeFrame({1, 0, 4002, "\x0A\x01z"}),   // a UUID of 1 byte
                                          *EncodeFrame({0, 0, kByeId, {}})};         // the engine ends
    kit::ScriptedEngine engine;
    for (std::size_t i = 0; i < bad.size(); ++i) {
        TestClient test;
        const std::uint32_t session = test.Connect(engine.Port());
        ASSERT_NE(session, kNoSession);
        engine.SendRaw(bad[i]);
        ASSERT_TRUE(test.handler.WaitFor(1)) << i;
        ASSERT_TRUE(engine.WaitForClosed(i + 1)) << i;
        test.client->Disconnect();
        const std::vector<Handled> handled = test.handler.All();
        ASSERT_EQ(handled.size(), 1u) << i;
        EXPECT_EQ(handled[0].id, TCP_SERVER_DISCONNECT_ID);
        EXPECT_EQ(handled[0].sessionId, session);
    }
}

TEST(EngineClientReceive, TheLossComesOnceAndAfterEveryOrderThatHadArrived) {
    constexpr std::size_t kOrders = 50;
    kit::ScriptedEngine engine;
    TestClient test;
    Gate gate;
    test.handler.onCall = [&gate](std::uint32_t) { gate.Pass(); };
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    for (std::size_t i = 0; i < kOrders; ++i)
        engine.SendOrder(TCP_TASK_ADD_ID, TaskTextOrder{std::to_string(i), 0});
    engine.CloseConnection();
    ASSERT_TRUE(engine.WaitForClosed(1));
    ASSERT_TRUE(test.handler.WaitFor(1));
    gate.Open();
    ASSERT_TRUE(test.handler.WaitFor(kOrders + 1));
    test.client->Disconnect();
    const std::vector<Handled> handled = test.handler.All();
    ASSERT_EQ(handled.size(), kOrders + 1);
    for (std::size_t i = 0; i < kOrders; ++i) EXPECT_EQ(handled[i].text, std::to_string(i));
    EXPECT_EQ(handled.back().id, TCP_SERVER_DISCONNECT_ID);
    EXPECT_EQ(handled.back().sessionId, 1u);
}

TEST(EngineClientReceive, ASilentEngineIsALoss) {
    kit::ScriptedEngineOptions options;
    options.welcome.pingInterval_ms = 30;
    options.welcome.silenceLimit_ms = 200;
    options.answerPings = false;
    kit::ScriptedEngine engine(options);
    TestClient test;
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    ASSERT_TRUE(test.handler.WaitFor(1));
    EXPECT_EQ(test.handler.All()[0].id, TCP_SERVER_DISCONNECT_ID);
    EXPECT_FALSE(engine.Frames(kPingId).empty());
}

TEST(EngineClientReceive, PingsThatAreAnsweredKeepTheSession) {
    kit::ScriptedEngineOptions options;
    options.welcome.pingInterval_ms = 10;
    options.welcome.silenceLimit_ms = 20'000;
    kit::ScriptedEngine engine(options);
    TestClient test;
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    ASSERT_TRUE(engine.WaitForFrame(kPingId, 5));
    engine.SendControl(kPingId);
    ASSERT_TRUE(engine.WaitForFrame(kAckId));
    EXPECT_TRUE(test.SendState(kTaskFinished));
    EXPECT_TRUE(test.handler.All().empty());
}

TEST(EngineClientEnd, DisconnectSaysByeAfterWhatIsQueuedAndReportsNoLoss) {
    kit::ScriptedEngine engine;
    TestClient test;
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    for (int i = 0; i < 100; ++i) EXPECT_TRUE(test.SendProgress());
    test.client->Disconnect();
    ASSERT_TRUE(engine.WaitForClosed(1));
    EXPECT_EQ(engine.Frames(TCP_WORKER_PROGRESS_ID).size(), 100u);
    const std::vector<kit::ReceivedFrame> frames = engine.Frames();
    EXPECT_EQ(frames.back().frame.id, kByeId);
    EXPECT_FALSE(test.SendProgress());
    test.client->Disconnect();  // once more changes nothing
    test.client->Uninitialize();
    EXPECT_TRUE(test.handler.All().empty());
}

TEST(EngineClientEnd, AnEngineThatIgnoresByeHoldsDisconnectForItsBoundOnly) {
    kit::ScriptedEngineOptions engineOptions;
    engineOptions.closeOnBye = false;
    kit::ScriptedEngine engine(engineOptions);
    EngineClientOptions options;
    options.disconnectWait = 30ms;
    TestClient test(options);
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.StopReading();  // it does not see the end of the connection either
    test.client->Disconnect();
    EXPECT_TRUE(test.handler.All().empty());
}

TEST(EngineClientEnd, NoHandlerRunsAfterDisconnectHasReturned) {
    kit::ScriptedEngine engine;
    for (int round = 0; round < 20; ++round) {
        TestClient test;
        std::atomic<bool> disconnected{false};
        std::atomic<int> late{0};
        test.handler.onCall = [&](std::uint32_t) {
            std::this_thread::yield();
            if (disconnected) ++late;
        };
        ASSERT_NE(test.Connect(engine.Port()), kNoSession);
        for (int i = 0; i < 20; ++i) engine.SendOrder(TCP_WORKER_DESTROY_ID, DestroyOrder{});
        if (round % 2 == 0) engine.CloseConnection();
        test.client->Disconnect();
        disconnected = true;
        const std::size_t count = test.handler.All().size();
        test.client->Uninitialize();
        EXPECT_EQ(late, 0);
        EXPECT_EQ(test.handler.All().size(), count);
        EXPECT_LE(test.handler.Count(TCP_SERVER_DISCONNECT_ID), 1u);
    }
}

TEST(EngineClientEnd, DisconnectWaitsForTheHandlerThatRunsAndDropsTheRest) {
    kit::ScriptedEngine engine;
    TestClient test;
    Gate gate;
    std::atomic<bool> finished{false};
    test.handler.onCall = [&](std::uint32_t) {
        gate.Pass();
        finished = true;
    };
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    for (int i = 0; i < 3; ++i) engine.SendOrder(TCP_WORKER_DESTROY_ID, DestroyOrder{});
    ASSERT_TRUE(test.handler.WaitFor(1));
    std::thread opener([&] {
        EXPECT_TRUE(engine.WaitForFrame(kByeId));  // Disconnect is under way
        gate.Open();
    });
    test.client->Disconnect();
    EXPECT_TRUE(finished);
    EXPECT_EQ(test.handler.All().size(), 1u);
    opener.join();
}

TEST(EngineClientEnd, DisconnectFromTheHandlerIsNotDoneAndHarmless) {
    kit::ScriptedEngine engine;
    TestClient test;
    test.handler.onCall = [&test](std::uint32_t) { test.client->Disconnect(); };
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.SendOrder(TCP_WORKER_DESTROY_ID, DestroyOrder{});
    EXPECT_TRUE(engine.WaitForAck(1));
    EXPECT_TRUE(test.SendState(kTaskFinished));
}

TEST(EngineClientEnd, AHandlerThatThrowsEndsItsOwnCallOnly) {
    kit::ScriptedEngine engine;
    TestClient test;
    test.handler.onCall = [](std::uint32_t) { throw std::runtime_error("thrown by a handler"); };
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.SendOrder(TCP_WORKER_DESTROY_ID, DestroyOrder{});
    engine.SendOrder(TCP_TASK_ADD_ID, TaskTextOrder{"<t/>", 0});
    EXPECT_TRUE(engine.WaitForAck(2));
    EXPECT_EQ(test.handler.All().size(), 2u);
}

TEST(EngineClientEnd, DeletingAConnectedClientEndsItsSession) {
    kit::ScriptedEngine engine;
    {
        TestClient test;
        ASSERT_EQ(test.Connect(engine.Port()), 1u);
    }
    EXPECT_TRUE(engine.WaitForClosed(1));
    EXPECT_EQ(engine.Frames(kByeId).size(), 1u);
}

}  // namespace
}  // namespace rq::link
