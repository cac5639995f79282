#include "plughost/host_services.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/paths.h"
#include "kit/fake_clock.h"
#include "kit/os.h"
#include "plughost/plugin_text.h"

namespace rq {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

RQText Text(std::string_view text) {
    return {text.data(), text.size()};
}

class HostServicesTest : public ::testing::Test {
  protected:
    HostServices::Callbacks Callbacks() {
        return {[this](int level, const std::string& text, const std::string& module) {
                    const std::lock_guard<std::mutex> lock(m_mutex);
                    m_lines.push_back(std::to_string(level) + " [" + module + "] " + text);
                },
                [this](seconds duration) {
                    const std::lock_guard<std::mutex> lock(m_mutex);
                    m_quiet.push_back(duration);
                }};
    }
    std::vector<std::string> Lines() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    void SetStop(std::uint32_t value) {
        RQStore32(&m_stop, value);
        m_host->NotifyStop();
    }
    void Log(std::int32_t level, std::string_view text) { m_plain->log(m_plain->context, level, Text(text)); }
    std::int32_t PublishMd5(std::string_view first) {
        RQMd5File file{};
        file.size = sizeof file;
        file.first = Text(first);
        return m_plain->publishResult(m_plain->context, RQ_RESULT_MD5_FILE, &file);
    }
    std::uint32_t WaitForStop(std::uint32_t timeout_ms) {
        return m_plain->waitForStop(m_plain->context, timeout_ms);
    }

    kit::FakeClock m_clock;
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
    std::vector<seconds> m_quiet;
    volatile std::uint32_t m_stop = RQ_STOP_NONE;
    std::unique_ptr<HostServices> m_host =
        std::make_unique<HostServices>("md5", &m_stop, Callbacks(), m_clock);
    const RQHostServices* m_plain = m_host->Plain();
};

TEST_F(HostServicesTest, RecordSaysWhatItIs) {
    EXPECT_EQ(m_plain->size, sizeof(RQHostServices));
    EXPECT_EQ(m_plain->contractVersion, RQ_CONTRACT_VERSION);
    EXPECT_NE(m_plain->log, nullptr);
    EXPECT_NE(m_plain->waitForStop, nullptr);
    EXPECT_NE(m_plain->publishError, nullptr);
    EXPECT_NE(m_plain->publishResult, nullptr);
    EXPECT_NE(m_plain->quietFor, nullptr);
    EXPECT_NE(m_plain->temporaryFolder, nullptr);
}

TEST_F(HostServicesTest, LogLinesCarryThePlugInsName) {
    Log(2, "任务");
    m_host->SetPluginName("renamed");
    Log(4, "second");
    EXPECT_EQ(Lines(), (std::vector<std::string>{"2 [md5] 任务", "4 [renamed] second"}));
}

TEST_F(HostServicesTest, LogLinesStayOneLineAndLevelsInRange) {
    Log(-1, "a\nb\r\nc");
    Log(99, "");
    EXPECT_EQ(Lines(), (std::vector<std::string>{"1 [md5] a b  c", "5 [md5] "}));
}

TEST_F(HostServicesTest, LogRepairsWhatIsNotUtf8AndSaysSo) {
    Log(2, "x\xFFy");
    EXPECT_EQ(Lines(),
              (std::vector<std::string>{
                  "2 [md5] x\xEF\xBF\xBDy",
                  "3 [md5] plug-in md5: the line before is not UTF-8; what is wrong became U+FFFD"}));
}

TEST_F(HostServicesTest, PublishedErrorIsGivenOnceAtTheEnd) {
    m_host->BeginPerform();
    {
        std::string detail = "first";
        m_plain->publishError(m_plain->context, 1, -1, Text(detail), Text("x"));
        detail = "last call";
        m_plain->publishError(m_plain->context, 7, -9, Text(detail), Text("fur\xFFther"));
        detail = "overwritten";
    }
    const std::optional<PublishedError> error = m_host->EndPerform();
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->detailErrorCode, 7u);
    EXPECT_EQ(error->errorCode, -9);
    EXPECT_EQ(error->detailErrorText, "last call");
    EXPECT_EQ(error->furtherText, "fur\xEF\xBF\xBDther");
    EXPECT_EQ(Lines().size(), 1u) << "the text that was not UTF-8";
    EXPECT_EQ(m_host->EndPerform(), std::nullopt);
}

