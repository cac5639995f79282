// PerformTask: what it sets before the call, what it leaves, and the exception boundary.

#include "base/result.h"
#include "base/sync.h"
#include "plugin/runner_fixture.h"

namespace rq {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kBegin = "2 m_workerPlugin.pPerformTaskFunc begin..";
constexpr const char* kEnd = "2 m_workerPlugin.pPerformTaskFunc end..";

using RunnerPerformTest = RunnerTest;

TEST_F(RunnerPerformTest, WithoutATaskFails) {
    Ready();
    EXPECT_EQ(Perform(), kStatusFail);
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(RunnerPerformTest, GivesThePluginItsArguments) {
    m_parameters.value01 = 33;
    m_plugin.perform = [&](const PerformArguments& call) {
        EXPECT_EQ(call.info, &m_info);
        EXPECT_EQ(RQLoad32(call.stopFlag), 0u);
        EXPECT_NE(call.context, nullptr);
        EXPECT_EQ(call.parameter->value01, 33);
        EXPECT_EQ(RQLoad32(&call.info->status), 3u);
        EXPECT_FALSE(m_runner->IsIdle());
        call.Leave(RQ_STATUS_FINISHED);
        return -1;  // not looked at
    };
    Analysed();
    EXPECT_EQ(Perform(), 0);
    EXPECT_TRUE(m_runner->IsIdle());
    EXPECT_TRUE(m_runner->IsStatusChanged());
    EXPECT_EQ(m_runner->GetStatus(), 0u);
    EXPECT_THAT(Lines(), ElementsAre(kBegin, kEnd));
}

TEST_F(RunnerPerformTest, ReturnsZeroWhenThePluginReportsFailure) {
    m_plugin.perform = [](const PerformArguments& call) {
        call.Leave(RQ_STATUS_ERROR);
        return 5;
    };
    Analysed();
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetStatus(), 4u);
}

TEST_F(RunnerPerformTest, SetsItsStampsWhenThereIsAPatrol) {
    const LocalTime now = m_clock.Local();
    m_parameters.progressPatrolTimeout_s = 1;
    m_plugin.perform = [&](const PerformArguments& call) {
        const TaskProgress progress = m_runner->GetProgress();
        EXPECT_EQ(progress.percent, 0);
        EXPECT_EQ(progress.lastUpdate, now);
        EXPECT_EQ(progress.expectedNextUpdate, now);
        EXPECT_EQ(progress.start, now);
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    Analysed();
    EXPECT_EQ(Perform(), 0);
}

TEST_F(RunnerPerformTest, SetsOnlyTheLastUpdateWithoutAPatrol) {
    m_parameters.progressPatrolTimeout_s = 0;
    m_plugin.perform = [&](const PerformArguments& call) {
        const TaskProgress progress = m_runner->GetProgress();
        EXPECT_EQ(progress.lastUpdate, m_clock.Local());
        EXPECT_TRUE(progress.expectedNextUpdate.is_not_a_date_time());
        EXPECT_TRUE(progress.start.is_not_a_date_time());
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    Analysed();
    EXPECT_EQ(Perform(), 0);
}

TEST_F(RunnerPerformTest, ANewTaskStartsAtZeroPercentAndKeepsTheOtherFigures) {
    m_plugin.perform = [](const PerformArguments& call) {
        call.Progress(10, 5);
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    Analysed();
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetProgress().percent, 50);
    m_plugin.perform = [&](const PerformArguments& call) {
        EXPECT_EQ(m_runner->GetProgress().percent, 0);
        EXPECT_EQ(m_runner->GetProgress().processed, 5);
        EXPECT_EQ(m_runner->GetProgress().updated, 1);
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    EXPECT_EQ(Analyse(), 0);
    EXPECT_EQ(Perform(), 0);
}

TEST_F(RunnerPerformTest, DoesNotClearTheStopFlagButClearsTheCloseMode) {
    Analysed();
    EXPECT_EQ(m_runner->CloseTask(kCloseCancel, 0), 0);
    std::uint32_t seen = 0;
    m_plugin.perform = [&](const PerformArguments& call) {
        seen = RQLoad32(call.stopFlag);
        EXPECT_EQ(m_runner->GetCloseMode(), 0u);
        call.Leave(RQ_STATUS_CANCELLED);
        return 0;
    };
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(seen, 1u);
    EXPECT_EQ(Analyse(), 0);
    EXPECT_EQ(m_runner->GetStopFlag(), 1u);
}

TEST_F(RunnerPerformTest, StatusChangedTellsWhetherTheValueWasAnother) {
    Analysed();
    m_info.status = 3;
    m_plugin.perform = [&](const PerformArguments& call) {
        EXPECT_FALSE(m_runner->IsStatusChanged());
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    EXPECT_EQ(Perform(), 0);
    EXPECT_TRUE(m_runner->IsStatusChanged());
    m_plugin.perform = [&](const PerformArguments& call) {
        EXPECT_TRUE(m_runner->IsStatusChanged());
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    EXPECT_EQ(Perform(), 0);
}

TEST_F(RunnerPerformTest, AReturnInStatus3IsOneLineAndStays) {
    m_plugin.perform = [](const PerformArguments&) { return 0; };
    Analysed();
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetStatus(), 3u);
    EXPECT_THAT(Lines(),
                ElementsAre(kBegin, kEnd, "3 plug-in fake returned from its perform call in status 3"));
}

// ---- the exception boundary ----

class RunnerExceptionTest : public RunnerTest {
  protected:
    template <class Thrown>
    void PerformThrowing(Thrown thrown, std::uint32_t status = RQ_STATUS_RUNNING) {
        m_plugin.perform = [=](const PerformArguments& call) -> std::int32_t {
            call.Leave(status);
            throw thrown;
        };
        Analysed();
        EXPECT_EQ(Perform(), 0);
        EXPECT_TRUE(m_runner->IsIdle());
    }
};

TEST_F(RunnerExceptionTest, StandardExceptionFailsARunningTask) {
    PerformThrowing(std::runtime_error("disk \xe6\xbb\xa1"));
    EXPECT_EQ(m_runner->GetStatus(), 4u);
    EXPECT_EQ(m_runner->GetErrorInfo().detailErrorText, L"disk \u6ee1");
    EXPECT_EQ(m_runner->GetErrorInfo().furtherText, L"disk \u6ee1");
    EXPECT_THAT(Lines(), ElementsAre(kBegin, "5 perform got std::exception.", "5 disk \xe6\xbb\xa1"));
}

TEST_F(RunnerExceptionTest, StandardExceptionKeepsAStatusThatThePluginSet) {
    m_info.furtherText = Text("its own");
    PerformThrowing(std::runtime_error("late"), RQ_STATUS_CANCELLED);
    EXPECT_EQ(m_runner->GetStatus(), 5u);
    EXPECT_EQ(m_runner->GetErrorInfo().detailErrorText, L"");
    EXPECT_EQ(m_runner->GetErrorInfo().furtherText, L"its own");
}

TEST_F(RunnerExceptionTest, StandardExceptionWithoutATextKeepsTheDetailText) {
    m_plugin.perform = [](const PerformArguments& call) -> std::int32_t {
        call.info->detailErrorText = Text("reading");
        throw std::runtime_error("");
    };
    Analysed();
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetStatus(), 4u);
    EXPECT_EQ(m_runner->GetErrorInfo().detailErrorText, L"reading");
    EXPECT_EQ(m_runner->GetErrorInfo().furtherText, L"reading");
    EXPECT_THAT(Lines(), ElementsAre(kBegin, "5 perform got std::exception.", "5 "));
}

TEST_F(RunnerExceptionTest, StandardExceptionThatSaysNull) {
    struct Silent : std::exception {
        const char* what() const noexcept override { return nullptr; }
    };
    PerformThrowing(Silent());
    EXPECT_EQ(m_runner->GetStatus(), 4u);
    EXPECT_THAT(Lines(), ElementsAre(kBegin, "5 perform got std::exception.", "5 "));
}

TEST_F(RunnerExceptionTest, TextThatIsNotUtf8IsRepaired) {
    PerformThrowing(std::runtime_error("a\xff"));
    EXPECT_EQ(m_runner->GetErrorInfo().detailErrorText, L"a\ufffd");
}

TEST_F(RunnerExceptionTest, AnythingElseIsAnUnknownException) {
    PerformThrowing(42);
    EXPECT_EQ(m_runner->GetStatus(), 4u);
    EXPECT_EQ(m_runner->GetErrorInfo().detailErrorText, L"unknown exception");
    EXPECT_EQ(m_runner->GetErrorInfo().furtherText, L"unknown exception");
    EXPECT_THAT(Lines(), ElementsAre(kBegin, "5 perform got unknown exception."));
}

TEST_F(RunnerExceptionTest, AnythingElseKeepsAStatusThatThePluginSet) {
    PerformThrowing(std::string("odd"), RQ_STATUS_FINISHED);
    EXPECT_EQ(m_runner->GetStatus(), 0u);
    EXPECT_EQ(m_runner->GetErrorInfo().detailErrorText, L"");
}

TEST_F(RunnerExceptionTest, TheNextTaskRunsAsUsual) {
    PerformThrowing(42);
    m_plugin.perform = [](const PerformArguments& call) {
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    EXPECT_EQ(Analyse(), 0);
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetStatus(), 0u);
    EXPECT_EQ(m_runner->GetErrorInfo().detailErrorText, L"");
}

TEST_F(RunnerExceptionTest, StatusChangedIsThatOfTheFailureAlone) {
    PerformThrowing(42);
    EXPECT_TRUE(m_runner->IsStatusChanged());  // 3 became 4
}

TEST_F(RunnerExceptionTest, StatusChangedIsNotSetWhenTheCallDoesNotReturn) {
    m_info.status = RQ_STATUS_RUNNING;
    PerformThrowing(42, RQ_STATUS_CANCELLED);
    EXPECT_FALSE(m_runner->IsStatusChanged());
}

// ---- host services ----

using RunnerServicesTest = RunnerTest;

TEST_F(RunnerServicesTest, PublishedErrorWinsOverTheRecord) {
    m_plugin.perform = [&](const PerformArguments& call) {
        call.info->errorCode = 1;
        call.info->detailErrorText = Text("the record's");
        std::thread other([&] {
            m_plugin.host->publishError(m_plugin.host->context, 9, -3, Text("published"), Text("further"));
        });
        other.join();
        EXPECT_EQ(call.info->errorCode, 1);
        call.Leave(RQ_STATUS_ERROR);
        return 0;
    };
    Analysed();
    EXPECT_EQ(Perform(), 0);
    const TaskErrorInfo errors = m_runner->GetErrorInfo();
    EXPECT_EQ(errors.detailErrorCode, 9u);
    EXPECT_EQ(errors.errorCode, -3);
    EXPECT_EQ(errors.detailErrorText, L"published");
    EXPECT_EQ(errors.furtherText, L"further");
}

TEST_F(RunnerServicesTest, AnExceptionsTextWinsOverAPublishedOne) {
    m_plugin.perform = [&](const PerformArguments&) -> std::int32_t {
        m_plugin.host->publishError(m_plugin.host->context, 9, -3, Text("published"), Text("further"));
        throw std::runtime_error("thrown");
    };
    Analysed();
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetErrorInfo().errorCode, -3);
    EXPECT_EQ(m_runner->GetErrorInfo().detailErrorText, L"thrown");
}

TEST_F(RunnerServicesTest, WaitForStopEndsWithCloseTask) {
    m_plugin.perform = [&](const PerformArguments& call) {
        std::thread closer([&] {
            EXPECT_TRUE(m_clock.WaitForWaiters(1));
            m_runner->CloseTask(kCloseFinish, 0);
        });
        EXPECT_EQ(m_plugin.host->waitForStop(m_plugin.host->context, 3600 * 1000), RQ_STOP_FINISH);
        closer.join();
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    Analysed();
    EXPECT_EQ(Perform(), 0);
}

TEST_F(RunnerServicesTest, QuietForIsASignOfLife) {
    m_plugin.perform = [&](const PerformArguments& call) {
        std::thread other([&] { m_plugin.host->quietFor(m_plugin.host->context, 120); });
        other.join();
        EXPECT_EQ(m_runner->GetProgress().expectedNextUpdate,
                  m_clock.Local() + boost::posix_time::seconds(120));
        EXPECT_EQ(m_runner->GetProgress().percent, 0);
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    Analysed();
    EXPECT_EQ(Perform(), 0);
}

TEST_F(RunnerServicesTest, LogLinesCarryThePluginsNameAsModule) {
    Ready();
    m_plugin.host->log(m_plugin.host->context, 2, Text("hello"));
    ASSERT_EQ(m_log.Lines().size(), 1u);
    EXPECT_EQ(m_log.Lines()[0], (LogLine{"ACT", 2, "hello", "fake"}));
}

TEST_F(RunnerServicesTest, TheNameThatThePluginGivesItselfStandsInTheLog) {
    static RQPluginDescription description{};
    description.size = sizeof description;
    description.contractVersion = RQ_CONTRACT_VERSION;
    description.name = Text("said");
    m_plugin.describe = [](const RQHostServices*) { return &description; };
    m_plugin.perform = [](const PerformArguments&) { return 0; };
    Analysed();
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(Lines().back(), "3 plug-in said returned from its perform call in status 3");
    m_plugin.host->log(m_plugin.host->context, 2, Text("hello"));
    EXPECT_EQ(m_log.Lines().back(), (LogLine{"ACT", 2, "hello", "said"}));
}

TEST_F(RunnerServicesTest, AfterTheReleaseTheyDoNothing) {
    std::string folder;
    m_plugin.release = [&] {
        const RQText text = m_plugin.host->temporaryFolder(m_plugin.host->context);
        folder.assign(text.p, text.n);
        return 0;
    };
    Ready();
    m_runner->Release();
    ASSERT_FALSE(folder.empty());
    EXPECT_FALSE(std::filesystem::exists(PathFromUtf8(folder)));
    m_log.Clear();
    m_plugin.host->log(m_plugin.host->context, 2, Text("late"));
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(RunnerServicesTest, TheStopFlagOutlivesTheRunner) {
    const volatile std::uint32_t* stopFlag = nullptr;
    m_plugin.perform = [&](const PerformArguments& call) {
        stopFlag = call.stopFlag;
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    Analysed();
    EXPECT_EQ(Perform(), 0);
    m_runner->CloseTask(kCloseCancel, 0);
    m_runner.reset();
    EXPECT_EQ(RQLoad32(stopFlag), 1u);
}

}  // namespace
}  // namespace rq
