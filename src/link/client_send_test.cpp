// SendMessage: order, success and failure, final statuses.
#include <gtest/gtest.h>

#include <atomic>

#include "kit/fake_clock.h"
#include "link/client_test_kit.h"

namespace rq::link {
namespace {

using namespace std::chrono_literals;

TEST(EngineClientSend, EveryRecordArrivesInOrderAndNumbered) {
    kit::ScriptedEngine engine;
    TestClient test;
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    const HeartbeatRecord heartbeat{"1.0", "g"};
    const TaskNotice notice{"1.0", "g", "T"};
    const TaskCommandReply reply{"1.0", "g", "T", "0", "\xC8\xCE"};
    EXPECT_TRUE(test.client->SendMessage(test.session, TCP_WORKER_HEARTBEAT_ID, &heartbeat));
    EXPECT_TRUE(test.client->SendMessage(test.session, TCP_WORKER_SEND_ID, &notice));
    for (const std::uint32_t id : {4003u, 4005u, 4007u, 4016u, 4020u})
        EXPECT_TRUE(test.client->SendMessage(test.session, id, &reply));
    EXPECT_TRUE(test.SendProgress(42));
    EXPECT_TRUE(test.SendState(kTaskRunning));
    EXPECT_TRUE(test.SendState(kTaskFinished));
    std::uint64_t seq = 0;
    std::vector<std::uint32_t> ids;
    for (const kit::ReceivedFrame& received : engine.Frames()) {
        if (received.frame.seq == 0) continue;
        EXPECT_EQ(received.frame.seq, ++seq);
        ids.push_back(received.frame.id);
    }
    EXPECT_EQ(ids, (std::vector<std::uint32_t>{4000, 4001, 4003, 4005, 4007, 4016, 4020, 4008, 4009, 4009}));
    EXPECT_EQ(std::get<TaskCommandReply>(engine.Records(4016).at(0)).message, "\xC8\xCE");
    EXPECT_EQ(std::get<EngineProgressMessage>(engine.Records(4008).at(0)).entries.at(0).percent, 42);
}

TEST(EngineClientSend, TheRecordMayGoAsSoonAsTheCallHasReturned) {
    kit::ScriptedEngine engine;
    TestClient test;
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    {
        auto notice = std::make_unique<TaskNotice>(TaskNotice{"1.0", std::string(100'000, 'g'), "T"});
        EXPECT_TRUE(test.client->SendMessage(test.session, TCP_WORKER_SEND_ID, notice.get()));
    }
    ASSERT_TRUE(engine.WaitForFrame(TCP_WORKER_SEND_ID));
    EXPECT_EQ(std::get<TaskNotice>(engine.Records(TCP_WORKER_SEND_ID).at(0)).workerGuid,
              std::string(100'000, 'g'));
}

TEST(EngineClientSend, AFinalStatusGoesWithoutAResultThatIsTooLarge) {
    kit::ScriptedEngine engine;
    TestClient test;
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    EngineStateMessage message{4009, "state", "Worker", "Lite/Agent", {}};
    auto result = std::make_shared<stMD5TaskResult>();
    result->files.resize(17);
    for (Md5FileEntry& file : result->files) file.first = std::string(1024 * 1024, 'f');
    message.entries.emplace_back().status = kTaskFinished;
    message.entries[0].furtherText = "kept";
    message.entries[0].result = result;
    EXPECT_TRUE(test.client->SendMessage(test.session, TCP_WORKER_STATE_ID, &message));
    const auto records = engine.Records(4009);
    ASSERT_EQ(records.size(), 1u);
    const TaskStatusEntry& entry = std::get<EngineStateMessage>(records[0]).entries.at(0);
    EXPECT_EQ(entry.status, static_cast<std::uint32_t>(kTaskFinished));
    EXPECT_EQ(entry.result, nullptr);
    EXPECT_EQ(entry.furtherText.rfind("kept; the result is left out: the report would have 178", 0), 0u)
        << entry.furtherText;
    EXPECT_TRUE(entry.furtherText.ends_with(" bytes, and the link takes 16777216")) << entry.furtherText;
}

// What the plug-in said, the task's own ID: nothing of it is so large that the end of the task is never told.
TEST(EngineClientSend, AFinalStatusGoesWithTextsCutAtAWholeCharacter) {
    kit::ScriptedEngine engine;
    TestClient test;
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    constexpr std::size_t kSize = std::size_t{17} * 1024 * 1024;
    constexpr std::size_t kLeft = std::size_t{64} * 1024;
    std::string chinese;
    while (chinese.size() < kSize) chinese += "\u4EFB";  // 3 bytes each, and 65536 is no multiple of 3
    EngineStateMessage message{4009, "state", "Worker", "Lite/Agent", {}};
    TaskStatusEntry& entry = message.entries.emplace_back();
    entry.status = kTaskError;
    entry.taskId = "T-1";
    entry.errorCode = 7;
    entry.detailErrorText = chinese;
    entry.furtherText = "further";
    EXPECT_TRUE(test.client->SendMessage(test.session, TCP_WORKER_STATE_ID, &message));
    entry.detailErrorText = "detail";
    entry.taskId = std::string(kSize, 't');
    entry.furtherText = std::string(kSize, 'f');
    auto result = std::make_shared<stMD5TaskResult>();
    result->files.resize(1);
    entry.result = result;
    EXPECT_TRUE(test.client->SendMessage(test.session, TCP_WORKER_STATE_ID, &message));

    const auto records = engine.Records(4009);
    ASSERT_EQ(records.size(), 2u);
    const TaskStatusEntry& first = std::get<EngineStateMessage>(records[0]).entries.at(0);
    EXPECT_EQ(first.status, static_cast<std::uint32_t>(kTaskError));
    EXPECT_EQ(first.taskId, "T-1");
    EXPECT_EQ(first.errorCode, 7u);
    EXPECT_EQ(first.detailErrorText, chinese.substr(0, kLeft - 1));
    EXPECT_EQ(first.furtherText, "further; texts are cut to 65536 bytes at most");
    const TaskStatusEntry& second = std::get<EngineStateMessage>(records[1]).entries.at(0);
    EXPECT_EQ(second.taskId, std::string(kLeft, 't'));
    EXPECT_EQ(second.detailErrorText, "detail");
    EXPECT_EQ(second.result, nullptr);
    EXPECT_EQ(second.furtherText.substr(0, kLeft + 44),
              std::string(kLeft, 'f') + "; texts are cut to 65536 bytes at most; the ");
    // A status that is not final is refused as it is.
    entry.status = kTaskRunning;
    EXPECT_FALSE(test.client->SendMessage(test.session, TCP_WORKER_STATE_ID, &message));
    EXPECT_EQ(engine.Frames(TCP_WORKER_STATE_ID).size(), 2u);
}

TEST(EngineClientSend, OnlyFinalStatusesWaitForTheEngine) {
    kit::ScriptedEngineOptions engineOptions;
    engineOptions.acknowledge = false;
    kit::ScriptedEngine engine(engineOptions);
    EngineClientOptions options;
    options.finalWait = 20ms;
    TestClient test(options);
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    EXPECT_TRUE(test.SendProgress());
    for (const std::uint32_t status : {1u, 2u, 3u, 6u, 7u}) EXPECT_TRUE(test.SendState(status)) << status;
    for (const std::uint32_t status : {0u, 4u, 5u}) EXPECT_FALSE(test.SendState(status)) << status;
}

TEST(EngineClientSend, AFinalStatusReturnsWhenTheEngineHasIt) {
    kit::ScriptedEngine engine;
    EngineClientOptions options;
    options.finalWait = 1h;
    TestClient test(options);
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    engine.HoldFinals(true);
    std::atomic<bool> returned{false};
    bool sent = false;
    std::thread sender([&] {
        sent = test.SendState(kTaskFinished);
        returned = true;
    });
    ASSERT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID));
    ASSERT_TRUE(test.SendProgress());  // its acknowledgement does not cover the final status before it
    ASSERT_TRUE(engine.WaitForFrame(TCP_WORKER_PROGRESS_ID));
    EXPECT_FALSE(returned);
    engine.AcknowledgeAll();
    sender.join();
    EXPECT_TRUE(sent);
}

TEST(EngineClientSend, AFinalStatusThatIsSentAgainIsANewFrame) {
    kit::ScriptedEngine engine;
    kit::FakeClock clock;
    EngineClientOptions options;
    options.clock = &clock;
    TestClient test(options);
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    engine.HoldFinals(true);
    for (std::size_t tries = 1; tries <= 2; ++tries) {
        bool sent = true;
        std::thread sender([&] { sent = test.SendState(kTaskError); });
        EXPECT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID, tries));
        EXPECT_TRUE(clock.WaitForWaiters(1));
        clock.Advance(5s);
        sender.join();
        EXPECT_FALSE(sent) << tries;
    }
    engine.HoldFinals(false);
    engine.AcknowledgeAll();
    EXPECT_TRUE(test.SendState(kTaskError));  // the clock stands: only the acknowledgement ends the wait
    const std::vector<Frame> frames = engine.Frames(TCP_WORKER_STATE_ID);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[2].seq, 3u);
    // The same record, and marked as that.
    std::string marked = frames[0].body;
    EXPECT_FALSE(IsMarkedRepeat(marked));
    MarkRepeat(marked);
    EXPECT_TRUE(IsMarkedRepeat(marked));
    EXPECT_EQ(frames[1].body, marked);
    EXPECT_EQ(frames[2].body, marked);

    EXPECT_TRUE(test.SendState(kTaskError));  // another task's
    EXPECT_EQ(engine.Frames(TCP_WORKER_STATE_ID).back().body, frames[0].body);
}

TEST(EngineClientSend, TheWaitOfAFinalStatusFollowsTheClock) {
    kit::ScriptedEngineOptions engineOptions;
    engineOptions.acknowledge = false;
    kit::ScriptedEngine engine(engineOptions);
    kit::FakeClock clock;
    EngineClientOptions options;
    options.clock = &clock;
    TestClient test(options);
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    bool sent = true;
    std::thread sender([&] { sent = test.SendState(kTaskCancelled); });
    ASSERT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID));
    ASSERT_TRUE(clock.WaitForWaiters(1));
    clock.Advance(5s);
    sender.join();
    EXPECT_FALSE(sent);
}

