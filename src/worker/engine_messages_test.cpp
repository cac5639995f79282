#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "kit/files.h"
#include "util/capture_hub.h"
#include "worker/testing/worker_fixture.h"

namespace rq {
namespace {

using testing::Line;
using testing::RunnerAnswers;
using testing::SentMessage;
using testing::WorkerFixture;

class Orders : public WorkerFixture {
  protected:
    Orders() {
        InitCore();
        m_core->PrepareWork("<task/>");
        m_guid = m_core->WorkerGuid();
        m_core->AddTask("<front/>");
        Forget();
    }
    void Forget() {
        m_journal.Clear();
        m_engine.sent.Clear();
    }
    SentMessage OnlySent() const {
        const auto sent = m_engine.sent.All();
        EXPECT_EQ(sent.size(), 1u);
        return sent.at(0);
    }
    void ExpectReply(std::uint32_t id, const std::string& guid, const std::string& text,
                     std::uint32_t sessionId) {
        const SentMessage sent = OnlySent();
        EXPECT_EQ(sent.id, id);
        EXPECT_EQ(sent.sessionId, sessionId);
        const auto& reply = sent.As<TaskCommandReply>();
        EXPECT_EQ(reply.version, "1.0");
        EXPECT_EQ(reply.guid, guid);
        EXPECT_EQ(reply.taskId, "T1");
        EXPECT_EQ(reply.resultCode, "0");
        EXPECT_EQ(reply.message, text);
    }
    // The session ID that the next message is sent with.
    std::uint32_t SessionNow() {
        m_engine.sent.Clear();
        const HeartbeatRecord record;
        m_core->Send(TCP_WORKER_HEARTBEAT_ID, &record);
        return OnlySent().sessionId;
    }
    static TaskCommand Command() {
        TaskCommand command;
        for (std::uint8_t i = 0; i < 16; ++i) command.uuid[i] = static_cast<std::uint8_t>(0xA0 + i);
        command.taskIds = {"一", "two", "3"};
        return command;
    }