TEST_F(HostServicesTest, ErrorWithNoTaskRunningIsDropped) {
    m_plain->publishError(m_plain->context, 1, 1, Text("before"), Text(""));
    m_host->BeginPerform();
    EXPECT_EQ(m_host->EndPerform(), std::nullopt);
    m_plain->publishError(m_plain->context, 1, 1, Text("after"), Text(""));
    m_host->BeginPerform();
    EXPECT_EQ(m_host->EndPerform(), std::nullopt);
}

TEST_F(HostServicesTest, PublishedResultsAreCopiedAndStayUntilTheNextTask) {
    m_host->BeginPerform();
    std::string name = "/a/b";
    EXPECT_EQ(PublishMd5(name), 0);
    name = "####";
    EXPECT_EQ(PublishMd5("second"), 0);
    m_host->EndPerform();
    for (int i = 0; i < 2; ++i) {
        const TaskResultCopy results = m_host->PublishedResults();
        ASSERT_EQ(results.md5Files.size(), 2u);
        EXPECT_EQ(results.md5Files[0].first, "/a/b");
        EXPECT_EQ(results.md5Files[1].first, "second");
    }
    m_host->ForgetTask();
    EXPECT_TRUE(m_host->PublishedResults().md5Files.empty());
}

TEST_F(HostServicesTest, ResultsThatCannotBeTakenGiveMinusOne) {
    EXPECT_EQ(PublishMd5("no task is running"), -1);
    m_host->BeginPerform();
    EXPECT_EQ(m_plain->publishResult(m_plain->context, RQ_RESULT_MD5_FILE, nullptr), -1);
    RQMd5File file{};
    file.size = sizeof file;
    EXPECT_EQ(m_plain->publishResult(m_plain->context, 77, &file), -1);
    file.size = 8;
    EXPECT_EQ(m_plain->publishResult(m_plain->context, RQ_RESULT_MD5_FILE, &file), -1);
    EXPECT_TRUE(m_host->PublishedResults().md5Files.empty());
}

TEST_F(HostServicesTest, QuietForReachesTheRunner) {
    m_plain->quietFor(m_plain->context, 0);
    m_plain->quietFor(m_plain->context, std::numeric_limits<std::uint32_t>::max());
    EXPECT_EQ(m_quiet, (std::vector<seconds>{seconds(0), seconds(4294967295)}));
}

TEST_F(HostServicesTest, WaitEndsWithTheTime) {
    m_host->BeginPerform();
    std::thread waiter([&] { EXPECT_EQ(WaitForStop(5000), RQ_STOP_NONE); });
    ASSERT_TRUE(m_clock.WaitForWaiters(1));
    m_clock.Advance(milliseconds(5000));
    waiter.join();
}

