#include "app/restart_worker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "util/log_capture.h"

namespace rq {
namespace {

class RestartWorkerTest : public ::testing::Test {
  protected:
    RestartWorkerTest() {
        m_seams.releaseInstanceLock = [this] { Note("release"); };
        m_seams.moduleFileName = [] { return std::string("/opt/任务 worker/RQWorkerU"); };
        m_seams.startProgram = [this](const std::string& commandLine) {
            Note("start " + commandLine);
            return m_startResult;
        };
        m_seams.silenceAbort = [this] { Note("silence"); };
        m_seams.abort = [this] { Note("abort"); };
    }

    // Calls and log lines in one row.
    void Note(const std::string& what) {
        TakeLog();
        m_events.push_back(what);
    }
    void TakeLog() {
        for (const LogLine& line : m_log.Lines()) {
            EXPECT_EQ(line.tag, "ACT");
            EXPECT_EQ(line.module, "MAIN");
            m_events.push_back(std::to_string(line.level) + " " + line.text);
        }
        m_log.Clear();
    }

    RestartSeams m_seams;
    unsigned m_startResult = 33;
    LogCapture m_log;
    std::vector<std::string> m_events;
};

TEST_F(RestartWorkerTest, StartsACopyAndAborts) {
    RestartWorker(m_seams);
    TakeLog();
    EXPECT_EQ(m_events, (std::vector<std::string>{
                            "release",
                            "3 patrol timeout, will restart worker .",
                            "start \"/opt/任务 worker/RQWorkerU\"",
                            "silence",
                            "3 will abort this worker...",
                            "abort",
                            "5 abort this worker failed,should never happen.",
                        }));
}

TEST_F(RestartWorkerTest, AbortsAlsoWhenTheCopyDoesNotStart) {
    m_startResult = 31;
    RestartWorker(m_seams);
    TakeLog();
    ASSERT_EQ(m_events.size(), 8u);
    EXPECT_EQ(m_events[3], "4 restart worker error.");
    EXPECT_EQ(m_events[6], "abort");
}

TEST_F(RestartWorkerTest, ThirtyTwoIsNoFailure) {
    m_startResult = 32;
    RestartWorker(m_seams);
    TakeLog();
    EXPECT_EQ(std::count(m_events.begin(), m_events.end(), "4 restart worker error."), 0);
    EXPECT_EQ(m_events.size(), 7u);
}

TEST_F(RestartWorkerTest, WithoutTheLockFileNothingIsStarted) {
    m_seams.releaseInstanceLock = [] { throw std::runtime_error("no file"); };
    EXPECT_THROW(RestartWorker(m_seams), std::runtime_error);
    TakeLog();
    EXPECT_TRUE(m_events.empty());
}

TEST(OnSupervisionEvent, OtherEventsDoNothing) {
    const LogCapture log;
    EXPECT_EQ(OnSupervisionEvent(1, 2, 3), 0u);
    EXPECT_EQ(OnSupervisionEvent(0xFFFFFFFFu, 0, 0), 0u);
    EXPECT_TRUE(log.Lines().empty());
}

}  // namespace
}  // namespace rq
