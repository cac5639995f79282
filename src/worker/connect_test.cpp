#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "base/result.h"
#include "base/text.h"
#include "kit/temp_dir.h"
#include "worker/testing/worker_fixture.h"

namespace rq {
namespace {

using namespace std::chrono_literals;
using testing::WorkerFixture;

class Connect : public WorkerFixture {
  protected:
    void SetServers(std::vector<std::string> addresses, std::vector<std::uint16_t> ports,
                    std::int32_t index) {
        tagOVLCommunicationParam parameters;
        parameters.serverAddresses = std::move(addresses);
        parameters.serverPorts = std::move(ports);
        parameters.nextServerIndex = index;
        m_parameters.push_back(parameters);
    }
    std::string Connected() {
        InitCore();
        for (const auto& call : m_journal.Calls())
            if (call.starts_with("client.Connect ")) return call.substr(15);
        return "nowhere";
    }
    // The index that the core is left with, as the perform call would see it.
    std::int32_t IndexLeft() {
        m_core->DoWorkOne();
        return m_script.With(
            [](testing::RunnerAnswers& answers) { return answers.parameters.nextServerIndex; });
    }
    std::size_t DefaultLines() const {
        return m_journal
            .EntriesThat([](const std::string& entry) {
                return entry.starts_with(
                           "log 3: The server list of the running parameters has no server at") &&
                       entry.ends_with("Using 127.0.0.1:8083.");
            })
            .size();
    }
};

TEST_F(Connect, DefaultListGivesIndexZeroAndLeavesOne) {
    EXPECT_EQ(Connected(), "127.0.0.1:8083");
    EXPECT_EQ(IndexLeft(), 1);
    EXPECT_EQ(m_journal.Count("read parameters"), 1u);
    EXPECT_EQ(DefaultLines(), 0u);
}

TEST_F(Connect, PortAndAddressAtTheIndex) {
    SetServers({"10.0.0.1", "10.0.0.2", "10.0.0.3"}, {1001, 1002, 1003}, 1);
    EXPECT_EQ(Connected(), "10.0.0.2:1002");
    EXPECT_EQ(IndexLeft(), 2);
}

TEST_F(Connect, IndexPastTheListReadsAgain) {
    SetServers({"10.0.0.1"}, {1001}, 1);
    SetServers({"10.0.0.9"}, {1009}, 0);
    EXPECT_EQ(Connected(), "10.0.0.9:1009");
    EXPECT_EQ(m_journal.Count("read parameters"), 2u);
    EXPECT_EQ(IndexLeft(), 1);
}

TEST_F(Connect, SecondReadIsWrittenBackWhenItSaysSo) {
    m_readResult = 1;
    SetServers({"10.0.0.1"}, {1001}, 1);
    SetServers({"10.0.0.9"}, {1009}, 0);
    Connected();
    EXPECT_EQ(m_journal.Count("write parameters"), 2u);
}

TEST_F(Connect, EmptyListGivesTheDefaultAndALine) {
    SetServers({}, {}, 0);
    EXPECT_EQ(Connected(), "127.0.0.1:8083");
    EXPECT_EQ(m_journal.Count("read parameters"), 2u);
    EXPECT_EQ(DefaultLines(), 1u);
}

TEST_F(Connect, FewerPortsThanAddressesGivesTheDefaultAndALine) {
    SetServers({"10.0.0.1", "10.0.0.2"}, {1001}, 1);
    EXPECT_EQ(Connected(), "127.0.0.1:8083");
    EXPECT_EQ(m_journal.Count("read parameters"), 1u);
    EXPECT_EQ(DefaultLines(), 1u);
}

TEST_F(Connect, NegativeIndexGivesTheDefaultAndALine) {
    SetServers({"10.0.0.1"}, {1001}, -1);
    EXPECT_EQ(Connected(), "127.0.0.1:8083");
    EXPECT_EQ(DefaultLines(), 1u);
}

TEST_F(Connect, ListThatStaysTooShortAfterTheSecondReadGivesTheDefault) {
    SetServers({"10.0.0.1"}, {1001}, 5);
    EXPECT_EQ(Connected(), "127.0.0.1:8083");
    EXPECT_EQ(m_journal.Count("read parameters"), 2u);
    EXPECT_EQ(DefaultLines(), 1u);
}

TEST_F(Connect, PortOfTheCommandLineForcesTheLocalAddress) {
    SetServers({"10.0.0.1"}, {1001}, 0);
    ProcessCommandLine().ServerPortOverride = 9000;
    EXPECT_EQ(Connected(), "127.0.0.1:9000");
    EXPECT_EQ(IndexLeft(), 1);
}

TEST_F(Connect, PortOfTheCommandLineIsCutToItsLow16Bits) {
    ProcessCommandLine().ServerPortOverride = 0x12345;
    EXPECT_EQ(Connected(), "127.0.0.1:" + std::to_string(0x2345));
}

TEST_F(Connect, PortOfTheCommandLineNeedsNoList) {
    SetServers({}, {}, 0);
    ProcessCommandLine().ServerPortOverride = 9000;
    EXPECT_EQ(Connected(), "127.0.0.1:9000");
    EXPECT_EQ(DefaultLines(), 0u);
    EXPECT_EQ(m_journal.Count("read parameters"), 2u);  // past the list, whatever is used in the end
}

TEST_F(Connect, StartRecordsPortIsNotRead) {
    m_start.serverAddress = "192.0.2.1";
    m_start.serverPort = 8089;
    EXPECT_EQ(Connected(), "127.0.0.1:8083");
}

TEST_F(Connect, SetupNamesCoreHandlerAndLog) {
    ProcessCommandLine().LogFilePrefix = L"任务 1";
    InitCore();
    EXPECT_EQ(m_engine.setup.context, m_core.get());
    EXPECT_EQ(m_engine.setup.handler, &OnEngineMessage);
    EXPECT_EQ(m_engine.setup.logFile, GetDailyLogDir() + L"任务 1_C.log");
}

TEST_F(Connect, LateServerIsJoinedOnTheFirstAttemptAfterItComesUp) {
    m_engine.connectResults.assign(4, kNoSession);
    MakeCore();
    std::thread init([this] { EXPECT_EQ(InitCore(), 0); });
    // The first retry is immediate; a second passes after each, the successful one included.
    for (std::size_t attempts = 2; attempts <= 5; ++attempts) {
        ASSERT_TRUE(m_clock.WaitForWaiters(1));
        EXPECT_EQ(m_journal.Count("client.Connect 127.0.0.1:8083"), attempts);
        EXPECT_EQ(m_journal.Count("runner.Init"), 0u);
        m_clock.Advance(999ms);
        EXPECT_EQ(m_journal.Count("client.Connect 127.0.0.1:8083"), attempts);
        m_clock.Advance(1ms);
    }
    init.join();
    EXPECT_EQ(m_journal.Count("client.Connect 127.0.0.1:8083"), 5u);
    // Each line comes before the call that it tells of.
    std::vector<std::string> order{"client.Connect 127.0.0.1:8083", "console sessionID=4294967295\n"};
    for (int i = 0; i < 4; ++i) {
        order.push_back("console 通信服务端没有启动\n");
        order.push_back("client.Connect 127.0.0.1:8083");
    }
    EXPECT_EQ(m_journal.EntriesThat([](const std::string& entry) {
        return entry.starts_with("client.Connect") || entry.starts_with("console");
    }),
              order);
    EXPECT_EQ(m_journal.Count("client created"), 1u);
    EXPECT_EQ(m_journal.Count("client.Initialize"), 1u);
    // One line tells where the reasons stand.
    EXPECT_EQ(m_journal.LogLines().at(1), testing::Line(3, "No session with the engine at 127.0.0.1:8083; " +
                                                               NarrowUtf8(m_engine.setup.logFile) +
                                                               " says why. It is tried again each second."));
    EXPECT_EQ(m_journal.LogLines().size(), 3u);
}

TEST_F(Connect, NoHeartbeatIsSentBeforeThereIsAConnection) {
    m_engine.connectResults.assign(60, kNoSession);
    MakeCore();
    std::thread init([this] { EXPECT_EQ(InitCore(), 0); });
    for (int i = 0; i < 60; ++i) {
        ASSERT_TRUE(m_clock.WaitForWaiters(1));
        m_clock.Advance(1000ms);
    }
    init.join();
    EXPECT_TRUE(m_engine.sent.All().empty());
}

TEST_F(Connect, AWorkerThatAnEngineStartedLooksForOneNoLongerThanItSays) {
    const kit::ScopedEnvironment limit("RQ_CONNECT_LIMIT_MS", "2500");
    m_engine.connectResults.assign(100, kNoSession);
    MakeCore();
    std::thread init([this] { EXPECT_EQ(InitCore(), kStatusFail); });
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(m_clock.WaitForWaiters(1));
        m_clock.Advance(1000ms);
    }
    init.join();
    EXPECT_EQ(m_journal.Count("client.Connect 127.0.0.1:8083"), 4u);
    EXPECT_EQ(m_journal.Count("runner.Init"), 0u);
    EXPECT_EQ(m_journal.LogLines().back(),
              testing::Line(4, "No engine was found within 2500 ms. The worker ends."));
}

TEST_F(Connect, TheLimitCountsFromBeforeTheFirstAttempt) {
    const kit::ScopedEnvironment limit("RQ_CONNECT_LIMIT_MS", "2500");
    m_engine.connectResults.assign(100, kNoSession);
    m_engine.onConnect = [this] { m_clock.Advance(2500ms); };
    EXPECT_EQ(InitCore(), kStatusFail);
    EXPECT_EQ(m_journal.Count("client.Connect 127.0.0.1:8083"), 1u);
}

class ConnectWithoutLimit : public Connect, public ::testing::WithParamInterface<const char*> {};

TEST_P(ConnectWithoutLimit, GoesOnForEver) {
    const kit::ScopedEnvironment limit("RQ_CONNECT_LIMIT_MS", GetParam());
    m_engine.connectResults.assign(300, kNoSession);
    MakeCore();
    std::thread init([this] { EXPECT_EQ(InitCore(), 0); });
    for (int i = 0; i < 300; ++i) {
        ASSERT_TRUE(m_clock.WaitForWaiters(1));
        m_clock.Advance(1000ms);
    }
    init.join();
}

INSTANTIATE_TEST_SUITE_P(Values, ConnectWithoutLimit, ::testing::Values("", "0", "-1", "5x"));

TEST_F(Connect, LossBeforeConnectReturnsIsNotForgottenAndNotRetried) {
    m_engine.onConnect = [this] { std::thread([this] { m_engine.DeliverLoss(); }).join(); };
    EXPECT_EQ(InitCore(), 0);
    EXPECT_TRUE(m_core->IsDisconnected());
    const HeartbeatRecord record;
    EXPECT_FALSE(m_core->Send(TCP_WORKER_HEARTBEAT_ID, &record));
    EXPECT_EQ(m_engine.sent.All().at(0).sessionId, kNoSession);
    EXPECT_EQ(m_journal.Count("client.Connect 127.0.0.1:8083"), 1u);
    StartWork();
    EXPECT_EQ(JoinWork(), 0);
    EXPECT_EQ(m_journal.Count("runner.PerformTask"), 0u);
}

// Before the first task: no ID, no GUID, and before the end of Connect no session yet. Nothing is slept
// through.
class OrdersDuringInit : public Connect, public ::testing::WithParamInterface<bool> {
  protected:
    void DeliverAll() {
        std::thread([this] {
            m_engine.DeliverText(TCP_TASK_UPDATE_ID, "<new/>");
            for (const std::uint32_t id : {4004u, 4019u, 4002u}) m_engine.DeliverCommand(id, {}, 7);
            m_engine.DeliverDestroy();
        }).join();
    }
};

TEST_P(OrdersDuringInit, AreAnsweredAndKept) {
    const bool inConnect = GetParam();
    if (inConnect) {
        m_engine.onConnect = [this] { DeliverAll(); };
    } else {
        m_script.onInit = [this] {
            DeliverAll();
            return 0;
        };
    }
    EXPECT_EQ(InitCore(), 0);
    EXPECT_TRUE(m_core->IsPaused());
    EXPECT_TRUE(m_core->HeartbeatShouldStop());
    EXPECT_EQ(m_journal.Count("runner.UpdateTask <new/>"), 1u);
    EXPECT_EQ(m_journal.Count("runner.CloseTask 6 0"), 1u);
    EXPECT_EQ(m_journal.Count("runner.CloseTask 2 0"), 1u);
    const auto sent = m_engine.sent.All();
    ASSERT_EQ(sent.size(), 4u);
    const std::uint32_t ids[] = {4016, 4005, 4020, 4003};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(sent[i].id, ids[i]);
        EXPECT_EQ(sent[i].As<TaskCommandReply>().taskId, "");
        EXPECT_EQ(sent[i].As<TaskCommandReply>().guid,
                  ids[i] == 4020 ? "00000000-0000-0000-0000-000000000000" : "");
        // The first order brings the session of all that follow.
        EXPECT_EQ(sent[i].sessionId, inConnect && i == 0 ? kNoSession : 7u) << ids[i];
    }
    EXPECT_EQ(m_core->DoWork("<task/>", 3), 0);  // the stop flag was kept
    EXPECT_EQ(m_journal.Count("runner.AnalyseTask <task/>"), 0u);
}

INSTANTIATE_TEST_SUITE_P(Places, OrdersDuringInit, ::testing::Bool());

TEST_F(Connect, OrdersDuringInitAreTaken) {
    m_engine.onConnect = [this] {
        std::thread([this] { m_engine.DeliverText(TCP_TASK_ADD_ID, "<early/>"); }).join();
    };
    m_start.taskType = RQ_TASK_PACKAGE;
    EXPECT_EQ(InitCore(), 0);
    StartWork();
    EXPECT_TRUE(m_journal.WaitFor("runner.PerformTask", 2));
    EXPECT_LT(m_journal.Find("runner.AnalyseTask <early/>"), m_journal.Find("runner.AnalyseTask <task/>"));
}

}  // namespace
}  // namespace rq
