// The host driving a whole plug-in library, as the runner does.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bad_plugins/bad_plugins.h"
#include "base/paths.h"
#include "kit/os.h"
#include "kit/temp_dir.h"
#include "plughost/host_services.h"
#include "plughost/parameter_view.h"
#include "plughost/plugin_library.h"
#include "plughost/plugin_text.h"

namespace rq {
namespace {

// What one perform call told through the progress callback.
struct Progress {
    std::vector<std::pair<std::int64_t, std::int64_t>> calls;  // total, done
};

std::uint32_t OnProgress(std::int64_t total, std::int64_t done, void* context) {
    if (context == nullptr) return 0xFFFFFFFFu;
    static_cast<Progress*>(context)->calls.emplace_back(total, done);
    return 0;
}

class ScriptedPlugin : public ::testing::Test {
  protected:
    ScriptedPlugin()
        : m_host("scripted", &m_stop,
                 {[this](int level, const std::string& text, const std::string& module) {
                      const std::lock_guard<std::mutex> lock(m_mutex);
                      m_lines.push_back(std::to_string(level) + " [" + module + "] " + text);
                  },
                  [this](std::chrono::seconds duration) {
                      const std::lock_guard<std::mutex> lock(m_mutex);
                      m_quiet.push_back(duration.count());
                  }}) {
        m_plugin.dllPath = WidenUtf8(test::BadPlugin("scripted"));
        platform::OsError error;
        if (!LoadPluginLibrary(m_plugin, &error)) throw std::runtime_error(error.message);
        if (!FindEntryPoints(m_plugin)) throw std::runtime_error("entry points are missing");
        if (!DescribePlugin(m_plugin, m_host.Plain())) throw std::runtime_error("refused");
    }
    ~ScriptedPlugin() override {
        m_plugin.pReleaseFunc();
        m_host.End();
    }

    TaskInfo* Analyse(std::string_view text) {
        m_host.ForgetTask();
        TaskInfo* info = nullptr;
        m_code = m_plugin.pAnalyseTaskFunc({text.data(), text.size()}, &info);
        return info;
    }
    // Analyses and performs; the error that the plug-in published.
    std::optional<PublishedError> Run(std::string_view text) {
        m_info = Analyse(text);
        m_host.BeginPerform();
        try {
            m_plugin.pPerformTaskFunc(m_info, &m_stop, &OnProgress, &m_progress, m_parameters.Plain());
        } catch (...) {
            m_host.EndPerform();
            throw;
        }
        return m_host.EndPerform();
    }
    std::vector<std::string> Lines() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    PluginLog Sink() {
        return [this](int level, const std::string& text) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back(std::to_string(level) + " [host] " + text);
        };
    }

    std::mutex m_mutex;
    std::vector<std::string> m_lines;
    std::vector<long long> m_quiet;
    volatile std::uint32_t m_stop = RQ_STOP_NONE;
    WorkerPlugin m_plugin;
    HostServices m_host;
    ParameterView m_parameters{tagOVLCommunicationParam()};
    Progress m_progress;
    TaskInfo* m_info = nullptr;
    std::int32_t m_code = 0;
};

TEST_F(ScriptedPlugin, ReadsItsParametersFromTheView) {
    EXPECT_EQ(m_plugin.pInitFunc(m_parameters.Plain()), 0);
    EXPECT_EQ(Lines(), std::vector<std::string>{"2 [scripted] init parameters heartbeat=60"});
}

TEST_F(ScriptedPlugin, TakesAFileNameInsteadOfParameters) {
    const kit::ScopedEnvironment how("RQ_SCRIPT_INIT", "text");
    const kit::ScopedEnvironment code("RQ_SCRIPT_INIT_CODE", "-3");
    EXPECT_EQ(m_plugin.pInitFunc("actor.xml"), -3);
    EXPECT_EQ(Lines(), std::vector<std::string>{"2 [scripted] init text actor.xml"});
}

TEST_F(ScriptedPlugin, AnalysisSetsTheRecord) {
    const TaskInfo* info = Analyse("id 任务-1; type 4; analyse-code 12; analyse-error it is wrong");
    EXPECT_EQ(m_code, 12);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(CheckTaskInfo(*info, "scripted"), std::nullopt);
    EXPECT_EQ(PluginTextView(info->taskId), "任务-1");
    EXPECT_EQ(info->taskType, 4);
    EXPECT_EQ(PluginTextView(info->detailErrorText), "it is wrong");
    EXPECT_EQ(Analyse("null-info"), nullptr);
}

TEST_F(ScriptedPlugin, BadRecordsAreFound) {
    EXPECT_EQ(CheckTaskInfo(*Analyse("info-size 40"), "scripted"),
              "plug-in scripted: its task information record is too small: 40 bytes, at least 88 are needed");
    EXPECT_NE(CheckTaskInfo(*Analyse("info-version 7"), "scripted"), std::nullopt);
}

TEST_F(ScriptedPlugin, FrameRateAndTwoPassComeFromTheTypeData) {
    EXPECT_DOUBLE_EQ(SourceFrameRate(*Analyse("type 1; source 1 50 1; source 1 25 1")).value(), 50.0);
    EXPECT_EQ(SourceFrameRate(*Analyse("type 1; source 0 50 1")), std::nullopt);
    EXPECT_TRUE(IsTwoPass(*Analyse("type 2; two-pass")));
    EXPECT_FALSE(IsTwoPass(*Analyse("type 2")));
}

TEST_F(ScriptedPlugin, ProgressReachesTheCallback) {
    Run("progress 10 1; alive 9; over; backwards; negative");
    const std::vector<std::pair<std::int64_t, std::int64_t>> expected = {{10, 1},   {0, 9},    {100, 150},
                                                                         {100, 80}, {100, 40}, {100, -5}};
    EXPECT_EQ(m_progress.calls, expected);
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_FINISHED);
}

