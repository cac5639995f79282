// AnalyseTask and UpdateTask.

#include "base/result.h"
#include "base/sync.h"
#include "plugin/runner_fixture.h"

namespace rq {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using RunnerAnalyseTest = RunnerTest;

TEST_F(RunnerAnalyseTest, GivesTheTextAndTakesTheTaskId) {
    std::string received;
    m_plugin.analyse = [&](RQText text, TaskInfo** info) {
        received.assign(text.p, text.n);
        EXPECT_EQ(*info, nullptr);
        EXPECT_THAT(Lines(), ElementsAre("4 AnalysTask Begin! TaskStr: <t>\xe4\xbb\xbb</t>"));
        *info = &m_info;
        return 0;
    };
    m_info.detailErrorText = Text("from before");
    Ready();
    EXPECT_EQ(Analyse("<t>\xe4\xbb\xbb</t>"), 0);
    EXPECT_EQ(received, "<t>\xe4\xbb\xbb</t>");
    EXPECT_EQ(m_taskId, "task-1");
    EXPECT_EQ(m_runner->GetTaskId(), "task-1");
    EXPECT_EQ(m_info.detailErrorText.n, 0u);
    EXPECT_THAT(Lines(), ElementsAre("4 AnalysTask Begin! TaskStr: <t>\xe4\xbb\xbb</t>"));
}

TEST_F(RunnerAnalyseTest, AnEmptyTaskIdIsTaken) {
    m_info.taskId = {};
    m_taskId = "older";
    Ready();
    EXPECT_EQ(Analyse(), 0);
    EXPECT_EQ(m_taskId, "");
}

TEST_F(RunnerAnalyseTest, FailureWithARecordIsWrittenIntoIt) {
    m_plugin.analyse = [&](RQText, TaskInfo** info) {
        *info = &m_info;
        return 12;
    };
    Ready();
    EXPECT_EQ(Analyse(), 12);
    EXPECT_EQ(m_taskId, "task-1");
    EXPECT_EQ(m_info.errorCode, -5);
    EXPECT_EQ(m_runner->GetErrorInfo().errorCode, -5);
    EXPECT_EQ(m_runner->GetErrorInfo().detailErrorText, L"Analyze Task Info Failed!");
    EXPECT_THAT(Lines(),
                ElementsAre("4 AnalysTask Begin! TaskStr: <t/>", "4 worker Plug in Analysis Task failed..."));
}

TEST_F(RunnerAnalyseTest, FailureWithoutATaskIdLeavesTheCallersAlone) {
    m_info.taskId = {};
    m_taskId = "older";
    m_plugin.analyse = [&](RQText, TaskInfo** info) {
        *info = &m_info;
        return 12;
    };
    Ready();
    EXPECT_EQ(Analyse(), 12);
    EXPECT_EQ(m_taskId, "older");
}

TEST_F(RunnerAnalyseTest, NoRecordAfterAFailure) {
    m_plugin.analyse = [](RQText, TaskInfo**) { return 12; };
    m_taskId = "older";
    Ready();
    EXPECT_EQ(Analyse(), 12);
    EXPECT_EQ(m_taskId, "older");
    EXPECT_THAT(Lines(),
                ElementsAre("4 AnalysTask Begin! TaskStr: <t/>", "4 worker Plug in Analysis Task failed...",
                            "4 task info is NULL!!", "4 plug-in fake left no task information record"));
    EXPECT_EQ(Perform(), kStatusFail);
    EXPECT_EQ(m_runner->GetStatus(), 4u);
    EXPECT_EQ(m_runner->GetErrorInfo().errorCode, 0);
    EXPECT_EQ(m_runner->GetErrorInfo().detailErrorText, L"");
    EXPECT_EQ(m_runner->GetTaskResult(3), nullptr);
}

TEST_F(RunnerAnalyseTest, NoRecordAfterASuccessStillGivesThePluginsResult) {
    m_plugin.analyse = [](RQText, TaskInfo**) { return 0; };
    Ready();
    EXPECT_EQ(Analyse(), 0);
    EXPECT_EQ(m_log.Count(4, "task info is NULL!!"), 1u);
    EXPECT_EQ(Perform(), kStatusFail);
    EXPECT_EQ(m_runner->GetStatus(), 4u);
}

TEST_F(RunnerAnalyseTest, ARecordThatIsTooSmallCountsAsNone) {
    m_info.size = 4;
    Ready();
    EXPECT_EQ(Analyse(), 0);
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2], "4 task info is NULL!!");
    EXPECT_THAT(lines[3], testing::HasSubstr("fake"));
    EXPECT_EQ(Perform(), kStatusFail);
}