TEST_F(HostServicesTest, StopEndsEveryWait) {
    m_host->BeginPerform();
    std::vector<std::thread> waiters;
    waiters.reserve(3);
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] { EXPECT_EQ(WaitForStop(3600'000), RQ_STOP_FINISH); });
    ASSERT_TRUE(m_clock.WaitForWaiters(3));
    SetStop(RQ_STOP_FINISH);
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(WaitForStop(3600'000), RQ_STOP_FINISH) << "and every later one at once";
}

TEST_F(HostServicesTest, StopOfAnEarlierTaskEndsNoWaitBetweenTasks) {
    RQStore32(&m_stop, RQ_STOP_CANCEL);
    std::thread waiter([&] { EXPECT_EQ(WaitForStop(1000), RQ_STOP_NONE); });
    ASSERT_TRUE(m_clock.WaitForWaiters(1));
    m_host->NotifyStop();
    ASSERT_TRUE(m_clock.WaitForWaitsBegun(2)) << "woken, it goes on waiting";
    ASSERT_TRUE(m_clock.WaitForWaiters(1));
    m_clock.Advance(milliseconds(1000));
    waiter.join();
}

TEST_F(HostServicesTest, StopThatCameBeforeThePerformCallCounts) {
    RQStore32(&m_stop, RQ_STOP_CANCEL);
    m_host->BeginPerform();
    EXPECT_EQ(WaitForStop(3600'000), RQ_STOP_CANCEL);
}

TEST_F(HostServicesTest, TemporaryFolderIsPrivateKeptAndRemoved) {
    const RQText first = m_plain->temporaryFolder(m_plain->context);
    const RQText again = m_plain->temporaryFolder(m_plain->context);
    EXPECT_EQ(first.p, again.p);
    const std::filesystem::path path = PathFromUtf8(PluginTextView(first));
    ASSERT_TRUE(std::filesystem::is_directory(path));
    EXPECT_TRUE(kit::IsOwnersAlone(path));
    std::filesystem::create_directory(path / "deep");
    std::ofstream(path / "deep" / "file") << "x";
    m_host->End();
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(PluginTextView(first), Utf8FromPath(path)) << "the text stays";
}

TEST_F(HostServicesTest, TwoHostsHaveTwoFolders) {
    HostServices other("other", &m_stop, {}, m_clock);
    const RQText mine = m_plain->temporaryFolder(m_plain->context);
    const RQText theirs = other.Plain()->temporaryFolder(other.Plain()->context);
    EXPECT_NE(PluginTextView(mine), PluginTextView(theirs));
    EXPECT_NE(PluginTextView(theirs), "");
}

TEST_F(HostServicesTest, CallsAfterTheEndDoNothing) {
    m_host->BeginPerform();
    m_host.reset();
    Log(1, "late");
    m_plain->publishError(m_plain->context, 1, 1, Text("late"), Text(""));
    EXPECT_EQ(PublishMd5("late"), -1);
    m_plain->quietFor(m_plain->context, 1);
    EXPECT_EQ(WaitForStop(3600'000), RQ_STOP_NONE) << "at once";
    EXPECT_EQ(m_plain->temporaryFolder(m_plain->context).n, 0u);
    EXPECT_TRUE(Lines().empty());
    EXPECT_TRUE(m_quiet.empty());
}

TEST_F(HostServicesTest, EndWakesWaitersAndLetsThemLeave) {
    m_host->BeginPerform();
    std::atomic<bool> isBack{false};
    std::thread waiter([&] {
        WaitForStop(3600'000);
        isBack = true;
    });
    ASSERT_TRUE(m_clock.WaitForWaiters(1));
    m_host->End();
    waiter.join();
    EXPECT_TRUE(isBack);
}

TEST_F(HostServicesTest, NothingIsThrownIntoThePlugIn) {
    HostServices::Callbacks callbacks;
    callbacks.log = [](int, const std::string&, const std::string&) { throw std::runtime_error("log"); };
    callbacks.quietFor = [](seconds) { throw 1; };
    HostServices throwing("md5", &m_stop, callbacks, m_clock);
    EXPECT_NO_THROW(throwing.Plain()->log(throwing.Plain()->context, 1, Text("x")));
    EXPECT_NO_THROW(throwing.Plain()->quietFor(throwing.Plain()->context, 1));
    throwing.End();  // the calls that threw have left
}

// Everything at once, for the race checker: plug-in threads that call while the runner goes through tasks and
// ends.
TEST_F(HostServicesTest, AnyThreadAtAnyTime) {
    std::atomic<bool> isOver{false};
    std::vector<std::thread> callers;
    callers.reserve(3);
    for (int i = 0; i < 3; ++i) {
        callers.emplace_back([&] {
            while (!isOver) {
                Log(2, "line");
                PublishMd5("file");
                m_plain->publishError(m_plain->context, 1, 2, Text("detail"), Text("further"));
                m_plain->quietFor(m_plain->context, 3);
                WaitForStop(0);
                m_plain->temporaryFolder(m_plain->context);
            }
        });
    }
    for (int task = 0; task < 200; ++task) {
        m_host->ForgetTask();
        m_host->BeginPerform();
        SetStop(task % 3);
        m_host->PublishedResults();
        m_host->SetPluginName("task " + std::to_string(task));
        m_host->EndPerform();
    }
    m_host.reset();
    isOver = true;
    for (std::thread& caller : callers) caller.join();
}

}  // namespace
}  // namespace rq
