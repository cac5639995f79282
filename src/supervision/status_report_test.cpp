#include "supervision/status_report.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "errors/error_text.h"
#include "supervision/testing/fake_core.h"

namespace rq {
namespace {

using namespace std::chrono_literals;
using testing::Line;
using testing::RunnerAnswers;

std::string StatusLine(int level, const std::string& text) {
    return Line(level, text, "MAIN", "thread_get_status");
}
const std::string kFirstTry = StatusLine(2, "Status=Finished, SendMSG.");
const std::string kRetry = StatusLine(2, "Send status message...");

class StatusReport : public ::testing::Test {
  protected:
    TaskStatusEntry Report(std::uint32_t status) {
        EXPECT_EQ(ReportStatus(m_core, status), 0);
        const auto sent = m_core.sent.All();
        EXPECT_EQ(sent.size(), 1u);
        return sent.at(0).Status();
    }

    testing::FakeCore m_core;
};

TEST_F(StatusReport, MessageHasTheFixedFields) {
    Report(3);
    const auto message = m_core.sent.All().at(0);
    EXPECT_EQ(message.id, 4009u);
    const auto& state = message.As<EngineStateMessage>();
    EXPECT_EQ(state.id, 4009u);
    EXPECT_EQ(state.kind, "state");
    EXPECT_EQ(state.sender, "Worker");
    EXPECT_EQ(state.receiver, "Lite/Agent");
    EXPECT_EQ(state.entries.size(), 1u);
}

TEST_F(StatusReport, EntryCopiesTheTaskInformation) {
    m_core.taskType = 4;
    m_core.script.With([](RunnerAnswers& answers) {
        answers.error = {0x80000002u, 17, L"细节 detail", L"更多 further"};
    });
    const TaskStatusEntry entry = Report(3);
    EXPECT_EQ(entry.taskId, "T1");
    EXPECT_EQ(entry.second, "");
    EXPECT_EQ(entry.third, "");
    EXPECT_EQ(entry.taskType, 4u);
    EXPECT_EQ(entry.status, 3u);
    EXPECT_EQ(entry.detailErrorCode, 0x80000002u);
    EXPECT_EQ(entry.detailErrorText, "细节 detail");
    EXPECT_EQ(entry.errorCode, 17u);
    EXPECT_EQ(entry.errorText, GetErrorName(17, kFamilyTask));
    EXPECT_EQ(entry.furtherText, "更多 further");
    EXPECT_EQ(entry.result, nullptr);
}

TEST_F(StatusReport, ConsoleTellsTheStatusAsGiven) {
    m_core.script.With([](RunnerAnswers& answers) { answers.closeMode = kClosePatrol; });
    Report(5);
    EXPECT_EQ(m_core.journal.Console(), "emStatus=5\n");
}

TEST_F(StatusReport, FailedAnalysisTravelsAsTwosComplementWithItsFallbackName) {
    m_core.script.With([](RunnerAnswers& answers) { answers.error.errorCode = -5; });
    const TaskStatusEntry entry = Report(4);
    EXPECT_EQ(entry.errorCode, 0xFFFFFFFBu);
    EXPECT_EQ(entry.errorText, "KWR_OVL_ERROR_FFFFFFFB");
}

TEST_F(StatusReport, ErrorTextIsLookedUpForCodeZeroToo) {
    const TaskStatusEntry entry = Report(3);
    EXPECT_EQ(entry.errorCode, 0u);
    EXPECT_EQ(entry.errorText, GetErrorName(0, kFamilyTask));
    EXPECT_NE(entry.errorText, "");
}

TEST_F(StatusReport, ResultGoesWithFinishedAndErrorOnly) {
    const auto result = std::make_shared<stMD5TaskResult>();
    m_core.script.With([&](RunnerAnswers& answers) { answers.result = result; });
    for (const std::uint32_t status : {0u, 4u}) {
        m_core.sent.Clear();
        EXPECT_EQ(Report(status).result, result) << status;
    }
    EXPECT_EQ(m_core.journal.Count("runner.GetTaskResult 3"), 2u);
    for (const std::uint32_t status : {1u, 2u, 3u, 5u, 6u, 7u, 99u}) {
        m_core.sent.Clear();
        EXPECT_EQ(Report(status).result, nullptr) << status;
    }
    EXPECT_EQ(m_core.journal.Count("runner.GetTaskResult 3"), 2u);
}

TEST_F(StatusReport, MissingResultIsNull) {
    EXPECT_EQ(Report(0).result, nullptr);
    EXPECT_EQ(m_core.journal.Count("runner.GetTaskResult 3"), 1u);
}

TEST_F(StatusReport, CancelAfterAPatrolCloseIsAnError) {
    const auto result = std::make_shared<stMD5TaskResult>();
    m_core.script.With([&](RunnerAnswers& answers) {
        answers.closeMode = kClosePatrol;
        answers.result = result;
    });
    const TaskStatusEntry entry = Report(5);
    EXPECT_EQ(entry.status, 4u);
    EXPECT_EQ(entry.result, result);
    EXPECT_EQ(m_core.journal.LogLines(),
              std::vector<std::string>{StatusLine(3, "ForceCancel, the status is error.")});
}

TEST_F(StatusReport, CancelAfterAnyOtherCloseStaysACancel) {
    for (const std::uint32_t mode : {0u, 2u, 6u}) {
        m_core.sent.Clear();
        m_core.script.With([&](RunnerAnswers& answers) { answers.closeMode = mode; });
        EXPECT_EQ(Report(5).status, 5u) << mode;
    }
    EXPECT_TRUE(m_core.journal.LogLines().empty());
}

TEST_F(StatusReport, OtherStatusesAreNotChangedByAPatrolClose) {
    m_core.script.With([](RunnerAnswers& answers) { answers.closeMode = kClosePatrol; });
    for (const std::uint32_t status : {0u, 3u, 7u}) {
        m_core.sent.Clear();
        EXPECT_EQ(Report(status).status, status);
    }
}

TEST_F(StatusReport, NoRunner) {
    m_core.hasRunner = false;
    EXPECT_EQ(ReportStatus(m_core, 0), -1);
    EXPECT_TRUE(m_core.sent.All().empty());
    EXPECT_EQ(m_core.journal.Console(), "emStatus=0\n");
    EXPECT_EQ(m_core.journal.LogLines(), std::vector<std::string>{StatusLine(3, "m_pWorker == NULL.")});
}

TEST_F(StatusReport, DisconnectedSendsNothingAndReturnsAtOnce) {
    m_core.disconnected = true;
    m_core.failures = 1000;
    for (const std::uint32_t status : {0u, 4u, 5u, 3u}) EXPECT_EQ(ReportStatus(m_core, status), 0);
    EXPECT_TRUE(m_core.sent.All().empty());
    EXPECT_TRUE(m_core.journal.LogLines().empty());
    EXPECT_EQ(m_core.clock.WaitsBegun(), 0u);
}

TEST_F(StatusReport, AcceptedFinalStatusIsSentOnceWithoutASleep) {
    Report(0);
    EXPECT_EQ(m_core.journal.LogLines(), std::vector<std::string>{kFirstTry});
    EXPECT_EQ(m_core.clock.WaitsBegun(), 0u);
}

TEST_F(StatusReport, OnlyFinishedSaysSo) {
    Report(4);
    EXPECT_TRUE(m_core.journal.LogLines().empty());
}

TEST_F(StatusReport, OtherStatusIsTriedOnce) {
    m_core.failures = 1000;
    for (const std::uint32_t status : {1u, 3u, 5u, 7u}) {
        m_core.sent.Clear();
        Report(status);
    }
    EXPECT_EQ(m_core.clock.WaitsBegun(), 0u);
    EXPECT_EQ(m_core.journal.Count(kRetry), 0u);
}

TEST_F(StatusReport, RefusedFinalStatusIsRepeatedAtOnceAndThenEachSecond) {
    m_core.failures = 3;
    const SteadyTime begin = m_core.clock.Steady();
    std::thread reporter([this] { EXPECT_EQ(ReportStatus(m_core, 0), 0); });
    // The first repeat is immediate, and a second passes after each, the accepted one included.
    for (std::size_t tries = 2; tries <= 4; ++tries) {
        ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
        EXPECT_EQ(m_core.sent.All().size(), tries);
        m_core.clock.Advance(999ms);
        EXPECT_EQ(m_core.sent.All().size(), tries);
        m_core.clock.Advance(1ms);
    }
    reporter.join();
    const auto sent = m_core.sent.All();
    ASSERT_EQ(sent.size(), 4u);
    EXPECT_EQ(sent[0].time - begin, 0s);
    EXPECT_EQ(sent[1].time - begin, 0s);
    EXPECT_EQ(sent[2].time - begin, 1s);
    EXPECT_EQ(sent[3].time - begin, 2s);
    EXPECT_EQ(m_core.clock.Steady() - begin, 3s);
    EXPECT_EQ(m_core.journal.Entries(),
              (std::vector<std::string>{"console emStatus=0\n", "runner.GetTaskResult 3", kFirstTry,
                                        "core.Send 4009", kRetry, "core.Send 4009", kRetry, "core.Send 4009",
                                        kRetry, "core.Send 4009"}));
}

// What the plug-in changes meanwhile is not told under the name of the first try.
TEST_F(StatusReport, TheSameMessageIsRepeated) {
    const auto first = std::make_shared<stMD5TaskResult>();
    m_core.script.With([&](RunnerAnswers& answers) {
        answers.error = {1, 2, L"detail", L"further"};
        answers.result = first;
    });
    m_core.failures = 2;
    m_core.onSend = [this](std::uint32_t) {
        m_core.script.With([](RunnerAnswers& answers) {
            answers.error = {9, 9, L"later", L"later"};
            answers.result = std::make_shared<stMD5TaskResult>();
            answers.status = 9;
        });
        m_core.taskType = 9;
    };
    std::thread reporter([this] { EXPECT_EQ(ReportStatus(m_core, 4), 0); });
    for (int tries = 2; tries <= 3; ++tries) {
        EXPECT_TRUE(m_core.clock.WaitForWaiters(1));
        m_core.clock.Advance(1s);
    }
    reporter.join();
    const auto sent = m_core.sent.All();
    ASSERT_EQ(sent.size(), 3u);
    for (const auto& message : sent) {
        const TaskStatusEntry& entry = message.Status();
        EXPECT_EQ(entry.taskType, 3u);
        EXPECT_EQ(entry.status, 4u);
        EXPECT_EQ(entry.detailErrorCode, 1u);
        EXPECT_EQ(entry.detailErrorText, "detail");
        EXPECT_EQ(entry.errorCode, 2u);
        EXPECT_EQ(entry.errorText, GetErrorName(2, kFamilyTask));
        EXPECT_EQ(entry.furtherText, "further");
        EXPECT_EQ(entry.result, first);
    }
}

TEST_F(StatusReport, LossDuringTheFirstTryLeavesItTheOnlyOne) {
    m_core.failures = 1'000'000;
    m_core.onSend = [this](std::uint32_t) { m_core.disconnected = true; };
    EXPECT_EQ(ReportStatus(m_core, 4), 0);
    EXPECT_EQ(m_core.sent.All().size(), 1u);
}

TEST_F(StatusReport, LossOfTheServerEndsTheRepeats) {
    m_core.failures = 1'000'000;
    std::thread reporter([this] { EXPECT_EQ(ReportStatus(m_core, 4), 0); });
    ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
    m_core.disconnected = true;
    m_core.clock.Advance(1s);
    reporter.join();
    EXPECT_EQ(m_core.sent.All().size(), 2u);
}

}  // namespace
}  // namespace rq