TEST_F(RunnerAnalyseTest, TheTaskBeforeIsGoneWhileTheNextIsAnalysed) {
    Analysed();
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetStatus(), 0u);
    m_plugin.analyse = [&](RQText, TaskInfo** info) {
        EXPECT_EQ(m_runner->GetStatus(), 4u);
        EXPECT_EQ(m_runner->GetTaskId(), "");
        EXPECT_EQ(*info, nullptr);
        *info = &m_info;
        return 0;
    };
    EXPECT_EQ(Analyse(), 0);
}

TEST_F(RunnerAnalyseTest, TheTaskIdIsReadOnceEvenWhenItIsNotUtf8) {
    const char* const line = "3 plug-in fake: a text is not UTF-8; what is wrong in it became U+FFFD";
    m_info.taskId = Text("a\xff");
    Ready();
    EXPECT_EQ(Analyse(), 0);
    EXPECT_EQ(m_taskId, "a\xef\xbf\xbd");
    EXPECT_THAT(Lines(), ElementsAre("4 AnalysTask Begin! TaskStr: <t/>", line));
    m_log.Clear();
    m_taskId.clear();
    m_plugin.analyse = [this](RQText, TaskInfo** info) {
        *info = &m_info;
        return 12;
    };
    EXPECT_EQ(Analyse(), 12);
    EXPECT_EQ(m_taskId, "a\xef\xbf\xbd");
    EXPECT_THAT(Lines(), ElementsAre("4 AnalysTask Begin! TaskStr: <t/>", line,
                                     "4 worker Plug in Analysis Task failed..."));
    m_log.Clear();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(m_runner->GetTaskId(), "a\xef\xbf\xbd");
    EXPECT_THAT(Lines(), IsEmpty());
}

class RunnerFrameRateTest : public RunnerTest {
  protected:
    std::int32_t RateOf(std::uint32_t hasVideo, std::uint32_t numerator, std::uint32_t denominator) {
        const RQSourceDescription source{sizeof source, hasVideo, numerator, denominator};
        const RQSourceDescription* const sources[] = {&source};
        RQTranscodeData data{};
        data.size = sizeof data;
        data.sourceCount = 1;
        data.sources = sources;
        m_info.taskType = RQ_TYPE_TRANSCODE;
        m_info.typeData = &data;
        EXPECT_EQ(Analyse(), 0);
        return m_runner->GetFrameRate();
    }
};

TEST_F(RunnerFrameRateTest, IsThatOfTheFirstSource) {
    Ready();
    EXPECT_EQ(RateOf(1, 30000, 1001), 29);
    EXPECT_EQ(RateOf(1, 50, 1), 50);
}

TEST_F(RunnerFrameRateTest, StaysWithoutVideoOrDenominator) {
    Ready();
    EXPECT_EQ(RateOf(1, 50, 1), 50);
    EXPECT_EQ(RateOf(0, 60, 1), 50);
    EXPECT_EQ(RateOf(1, 60, 0), 50);
}

TEST_F(RunnerFrameRateTest, StaysThroughAFailedAnalysisAndAnUpdate) {
    Ready();
    EXPECT_EQ(RateOf(1, 50, 1), 50);
    std::int32_t result = 12;
    const RQSourceDescription source{sizeof source, 1, 60, 1};
    const RQSourceDescription* const sources[] = {&source};
    RQTranscodeData data{};
    data.size = sizeof data;
    data.sourceCount = 1;
    data.sources = sources;
    m_info.typeData = &data;
    m_plugin.analyse = [&](RQText, TaskInfo** info) {
        *info = &m_info;
        return result;
    };
    EXPECT_EQ(Analyse(), 12);
    EXPECT_EQ(m_runner->GetFrameRate(), 50);
    result = 0;
    EXPECT_EQ(m_runner->UpdateTask("<u/>"), 0);
    EXPECT_EQ(m_runner->GetFrameRate(), 50);
    EXPECT_EQ(Analyse(), 0);
    EXPECT_EQ(m_runner->GetFrameRate(), 60);
}