TEST_F(ScriptedPlugin, LeavesTheStatusThatItWasToldTo) {
    Run("status 3");
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_RUNNING);
    RQStore32(&m_stop, RQ_STOP_CANCEL);
    Run("");
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_CANCELLED);
    RQStore32(&m_stop, RQ_STOP_FINISH);
    Run("");
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_FINISHED);
}

TEST_F(ScriptedPlugin, StandardExceptionsPassThrough) {
    try {
        Run("set-status 3; throw the disk is on fire");
        FAIL() << "nothing was thrown";
    } catch (const std::exception& error) {
        EXPECT_STREQ(error.what(), "the disk is on fire");
    }
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_RUNNING);
}

TEST_F(ScriptedPlugin, OddExceptionsPassThrough) {
    try {
        Run("throw-int 42");
        FAIL() << "nothing was thrown";
    } catch (int number) {
        EXPECT_EQ(number, 42);
    }
}

TEST_F(ScriptedPlugin, PublishesThroughBothWays) {
    const std::optional<PublishedError> error =
        Run("md5 /in the list; publish-md5 /by copy; publish-error 5 -6 of another thread; quiet 30; log 4 a "
            "line");
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->detailErrorCode, 5u);
    EXPECT_EQ(error->errorCode, -6);
    EXPECT_EQ(error->detailErrorText, "of another thread");
    TaskResultCopy results = CopyTaskResults(*m_info, "scripted", Sink());
    AppendResults(results, m_host.PublishedResults());
    ASSERT_EQ(results.md5Files.size(), 2u);
    EXPECT_EQ(results.md5Files[0].first, "/in the list");
    EXPECT_EQ(results.md5Files[1].first, "/by copy");
    EXPECT_EQ((*results.md5Files[1].computedMd5)[15], 15);
    EXPECT_EQ(m_quiet, std::vector<long long>{30});
    EXPECT_EQ(Lines(), std::vector<std::string>{"4 [scripted] a line"});
}

TEST_F(ScriptedPlugin, ResultsOfOneTaskAreNotInTheNext) {
    Run("md5 a; publish-md5 b");
    Run("");
    EXPECT_TRUE(CopyTaskResults(*m_info, "scripted", Sink()).md5Files.empty());
    EXPECT_TRUE(m_host.PublishedResults().md5Files.empty());
}

TEST_F(ScriptedPlugin, BadTextsAreRepairedAtTheBoundary) {
    Run("bad-error; md5-bad-text; log-bad-text");
    EXPECT_EQ(WidenPluginText(m_info->detailErrorText, "scripted", Sink()), L"broken \xFFFD\xFFFD text");
    EXPECT_EQ(CopyTaskResults(*m_info, "scripted", Sink()).md5Files.at(0).first,
              "broken \xEF\xBF\xBD\xEF\xBF\xBD text");
    EXPECT_EQ(Lines().size(), 4u);
}