TEST(EngineClientSend, ALossEndsTheWaitOfAFinalStatusAtOnce) {
    kit::ScriptedEngine engine;
    EngineClientOptions options;
    options.finalWait = 24h;
    TestClient test(options);
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    engine.HoldFinals(true);
    bool sent = true;
    std::thread sender([&] { sent = test.SendState(kTaskFinished); });
    EXPECT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID));
    engine.ResetConnection();
    sender.join();
    EXPECT_FALSE(sent);
    EXPECT_TRUE(test.handler.WaitFor(1));
}

TEST(EngineClientSend, DisconnectEndsTheWaitOfAFinalStatus) {
    kit::ScriptedEngine engine;
    EngineClientOptions options;
    options.finalWait = 24h;
    TestClient test(options);
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    engine.HoldFinals(true);
    bool sent = true;
    std::thread sender([&] { sent = test.SendState(kTaskFinished); });
    EXPECT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID));
    test.client->Disconnect();
    sender.join();
    EXPECT_FALSE(sent);
}

// The worker holds one lock around each SendMessage, and its handler takes it to reply.
TEST(EngineClientSend, AnOrderThatArrivesWhileAFinalStatusWaitsStallsNeither) {
    kit::ScriptedEngine engine;
    EngineClientOptions options;
    options.finalWait = 24h;
    TestClient test(options);
    Mutex sendLock;
    bool replied = false;
    Gate handlerDone;
    test.handler.onCall = [&](std::uint32_t) {
        const TaskCommandReply reply{"1.0", "g", "T", "0", "m"};
        MutexLock lock(sendLock);
        replied = test.client->SendMessage(test.session, TCP_TASK_CANCEL_REPLY_ID, &reply);
        handlerDone.Open();
    };
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    engine.HoldFinals(true);
    bool sent = false;
    std::thread sender([&] {
        MutexLock lock(sendLock);
        sent = test.SendState(kTaskFinished);
    });
    ASSERT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID));
    const std::uint64_t order = engine.SendOrder(TCP_TASK_CANCEL_ID, TaskCommand{});
    ASSERT_TRUE(test.handler.WaitFor(1));  // the handler is at the lock, or about to be
    EXPECT_TRUE(engine.Frames(TCP_TASK_CANCEL_REPLY_ID).empty());
    engine.AcknowledgeAll();
    sender.join();
    EXPECT_TRUE(sent);
    ASSERT_TRUE(handlerDone.Pass());
    EXPECT_TRUE(replied);
    EXPECT_TRUE(engine.WaitForFrame(TCP_TASK_CANCEL_REPLY_ID));
    EXPECT_TRUE(engine.WaitForAck(order));
}

