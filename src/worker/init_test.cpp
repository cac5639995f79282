#include <gtest/gtest.h>

#include <chrono>

#include "base/result.h"
#include "base/text.h"
#include "platform/process.h"
#include "worker/testing/worker_fixture.h"

namespace rq {
namespace {

using testing::Line;
using testing::RunnerAnswers;
using testing::WorkerFixture;

class Init : public WorkerFixture {
  protected:
    const std::string m_begin = Line(1, "==>Worker Begin init..");
    const std::string m_end = Line(2, "Worker Init. PID:" + std::to_string(platform::CurrentProcessId()));
};

TEST_F(Init, MembersAfterConstruction) {
    MakeCore();
    EXPECT_EQ(m_journal.Calls(), std::vector<std::string>{"runner created"});
    EXPECT_TRUE(m_core->IsDisconnected());
    EXPECT_FALSE(m_core->IsPaused());
    EXPECT_FALSE(m_core->IsWorking());
    EXPECT_FALSE(m_core->HeartbeatShouldStop());
    EXPECT_EQ(m_core->TaskId(), "");
    EXPECT_EQ(m_core->WorkerGuid(), "");
    EXPECT_EQ(m_core->ProcessIdText(), "");
    EXPECT_EQ(m_core->TaskType(), 0);
    EXPECT_EQ(m_core->HeartbeatInterval_s(), 60);
    EXPECT_EQ(m_core->ProgressReportInterval_s(), 5u);
    EXPECT_EQ(m_core->ProgressPatrolTimeout_s(), 60u);
}

TEST_F(Init, NullRecord) {
    MakeCore();
    EXPECT_EQ(m_core->Init(nullptr), kStatusFail);
    EXPECT_EQ(m_journal.LogLines(),
              (std::vector<std::string>{m_begin, Line(4, "Worker init failed. the param is null")}));
    EXPECT_TRUE(m_core->IsDisconnected());
    EXPECT_EQ(m_journal.Count("client created"), 0u);
}

TEST_F(Init, OrderForOrdinaryTypes) {
    m_start.supervisionCallback = [](std::uint32_t, std::uint64_t, std::uint64_t) {
        return std::uint64_t{0};
    };
    EXPECT_EQ(InitCore(), 0);
    EXPECT_EQ(m_journal.Entries(),
              (std::vector<std::string>{"runner created", m_begin, "read parameters", "client created",
                                        "client.Initialize", "client.Connect 127.0.0.1:8083",
                                        "console sessionID=7\n", "runner.Init", m_end}));
    EXPECT_FALSE(m_core->IsDisconnected());
    EXPECT_EQ(m_core->Supervision(), m_start.supervisionCallback);
    EXPECT_EQ(m_core->TaskType(), 3);
    EXPECT_EQ(m_core->ProcessIdText(), std::to_string(platform::CurrentProcessId()));
}

TEST_F(Init, TheSupervisionCallbackIsKeptAndNeverCalled) {
    static std::atomic<int> calls;
    calls = 0;
    m_start.supervisionCallback = [](std::uint32_t, std::uint64_t, std::uint64_t) {
        ++calls;
        return std::uint64_t{0};
    };
    InitCore();
    StartWork();
    ASSERT_TRUE(m_engine.sent.WaitFor(TCP_WORKER_STATE_ID, 2));
    End();
    EXPECT_EQ(calls, 0);
}

TEST_F(Init, OrderForPackageTypes) {
    for (const std::int32_t type : {14, 23}) {
        m_start.taskType = type;
        m_journal.Clear();
        EXPECT_EQ(InitCore(), 0);
        EXPECT_EQ(m_journal.Entries(),
                  (std::vector<std::string>{"runner created", m_begin, "read parameters", "runner.Init",
                                            "client created", "client.Initialize",
                                            "client.Connect 127.0.0.1:8083", "console sessionID=7\n", m_end}))
            << type;
        End();
    }
}

TEST_F(Init, HeartbeatThreadRunsAfterwards) {
    InitCore();
    ASSERT_TRUE(m_clock.WaitForWaiters(1));
    m_clock.Advance(std::chrono::seconds(40));
    EXPECT_TRUE(m_engine.sent.WaitFor(TCP_WORKER_HEARTBEAT_ID, 1));
    const auto beat = m_engine.sent.WithId(TCP_WORKER_HEARTBEAT_ID).at(0);
    EXPECT_EQ(beat.sessionId, 7u);
    EXPECT_EQ(beat.As<HeartbeatRecord>().workerGuid, "");
    EXPECT_EQ(m_core->HeartbeatInterval_s(), 40);
}

TEST_F(Init, HeartbeatThreadRunsBeforeTheRunnerOfAnOrdinaryTypeIsInitialised) {
    m_script.onInit = [this] {
        EXPECT_TRUE(m_clock.WaitForWaiters(1, std::chrono::seconds(20)));
        return 0;
    };
    EXPECT_EQ(InitCore(), 0);
    EXPECT_EQ(m_journal.Count("runner.Init"), 1u);
}

TEST_F(Init, RunnerGetsTextParametersAndType) {
    m_parameters.resize(1);
    m_parameters[0].value03 = 77;
    m_start.taskType = 4;
    InitCore();
    m_script.With([](RunnerAnswers& answers) {
        EXPECT_EQ(answers.start.parameterText, "<task/>");
        EXPECT_EQ(answers.start.parameters.value03, 77);
        EXPECT_EQ(answers.start.parameters.nextServerIndex, 0) << "as they were read, before a connection";
        EXPECT_EQ(answers.start.workerType, 4);
    });
}

TEST_F(Init, FailingRunnerOfAPackageMakesNoConnection) {
    for (const std::int32_t type : {14, 23}) {
        m_start.taskType = type;
        m_journal.Clear();
        m_script.With([](RunnerAnswers& answers) { answers.initResult = 42; });
        EXPECT_EQ(InitCore(), 42);
        EXPECT_EQ(m_journal.Entries(),
                  (std::vector<std::string>{"runner created", m_begin, "read parameters", "runner.Init",
                                            Line(4, "RQ_TASK_PACKAGE WorkRunner Init False!")}))
            << type;
        EXPECT_TRUE(m_core->HeartbeatShouldStop());
        EXPECT_FALSE(m_core->IsDisconnected());
        End();
    }
}

TEST_F(Init, FailingRunnerOfAnyOtherTypeEndsTheHeartbeat) {
    m_script.With([](RunnerAnswers& answers) { answers.initResult = -7; });
    EXPECT_EQ(InitCore(), -7);
    const auto lines = m_journal.LogLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], m_begin);
    EXPECT_EQ(m_journal.Count(Line(4, "WorkRunner Init False!")), 1u);
    EXPECT_EQ(m_journal.Count(m_end), 0u);
    EXPECT_TRUE(m_core->HeartbeatShouldStop());
    // The heartbeat thread ends without the clock moving; Release joins it and lets go of the link.
    Release();
    EXPECT_TRUE(m_engine.sent.All().empty());
    EXPECT_EQ(m_journal.Count("client deleted"), 1u);
    EXPECT_EQ(m_journal.Count(Line(2, "Worker thread for sending heartbeat has stopped. PID:" +
                                          std::to_string(platform::CurrentProcessId()) + ", TaskID:[]")),
              1u);
}

