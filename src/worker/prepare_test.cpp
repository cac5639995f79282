#include <gtest/gtest.h>

#include <string>

#include "worker/testing/worker_fixture.h"

namespace rq {
namespace {

using testing::Line;
using testing::RunnerAnswers;
using testing::WorkerFixture;

// `text` with an "x" for each lower-case hexadecimal digit.
std::string Shape(std::string text) {
    for (char& c : text)
        if (std::string("0123456789abcdef").find(c) != std::string::npos) c = 'x';
    return text;
}

class Prepare : public WorkerFixture {
  protected:
    Prepare() {
        InitCore();
        m_journal.Clear();
    }
    void SetAnalysis(std::int32_t result, const std::string& taskId) {
        m_script.With([&](RunnerAnswers& answers) {
            answers.analyseResult = result;
            answers.taskId = taskId;
        });
    }
    std::vector<testing::SentMessage> Notices() const { return m_engine.sent.WithId(TCP_WORKER_SEND_ID); }
};

TEST_F(Prepare, FirstTaskIsAnnounced) {
    m_engine.onSend = [this](std::uint32_t) {
        EXPECT_NE(m_core->WorkerGuid(), "");
        EXPECT_EQ(m_core->TaskId(), "");  // comes with the announcement behind it
        return true;
    };
    EXPECT_EQ(m_core->PrepareWork("<t/>"), 0);
    EXPECT_EQ(m_journal.Entries(),
              (std::vector<std::string>{Line(1, "Prepare work begin.."), "runner.AnalyseTask <t/>",
                                        Line(2, "SendMSG: TCP_WORKER_SEND_ID. TaskID:[T1]"), "send 4001",
                                        Line(2, "Prepare work end. TaskID:[T1]")}));
    ASSERT_EQ(Notices().size(), 1u);
    EXPECT_EQ(Notices()[0].sessionId, 7u);
    const auto notice = Notices()[0].As<TaskNotice>();
    EXPECT_EQ(notice.version, "1.0");
    EXPECT_EQ(notice.taskId, "T1");
    EXPECT_EQ(Shape(notice.workerGuid), "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx");
    EXPECT_EQ(m_core->WorkerGuid(), notice.workerGuid);
    EXPECT_EQ(m_core->TaskId(), "T1");
}

TEST_F(Prepare, SecondTaskSendsNoNoticeAndKeepsTheGuid) {
    m_core->PrepareWork("<t/>");
    const std::string guid = m_core->WorkerGuid();
    SetAnalysis(0, "T2");
    m_core->PrepareWork("<u/>");
    EXPECT_EQ(Notices().size(), 1u);
    EXPECT_EQ(m_core->WorkerGuid(), guid);
    EXPECT_EQ(m_core->TaskId(), "T2");
}

TEST_F(Prepare, FailedAnalysisWithAnIdAnnouncesThenReportsTheError) {
    SetAnalysis(9, "T1");
    EXPECT_EQ(m_core->PrepareWork("<bad>"), 9);
    EXPECT_EQ(m_journal.Entries(),
              (std::vector<std::string>{Line(1, "Prepare work begin.."), "runner.AnalyseTask <bad>",
                                        Line(2, "AnalyseTask failed. taskInfo:<bad>"),
                                        Line(2, "SendMSG: TCP_WORKER_SEND_ID. TaskID:[T1]"), "send 4001",
                                        "console emStatus=4\n", "runner.GetTaskResult 3", "send 4009",
                                        Line(2, "Prepare work end. TaskID:[T1]")}));
    EXPECT_EQ(m_engine.sent.All().at(1).Status().taskId, "T1");
    EXPECT_EQ(m_engine.sent.All().at(1).Status().status, 4u);
}

TEST_F(Prepare, FailedAnalysisWithoutAnIdReportsTheErrorOnly) {
    SetAnalysis(9, "");
    EXPECT_EQ(m_core->PrepareWork("<bad>"), 9);
    EXPECT_TRUE(Notices().empty());
    EXPECT_EQ(m_engine.sent.Statuses(), std::vector<std::uint32_t>{4});
    EXPECT_EQ(m_engine.sent.All().at(0).Status().taskId, "");
    EXPECT_EQ(m_journal.Count(Line(2, "Prepare work end. TaskID:[]")), 1u);
}

TEST_F(Prepare, EmptyIdSendsNoNoticeAndALaterOneDoes) {
    SetAnalysis(0, "");
    EXPECT_EQ(m_core->PrepareWork("<t/>"), 0);
    EXPECT_TRUE(Notices().empty());
    EXPECT_EQ(m_core->WorkerGuid(), "");
    SetAnalysis(0, "T2");
    EXPECT_EQ(m_core->PrepareWork("<u/>"), 0);
    ASSERT_EQ(Notices().size(), 1u);
    EXPECT_EQ(Notices()[0].As<TaskNotice>().taskId, "T2");
}

TEST_F(Prepare, TaskWithoutAnIdTakesTheEarlierIdAway) {
    m_core->PrepareWork("<t/>");
    SetAnalysis(0, "");
    m_core->PrepareWork("<u/>");
    EXPECT_EQ(m_core->TaskId(), "");
}

TEST_F(Prepare, RefusedNoticeIsNotRepeated) {
    m_engine.onSend = [](std::uint32_t) { return false; };
    m_core->PrepareWork("<t/>");
    m_core->PrepareWork("<t/>");
    EXPECT_EQ(Notices().size(), 1u);
}

}  // namespace
}  // namespace rq