    std::string m_guid;
    const std::string m_uuidText = "a0a1a2a3-a4a5-a6a7-a8a9-aaabacadaeaf";
};

// The bytes of the replies' texts in GBK.
const char* const kCancelled = "\xC8\xCE\xCE\xF1\xD2\xD1\xC8\xA1\xCF\xFB";
const char* const kSuspended = "\xC8\xCE\xCE\xF1\xD2\xD1\xD4\xDD\xCD\xA3";
const char* const kResumed = "\xC8\xCE\xCE\xF1\xD2\xD1\xBB\xD6\xB8\xB4";
const char* const kFinished = "\xC8\xCE\xCE\xF1\xD2\xD1\xCD\xA3\xD6\xB9";

TEST_F(Orders, AddIsNotAnswered) {
    m_engine.DeliverText(TCP_TASK_ADD_ID, "<a>任务</a>\r\nstray", 8);
    EXPECT_EQ(m_journal.Entries(),
              (std::vector<std::string>{
                  "console Received task type: 4017\n",
                  Line(2, "===========================Add new task==========================="),
                  Line(2, "<a>任务</a>")}));
    EXPECT_TRUE(m_engine.sent.All().empty());
    EXPECT_EQ(SessionNow(), 8u);
}

TEST_F(Orders, UpdateIsAnsweredBeforeItIsApplied) {
    m_engine.DeliverText(TCP_TASK_UPDATE_ID, "<a>1</a>\n\n", 8);
    EXPECT_EQ(m_journal.Entries(), (std::vector<std::string>{"console Received task type: 4015\n",
                                                             Line(2, "Update task, SendMSG.."), "send 4016",
                                                             "runner.UpdateTask <a>1</a>"}));
    ExpectReply(4016, m_guid, "task is updated.", 7);
    EXPECT_EQ(SessionNow(), 8u);
}

TEST_F(Orders, FailedUpdateChangesNothing) {
    m_script.With([](RunnerAnswers& answers) { answers.updateResult = -1; });
    m_engine.DeliverText(TCP_TASK_UPDATE_ID, "<a/>");
    ExpectReply(4016, m_guid, "task is updated.", 7);
}

TEST_F(Orders, CancelWithThreeIdsCancelsOnce) {
    m_engine.DeliverCommand(TCP_TASK_CANCEL_ID, Command(), 8);
    EXPECT_EQ(m_journal.Entries(), (std::vector<std::string>{"console Received task type: 4002\n",
                                                             Line(2, "Status=Cancel, SendMSG.."), "send 4003",
                                                             "console TaskID=一\n", "console TaskID=two\n",
                                                             "console TaskID=3\n", "runner.CloseTask 2 0"}));
    ExpectReply(4003, m_guid, kCancelled, 7);
    EXPECT_EQ(SessionNow(), 8u);
    EXPECT_FALSE(m_core->HeartbeatShouldStop());
    EXPECT_EQ(m_core->DoWork("<never/>", 3), 0);
    EXPECT_EQ(m_journal.Count("runner.AnalyseTask <front/>"), 0u);
}

TEST_F(Orders, CancelWithoutIdsCancels) {
    m_engine.DeliverCommand(TCP_TASK_CANCEL_ID);
    EXPECT_EQ(m_journal.Console(), "Received task type: 4002\n");
    EXPECT_EQ(m_journal.Count("runner.CloseTask 2 0"), 1u);
}

TEST_F(Orders, Suspend) {
    m_engine.DeliverCommand(TCP_TASK_SUSPEND_ID, Command(), 8);
    EXPECT_EQ(m_journal.Entries(),
              (std::vector<std::string>{"console Received task type: 4004\n",
                                        Line(2, "Status=Suspend, SendMSG..", "MAIN", "thread_get_status"),
                                        "send 4005", "console TaskID=一\n", "console TaskID=two\n",
                                        "console TaskID=3\n", "runner.SuspendTask"}));
    ExpectReply(4005, m_guid, kSuspended, 7);
    EXPECT_TRUE(m_core->IsPaused());
    EXPECT_EQ(SessionNow(), 8u);
}

TEST_F(Orders, Resume) {
    m_engine.DeliverCommand(TCP_TASK_SUSPEND_ID);
    Forget();
    m_engine.DeliverCommand(TCP_TASK_RESUME_ID, {}, 9);
    EXPECT_EQ(m_journal.Entries(),
              (std::vector<std::string>{"console Received task type: 4006\n",
                                        Line(2, "Status=Running, SendMSG..", "MAIN", "thread_get_status"),
                                        "send 4007", "runner.ResumeTask"}));
    ExpectReply(4007, m_guid, kResumed, 7);
    EXPECT_FALSE(m_core->IsPaused());
    EXPECT_EQ(SessionNow(), 9u);
}

TEST_F(Orders, FinishAnswersWithItsOwnUuidAndSession) {
    m_engine.DeliverCommand(TCP_TASK_FINISH_ID, Command(), 8);
    EXPECT_EQ(
        m_journal.Entries(),
        (std::vector<std::string>{"console Received task type: 4019\n", Line(2, "Status=Finish, SendMSG.."),
                                  Line(2, m_uuidText), "send 4020", "console TaskID=一\n",
                                  "console TaskID=two\n", "console TaskID=3\n", "runner.CloseTask 6 0"}));
    ExpectReply(4020, m_uuidText, kFinished, 8);
    EXPECT_EQ(SessionNow(), 8u);
    EXPECT_EQ(m_core->DoWork("<never/>", 3), 0);
}

TEST_F(Orders, Loss) {
    m_engine.DeliverLoss(8);
    EXPECT_EQ(
        m_journal.Entries(),
        (std::vector<std::string>{"console Received task type: 12306\n", "console Session8连接断开\n",
                                  Line(3, "Worker will be cancel!!!! Because Socket Server is Disconnect."),
                                  "runner.CloseTask 2 0"}));
    EXPECT_TRUE(m_core->IsDisconnected());
    EXPECT_TRUE(m_core->HeartbeatShouldStop());
    EXPECT_TRUE(m_engine.sent.All().empty());
    EXPECT_EQ(SessionNow(), kNoSession);
}

TEST_F(Orders, AfterALossEveryMessageCarriesNoSession) {
    m_engine.DeliverLoss();
    Forget();
    m_engine.DeliverText(TCP_TASK_ADD_ID, "<a/>", 9);
    for (const std::uint32_t id : {4015u}) m_engine.DeliverText(id, "<a/>", 9);
    for (const std::uint32_t id : {4002u, 4004u, 4006u, 4019u}) m_engine.DeliverCommand(id, Command(), 9);
    EXPECT_EQ(m_core->thread_get_status(0), 0);  // reports nothing
    const auto sent = m_engine.sent.All();
    ASSERT_EQ(sent.size(), 5u);
    for (const auto& message : sent) EXPECT_EQ(message.sessionId, kNoSession) << message.id;
    EXPECT_EQ(SessionNow(), kNoSession);
}

TEST_F(Orders, DestroySetsTheExitFlagOnly) {
    m_engine.DeliverDestroy();
    EXPECT_EQ(m_journal.Entries(), (std::vector<std::string>{"console Received task type: 4014\n",
                                                             Line(2, "Received Message: destroy..")}));
    EXPECT_TRUE(m_core->HeartbeatShouldStop());
    EXPECT_FALSE(m_core->IsDisconnected());
}

TEST_F(Orders, UnknownIdIsPrintedOnly) {
    for (const std::uint32_t id : {0u, 4000u, 4003u, 4013u, 4018u, 4021u, 12305u, 0xFFFFFFFFu}) {
        Forget();
        m_engine.Deliver(id, nullptr);
        EXPECT_EQ(m_journal.Entries(),
                  std::vector<std::string>{"console Received task type: " + std::to_string(id) + "\n"});
    }
}

TEST_F(Orders, RefusedReplyIsIgnored) {
    m_engine.onSend = [](std::uint32_t) { return false; };
    m_engine.DeliverCommand(TCP_TASK_CANCEL_ID);
    EXPECT_EQ(m_engine.sent.All().size(), 1u);
    EXPECT_EQ(m_journal.Count("runner.CloseTask 2 0"), 1u);
}

TEST_F(Orders, MissingPayloadsAreNoCrash) {
    for (const std::uint32_t id : {4017u, 4015u, 4002u, 4004u, 4006u, 4019u, 12306u, 4014u}) {
        m_engine.Deliver(id, nullptr);
    }
    EXPECT_EQ(m_journal.Count(Line(3, "The engine sent a new task without a text; it is ignored.")), 1u);
    EXPECT_EQ(m_journal.Count(Line(3, "The engine sent an update without a text; it is ignored.")), 1u);
    EXPECT_EQ(m_journal.Count("console Session4294967295连接断开\n"), 1u);
}

TEST_F(Orders, MissingTextIsIgnoredButItsSessionCounts) {
    m_engine.DeliverText(TCP_TASK_ADD_ID, nullptr, 8);
    EXPECT_EQ(SessionNow(), 8u);
    m_engine.DeliverText(TCP_TASK_UPDATE_ID, nullptr, 9);
    EXPECT_EQ(SessionNow(), 9u);
    EXPECT_EQ(m_journal.Count("send 4016"), 1u);
}

TEST_F(Orders, MissingCommandCountsAsOneWithoutIds) {
    const TaskCommandPayload payload{8, 0, nullptr};
    m_engine.Deliver(TCP_TASK_FINISH_ID, &payload);
    ExpectReply(4020, "00000000-0000-0000-0000-000000000000", kFinished, 8);
}

TEST_F(Orders, TextThatIsNotUtf8IsRepaired) {
    m_engine.DeliverText(TCP_TASK_UPDATE_ID, "<a>\xC8\xCE</a>");
    EXPECT_EQ(m_journal.EntriesThat([](const std::string& entry) { return entry.starts_with("runner."); }),
              std::vector<std::string>{"runner.UpdateTask <a>\xEF\xBF\xBD\xEF\xBF\xBD</a>"});
}

TEST_F(Orders, TextOfTenMegabytes) {
    const std::string text = "<a>" + std::string(10u << 20, 'x') + "</a>";
    m_engine.DeliverText(TCP_TASK_UPDATE_ID, (text + "\r\n").c_str());
    EXPECT_EQ(m_journal.Count("runner.UpdateTask " + text), 1u);
}

// Whoever sends meanwhile is not held up.
TEST_F(Orders, RunnerIsCalledOutsideTheSendLock) {
    const auto send = [this] {
        std::thread([this] {
            const HeartbeatRecord record;
            m_core->Send(TCP_WORKER_HEARTBEAT_ID, &record);
        }).join();
    };
    m_script.onClose = [send](std::uint32_t) { send(); };
    m_script.onSuspend = m_script.onResume = m_script.onUpdate = send;
    std::size_t calls = 0;
    for (const std::uint32_t id : {4002u, 4004u, 4006u, 4015u, 4019u, 12306u}) {
        if (id == TCP_TASK_UPDATE_ID)
            m_engine.DeliverText(id, "<t/>");
        else if (id == TCP_SERVER_DISCONNECT_ID)
            m_engine.DeliverLoss();
        else
            m_engine.DeliverCommand(id);
        EXPECT_EQ(m_engine.sent.WithId(TCP_WORKER_HEARTBEAT_ID).size(), ++calls) << id;
    }
}

// A work loop whose final status is given up with the loss must find the stop flag.
TEST_F(Orders, ALossStopsTheWorkLoopBeforeItCanBeSeen) {
    struct AtLoss final : LogListener {
        void Receive(const LogLine& line) override {
            if (line.text.starts_with("Worker will be cancel")) then();
        }
        std::function<void()> then;
    } listener;
    std::atomic<bool> left = false;
    bool leftInTime = false;
    std::thread loop;
    // It would log what it does with a task, and wait for this line's end then.
    listener.then = [&] {
        EXPECT_TRUE(m_core->IsDisconnected());
        loop = std::thread([&] {
            m_core->DoWork("<more/>", RQ_TASK_PACKAGE);
            left = true;
        });
        leftInTime = kit::WaitUntil([&] { return left.load(); }, std::chrono::seconds(5));
    };
    LogHub().Add(&listener);
    m_engine.DeliverLoss();
    LogHub().Remove(&listener);
    loop.join();
    EXPECT_TRUE(leftInTime);
    EXPECT_EQ(m_journal.Count("runner.AnalyseTask <more/>"), 0u);
}

TEST_F(Orders, AnExceptionEndsItsOrderAloneAndIsLogged) {
    m_script.onUpdate = [] { throw std::bad_alloc(); };
    m_engine.DeliverText(TCP_TASK_UPDATE_ID, "<t/>");
    EXPECT_EQ(m_journal.LogLines().back(), Line(5, "Message 4015 ended by an exception: std::bad_alloc"));
    m_engine.DeliverCommand(TCP_TASK_SUSPEND_ID);
    EXPECT_EQ(m_engine.sent.WithId(TCP_TASK_SUSPEND_REPLY_ID).size(), 1u);
}

TEST_F(Orders, WhatIsNoExceptionOfOursEndsItsOrderAloneToo) {
    m_script.onUpdate = [] { throw 3; };
    m_engine.DeliverText(TCP_TASK_UPDATE_ID, "<t/>");
    EXPECT_EQ(m_journal.LogLines().back(), Line(5, "Message 4015 ended by an unknown exception."));
}

// An engine's ID is one line of the console, whatever it holds.
TEST_F(Orders, ControlsInATaskIdForgeNoLine) {
    TaskCommand command;
    command.taskIds = {"a\nReceived task type: 4014\r", "\x1B[2J", "b\xFF", "一 二"};
    m_engine.DeliverCommand(TCP_TASK_SUSPEND_ID, command);
    EXPECT_EQ(m_journal.Console(),
              "Received task type: 4004\nTaskID=a\\nReceived task type: 4014\\r\nTaskID=\\x1B[2J\n"
              "TaskID=b\xEF\xBF\xBD\nTaskID=一 二\n");
}

// While a task runs: what ends it clears the working flag, before the work loop comes to it.
class HeldTask : public WorkerFixture, public ::testing::WithParamInterface<std::uint32_t> {
  protected:
    void Hold() {
        m_script.onPerform = [this] {
            m_inside.Open();
            m_goOn.Wait();
            return 0;
        };
        InitCore();
        StartWork();
        ASSERT_TRUE(m_inside.Wait());
        EXPECT_TRUE(m_core->IsWorking());
    }
    void Deliver(std::uint32_t id) {
        if (id == TCP_SERVER_DISCONNECT_ID) return m_engine.DeliverLoss();
        if (id == TCP_WORKER_DESTROY_ID) return m_engine.DeliverDestroy();
        if (id == TCP_TASK_ADD_ID || id == TCP_TASK_UPDATE_ID) return m_engine.DeliverText(id, "<more/>");
        m_engine.DeliverCommand(id);
    }
};

class EndingOrder : public HeldTask {};

TEST_P(EndingOrder, ClearsTheWorkingFlag) {
    Hold();
    Deliver(GetParam());
    EXPECT_FALSE(m_core->IsWorking());
}

// What is to be closed is closed first: whoever sees a cleared flag may rely on it.
TEST_P(EndingOrder, ClosesBeforeItClearsTheFlags) {
    const auto seen = std::make_shared<std::vector<std::pair<bool, bool>>>();
    m_script.onClose = [this, seen](std::uint32_t) {
        seen->emplace_back(m_core->IsWorking(), m_core->HeartbeatShouldStop());
    };
    Hold();
    Deliver(GetParam());
    ASSERT_EQ(seen->size(), 1u);
    EXPECT_EQ(seen->front(), std::pair(true, false));
}

INSTANTIATE_TEST_SUITE_P(Ids, EndingOrder, ::testing::Values(4002, 4019, 12306));

class OtherOrder : public HeldTask {};

TEST_P(OtherOrder, LeavesTheWorkingFlag) {
    Hold();
    Deliver(GetParam());
    EXPECT_TRUE(m_core->IsWorking());
}

INSTANTIATE_TEST_SUITE_P(Ids, OtherOrder, ::testing::Values(4004, 4006, 4014, 4015, 4017));

class EarlyOrders : public WorkerFixture {};

TEST_F(EarlyOrders, ReplyBeforeAnalysisHasNoIdAndNoGuid) {
    InitCore();
    m_engine.DeliverCommand(TCP_TASK_SUSPEND_ID);
    const auto reply = m_engine.sent.All().at(0).As<TaskCommandReply>();
    EXPECT_EQ(reply.taskId, "");
    EXPECT_EQ(reply.guid, "");
}

}  // namespace
}  // namespace rq