TEST_F(Init, ParametersComeFromTheWorkPathAndAreWrittenBackWhenTheReadSaysSo) {
    m_readResult = 1;
    m_parameters.resize(1);
    m_parameters[0].value03 = 5;
    InitCore();
    EXPECT_EQ(m_readPath, NarrowUtf8(GetModuleDirectory()) + "actor.xml");
    EXPECT_EQ(m_writePath, GetModuleDirectory() + L"actor.xml");
    EXPECT_EQ(m_written.value03, 5);
    EXPECT_EQ(m_journal.Count("write parameters"), 1u);
    EXPECT_EQ(m_core->ReadRunningParameter(), 0u);
    EXPECT_EQ(m_journal.Count("write parameters"), 2u);
}

TEST_F(Init, NegativeTimesOfTheProgressThreadAreVeryLongOnes) {
    m_parameters.resize(1);
    m_parameters[0].progressReportInterval_s = -1;
    m_parameters[0].progressPatrolTimeout_s = -1;
    InitCore();
    EXPECT_EQ(m_core->ProgressReportInterval_s(), 4'294'967'295u);
    EXPECT_EQ(m_core->ProgressPatrolTimeout_s(), 4'294'967'295u);
}

TEST_F(Init, ParametersAreNotWrittenBackAfterAGoodRead) {
    InitCore();
    EXPECT_EQ(m_journal.Count("write parameters"), 0u);
}

TEST_F(Init, MissingRunnerIsMadeHere) {
    m_failingRunners = 1;
    EXPECT_EQ(InitCore(), 0);
    EXPECT_EQ(m_journal.Calls(), (std::vector<std::string>{
                                     "runner created", "read parameters", "runner created", "client created",
                                     "client.Initialize", "client.Connect 127.0.0.1:8083", "runner.Init"}));
}

TEST_F(Init, RunnerThatFoundNoMemoryIsMadeHere) {
    m_throwingRunners = 1;
    MakeCore();
    EXPECT_EQ(m_core->Runner(), nullptr);
    EXPECT_EQ(InitCore(), 0);
    EXPECT_NE(m_core->Runner(), nullptr);
    EXPECT_EQ(m_journal.Count("runner created"), 2u);
}

// The stop flag alone: what there is to close is another matter.
TEST_F(Init, ACloseWithoutARunnerStopsTheWorkLoop) {
    m_failingRunners = 2;
    InitCore();
    EXPECT_EQ(m_core->SetClose(kCloseCancel), kStatusMissing);
    EXPECT_EQ(m_core->DoWork("<task/>", 3), 0);  // with the flag clear: -1, after the try to prepare
}

TEST_F(Init, NoRunnerAtAllFails) {
    m_failingRunners = 2;
    EXPECT_EQ(InitCore(), kStatusMissing);
    EXPECT_EQ(m_core->PrepareWork("<task/>"), kStatusMissing);
    EXPECT_EQ(m_core->UpdateTask("<task/>"), kStatusMissing);
    EXPECT_EQ(m_core->SetClose(kCloseCancel), kStatusMissing);
    EXPECT_EQ(m_core->thread_get_status(3), kStatusMissing);
    EXPECT_EQ(m_journal.Count(Line(1, "Prepare work begin..")), 0u);
}

TEST_F(Init, NoClientFails) {
    m_hasClient = false;
    EXPECT_EQ(InitCore(), kStatusMissing);
    EXPECT_EQ(m_journal.Count(Line(4, "The engine client could not be created.")), 1u);
    EXPECT_EQ(m_journal.Count("runner.Init"), 0u);
    EXPECT_TRUE(m_core->HeartbeatShouldStop());
}

}  // namespace
}  // namespace rq