TEST_F(RunnerFrameRateTest, OfZeroIs25) {
    Ready();
    EXPECT_EQ(RateOf(1, 0, 1), 25);
}

TEST_F(RunnerFrameRateTest, BeyondAWholeNumberIsTheLargest) {
    Ready();
    EXPECT_EQ(RateOf(1, 0xFFFFFFFFu, 1), 2147483647);
}

TEST_F(RunnerFrameRateTest, OfOtherTypesIsNotRead) {
    Ready();
    m_info.taskType = RQ_TYPE_REALTIME_MERGE;
    EXPECT_EQ(Analyse(), 0);
    EXPECT_EQ(m_runner->GetFrameRate(), 25);
}

class RunnerUpdateTest : public RunnerTest {
  protected:
    RunnerUpdateTest() {
        m_second = m_info;
        m_second.taskId = Text("task-2");
    }
    TaskInfo m_second{};
};

TEST_F(RunnerUpdateTest, CallsThePluginAndLogsNothing) {
    Analysed();
    std::string received;
    m_plugin.analyse = [&](RQText text, TaskInfo** info) {
        received.assign(text.p, text.n);
        EXPECT_EQ(*info, &m_info);
        *info = &m_second;
        return 9;
    };
    EXPECT_EQ(m_runner->UpdateTask("<u/>"), 9);
    EXPECT_EQ(received, "<u/>");
    EXPECT_EQ(m_runner->GetTaskId(), "task-2");
    for (const TaskInfo* record : {&m_info, &m_second}) {
        EXPECT_EQ(record->errorCode, 0);
        EXPECT_EQ(record->detailErrorText.n, 0u);
    }
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(RunnerUpdateTest, DuringPerformLeavesTheRecordInUse) {
    Analysed();
    m_plugin.analyse = [&](RQText, TaskInfo** info) {
        *info = &m_second;
        return 0;
    };
    m_plugin.perform = [&](const PerformArguments& call) {
        EXPECT_EQ(call.info, &m_info);
        std::thread link([&] { EXPECT_EQ(m_runner->UpdateTask("<u/>"), 0); });
        link.join();
        EXPECT_EQ(m_runner->GetStatus(), 3u);
        EXPECT_EQ(m_runner->GetTaskId(), "task-1");
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    RQStore32(&m_second.status, 77);
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetStatus(), 0u);
    EXPECT_EQ(m_runner->GetTaskId(), "task-1");
    EXPECT_EQ(RQLoad32(&m_second.status), 77u);
}

TEST_F(RunnerUpdateTest, BetweenAnalysisAndPerformIsTheTaskThatRuns) {
    Analysed();
    m_plugin.analyse = [&](RQText, TaskInfo** info) {
        *info = &m_second;
        return 0;
    };
    EXPECT_EQ(m_runner->UpdateTask("<u/>"), 0);
    m_plugin.perform = [&](const PerformArguments& call) {
        EXPECT_EQ(call.info, &m_second);
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetTaskId(), "task-2");
}

// The plug-in may free the performed record in an update that comes after perform: the outcome is kept
// without it.
TEST_F(RunnerUpdateTest, AfterPerformKeepsTheOutcome) {
    auto freed = std::make_unique<TaskInfo>(m_info);
    RQMd5File file{};
    file.size = sizeof file;
    file.has = RQ_HAS_COMPUTED_MD5;
    file.first = Text("/a");
    const void* items[] = {&file};
    RQResultList list{sizeof list, 1, items, 1, 0};
    RQMd5Data data{sizeof data, 0, &list};
    freed->typeData = &data;
    m_plugin.analyse = [&](RQText, TaskInfo** info) {
        *info = freed.get();
        return 0;
    };
    Analysed();
    m_plugin.perform = [&](const PerformArguments& call) {
        call.info->detailErrorCode = 7;
        call.info->errorCode = -8;
        call.info->detailErrorText = Text("detail");
        call.info->furtherText = Text("further");
        call.Leave(RQ_STATUS_ERROR);
        return 0;
    };
    EXPECT_EQ(Perform(), 0);
    m_plugin.analyse = [&](RQText, TaskInfo** info) {
        freed.reset();
        *info = &m_second;
        return 0;
    };
    for (int i = 0; i < 2; ++i) EXPECT_EQ(m_runner->UpdateTask("<u/>"), 0);
    EXPECT_EQ(m_runner->GetStatus(), 4u);
    EXPECT_EQ(m_runner->GetTaskId(), "task-1");
    EXPECT_EQ(m_runner->GetErrorInfo().detailErrorCode, 7u);
    EXPECT_EQ(m_runner->GetErrorInfo().errorCode, -8);
    EXPECT_EQ(m_runner->GetErrorInfo().detailErrorText, L"detail");
    EXPECT_EQ(m_runner->GetErrorInfo().furtherText, L"further");
    const auto result = std::dynamic_pointer_cast<const stMD5TaskResult>(m_runner->GetTaskResult(3));
    ASSERT_NE(result, nullptr);
    ASSERT_EQ(result->files.size(), 1u);
    EXPECT_EQ(result->files[0].first, "/a");
    EXPECT_EQ(m_runner->CloseTask(kCloseCancel, 0), 0);
    EXPECT_EQ(m_runner->GetStatus(), 5u);
}

// What was kept of the task before is not the task any more.
TEST_F(RunnerUpdateTest, AfterPerformIsTheTaskThatRunsNext) {
    Analysed();
    EXPECT_EQ(Perform(), 0);
    m_plugin.analyse = [&](RQText, TaskInfo** info) {
        *info = &m_second;
        return 0;
    };
    EXPECT_EQ(m_runner->UpdateTask("<u/>"), 0);
    EXPECT_EQ(m_runner->GetTaskId(), "task-1");
    m_plugin.perform = [&](const PerformArguments& call) {
        EXPECT_EQ(call.info, &m_second);
        EXPECT_EQ(m_runner->GetTaskId(), "task-2");
        call.Leave(RQ_STATUS_ERROR);
        return 0;
    };
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetStatus(), 4u);
    EXPECT_EQ(m_runner->GetTaskId(), "task-2");
}