TEST(EngineClientSend, WhatCannotBeSentIsAFailureAndNoFrame) {
    kit::ScriptedEngine engine;
    TestClient test;
    const HeartbeatRecord record{"1.0", "g"};
    EXPECT_FALSE(test.client->SendMessage(1, TCP_WORKER_HEARTBEAT_ID, &record));  // not connected yet
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    EXPECT_FALSE(test.client->SendMessage(kNoSession, TCP_WORKER_HEARTBEAT_ID, &record));
    EXPECT_FALSE(test.client->SendMessage(2, TCP_WORKER_HEARTBEAT_ID, &record));  // another session
    EXPECT_FALSE(test.client->SendMessage(1, TCP_WORKER_HEARTBEAT_ID, nullptr));
    EXPECT_FALSE(test.client->SendMessage(1, TCP_TASK_CANCEL_ID, &record));
    EXPECT_FALSE(test.client->SendMessage(1, TCP_SERVER_DISCONNECT_ID, &record));
    const HeartbeatRecord large{"1.0", std::string(kFrameLimit_bytes, 'g')};
    EXPECT_FALSE(test.client->SendMessage(1, TCP_WORKER_HEARTBEAT_ID, &large));
    EXPECT_TRUE(test.SendState(kTaskFinished));
    EXPECT_EQ(engine.Frames(TCP_WORKER_STATE_ID).at(0).seq, 1u);
    engine.ResetConnection();
    ASSERT_TRUE(test.handler.WaitFor(1));
    EXPECT_FALSE(test.client->SendMessage(1, TCP_WORKER_HEARTBEAT_ID, &record));  // lost
}