TEST_F(ScriptedPlugin, OvercountedListIsCut) {
    Run("capacity 2; md5 a; md5 b; md5-overcount");
    EXPECT_EQ(CopyTaskResults(*m_info, "scripted", Sink()).md5Files.size(), 2u);
    EXPECT_EQ(Lines().size(), 1u);
}

TEST_F(ScriptedPlugin, StopEndsItsWaits) {
    for (const char* script : {"wait-for-stop 600000", "until-stop 600000", "held-until-stop 600000"}) {
        RQStore32(&m_stop, RQ_STOP_NONE);
        std::thread stopper([&] {
            RQStore32(&m_stop, RQ_STOP_CANCEL);
            m_host.NotifyStop();
        });
        Run(script);
        stopper.join();
        EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_CANCELLED) << script;
    }
}

TEST_F(ScriptedPlugin, UpdateLeavesTheRecordInUse) {
    const kit::TempDir folder;
    const std::string flag = folder.Utf8("go");
    TaskInfo* updated = nullptr;
    std::thread performer(
        [&] { Run("id first; touch " + folder.Utf8("began") + "; await-file " + flag + "; md5 done"); });
    while (!std::filesystem::exists(folder.Path() / "began")) std::this_thread::yield();
    const std::string text = "id second";
    m_plugin.pAnalyseTaskFunc({text.data(), text.size()}, &updated);
    folder.Write("go", "");
    performer.join();
    ASSERT_NE(updated, m_info);
    EXPECT_EQ(PluginTextView(m_info->taskId), "first");
    EXPECT_EQ(CopyTaskResults(*m_info, "scripted", Sink()).md5Files.size(), 1u);
    EXPECT_EQ(Lines(), std::vector<std::string>{"2 [scripted] update id second"});
}

TEST_F(ScriptedPlugin, TemporaryFilesGoAtTheEnd) {
    Run("temporary-file 临时.txt");
    const std::string line = Lines().at(0);
    const std::string before = "temporary folder ";
    ASSERT_NE(line.find(before), std::string::npos) << line;
    const std::filesystem::path folder = PathFromUtf8(line.substr(line.find(before) + before.size()));
    EXPECT_TRUE(std::filesystem::exists(folder / PathFromUtf8("临时.txt")));
    m_host.End();
    EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST_F(ScriptedPlugin, ScriptMayStandInAnXmlText) {
    Run("<Task>\n<Script>id inside; progress 2 1\nprogress 2 2</Script></Task>");
    EXPECT_EQ(PluginTextView(m_info->taskId), "inside");
    EXPECT_EQ(m_progress.calls.size(), 2u);
}

TEST_F(ScriptedPlugin, ScriptMayStandInTheEnvironment) {
    const kit::ScopedEnvironment script("RQ_SCRIPT", "id from outside");
    EXPECT_EQ(PluginTextView(Analyse("id inside")->taskId), "from outside");
}

// Each in a process of its own, which it must end in its own way.
class ScriptedPluginDeathTest : public ScriptedPlugin {
  protected:
    ScriptedPluginDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// A sanitizer meets the signal itself, says so and ends the process with a code of its own.
#if defined(RQ_SANITIZED)
constexpr const char* kFaultText = "SEGV|stack-overflow";
bool EndedByFault(int status) {
    return !::testing::ExitedWithCode(0)(status);
}
#else
constexpr const char* kFaultText = "";
bool EndedByFault(int status) {
    return kit::EndedByFault(status);
}
#endif

TEST_F(ScriptedPluginDeathTest, ExceptionOnItsOwnThreadEndsTheProcess) {
    EXPECT_DEATH(Run("throw-on-thread nobody catches this"), "nobody catches this");
}

TEST_F(ScriptedPluginDeathTest, CrashEndsTheProcess) {
    EXPECT_EXIT(Run("crash"), EndedByFault, kFaultText);
}

TEST_F(ScriptedPluginDeathTest, OverflowEndsTheProcess) {
    if (kit::IsWine()) GTEST_SKIP() << "Wine ends a thread whose stack is used up without any status";
    EXPECT_EXIT(Run("overflow-stack"), EndedByFault, kFaultText);
}

}  // namespace
}  // namespace rq