// Only the perform call has an exception boundary: what leaves an analysis goes on to the caller.
TEST_F(RunnerUpdateTest, ThatThrowsLeavesTheTaskAsItWas) {
    Analysed();
    m_plugin.analyse = [](RQText, TaskInfo**) -> std::int32_t { throw std::runtime_error("odd"); };
    EXPECT_THROW(m_runner->UpdateTask("<u/>"), std::runtime_error);
    m_plugin.perform = [&](const PerformArguments& call) {
        EXPECT_EQ(call.info, &m_info);
        std::thread link([&] { EXPECT_THROW(m_runner->UpdateTask("<u/>"), std::runtime_error); });
        link.join();
        EXPECT_EQ(m_runner->GetTaskId(), "task-1");
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetStatus(), 0u);
    EXPECT_THROW(Analyse(), std::runtime_error);
    EXPECT_EQ(m_runner->GetStatus(), 4u);
}

TEST_F(RunnerUpdateTest, ThatLeavesNoRecordBeforePerformLeavesNoTask) {
    Analysed();
    m_plugin.analyse = [](RQText, TaskInfo** info) {
        *info = nullptr;
        return 3;
    };
    EXPECT_EQ(m_runner->UpdateTask("<u/>"), 3);
    EXPECT_EQ(Perform(), kStatusFail);
    EXPECT_EQ(m_runner->GetStatus(), 4u);
}

// A reader waits for an update between two calls instead of reading a record that is being freed. That it
// waits shows in its not coming back; however slow the machine is, a reader that waits never does.
TEST_F(RunnerUpdateTest, ReadersWaitForAnUpdateBetweenCalls) {
    Analysed();
    Signal hasBegun;
    Signal hasRead;
    std::string id;
    std::thread reader;
    m_plugin.analyse = [&](RQText, TaskInfo** info) {
        reader = std::thread([&] {
            hasBegun.Notify();
            id = m_runner->GetTaskId();
            hasRead.Notify();
        });
        EXPECT_TRUE(hasBegun.WaitFor(std::chrono::minutes(1)));
        EXPECT_FALSE(hasRead.WaitFor(std::chrono::milliseconds(200)));
        *info = &m_second;
        return 0;
    };
    EXPECT_EQ(m_runner->UpdateTask("<u/>"), 0);
    reader.join();
    EXPECT_EQ(id, "task-2");
}

}  // namespace
}  // namespace rq