TEST(EngineClientSend, ManyThreadsMaySendAndEveryFrameKeepsItsNumber) {
    constexpr std::size_t kThreads = 6;
    constexpr std::size_t kEach = 300;
    kit::ScriptedEngine engine;
    TestClient test;
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    std::atomic<std::size_t> sent{0};
    std::vector<std::thread> senders;
    for (std::size_t i = 0; i < kThreads; ++i)
        senders.emplace_back([&test, &sent] {
            for (std::size_t n = 0; n < kEach; ++n) sent += test.SendProgress() ? 1 : 0;
        });
    for (std::thread& sender : senders) sender.join();
    EXPECT_TRUE(test.SendState(kTaskFinished));
    EXPECT_EQ(sent, kThreads * kEach);
    std::uint64_t seq = 0;
    for (const kit::ReceivedFrame& received : engine.Frames())
        if (received.frame.seq != 0) {
            EXPECT_EQ(received.frame.seq, ++seq);
        }
    EXPECT_EQ(seq, kThreads * kEach + 1);
}

// An engine that stops reading: sends fail once the queue is full, and the write that never ends is a loss.
TEST(EngineClientSend, ABlockedWriteIsBoundedAndCountsAsALoss) {
    kit::ScriptedEngineOptions engineOptions;
    engineOptions.welcome.pingInterval_ms = 0;
    engineOptions.welcome.silenceLimit_ms = 0;
    kit::ScriptedEngine engine(engineOptions);
    EngineClientOptions options;
    options.limits.write = 300ms;
    options.limits.queue_bytes = 4u << 20;
    TestClient test(options);
    ASSERT_NE(test.Connect(engine.Port()), kNoSession);
    engine.StopReading();
    const TaskNotice large{"1.0", std::string(1u << 20, 'g'), "T"};
    std::size_t refused = 0;  // the system's own buffers take some first
    const SteadyTime deadline = SystemClock().Steady() + HandlerRecord::kPatience;
    while (test.handler.All().empty() && SystemClock().Steady() < deadline) {
        if (test.client->SendMessage(test.session, TCP_WORKER_SEND_ID, &large)) continue;
        ++refused;
        SystemClock().SleepFor(1ms);
    }
    EXPECT_GT(refused, 0u);
    ASSERT_TRUE(test.handler.WaitFor(1));
    EXPECT_EQ(test.handler.All()[0].id, TCP_SERVER_DISCONNECT_ID);
    EXPECT_FALSE(test.SendProgress());
}

}  // namespace
}  // namespace rq::link
