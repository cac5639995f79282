// Tests of the runner over a plug-in that lives in the test program: its entry points are functions of the
// test's own, its clock is a fake one, and every log line is captured. One fixture at a time.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rqworker/plugin.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/paths.h"
#include "kit/fake_clock.h"
#include "kit/temp_dir.h"
#include "plugin/work_runner.h"
#include "plugin/work_runner_seams.h"
#include "util/log_capture.h"

namespace rq {

// What a perform call was given.
struct PerformArguments {
    TaskInfo* info = nullptr;
    const volatile std::uint32_t* stopFlag = nullptr;
    RQProgressCallback progress = nullptr;
    void* context = nullptr;
    const RQRunningParameter* parameter = nullptr;

    std::uint32_t Progress(std::int64_t total, std::int64_t done) const {
        return progress(total, done, context);
    }
    void Leave(std::uint32_t status) const { RQStore32(&info->status, status); }
};

// The plug-in's functions; a test sets what it needs. They run on whatever thread the runner calls them.
struct FakePlugin {
    std::function<const RQPluginDescription*(const RQHostServices*)> describe;
    std::function<std::int32_t(const void*)> init;
    std::function<std::int32_t(RQText, TaskInfo**)> analyse;
    std::function<std::int32_t(const PerformArguments&)> perform;
    std::function<std::int32_t()> release;
    const RQHostServices* host = nullptr;

    static FakePlugin*& Active() {
        static FakePlugin* active = nullptr;
        return active;
    }

    // Fills in what the real library would export; the functions that are not set are not exported.
    bool FindEntryPoints(WorkerPlugin& plugin) {
        if (analyse)
            plugin.pAnalyseTaskFunc = [](RQText text, TaskInfo** info) {
                return Active()->analyse(text, info);
            };
        if (perform) {
            plugin.pPerformTaskFunc = [](TaskInfo* info, const volatile std::uint32_t* stop,
                                         RQProgressCallback progress, void* context,
                                         const RQRunningParameter* parameter) {
                return Active()->perform({info, stop, progress, context, parameter});
            };
        }
        if (init) plugin.pInitFunc = [](const void* parameter) { return Active()->init(parameter); };
        if (release) plugin.pReleaseFunc = []() { return Active()->release(); };
        plugin.pDescribeFunc = [](const RQHostServices* given) {
            Active()->host = given;
            return Active()->describe ? Active()->describe(given) : nullptr;
        };
        return analyse && perform;
    }
};

inline RQText Text(const char* text) {
    return {text, std::char_traits<char>::length(text)};
}

class RunnerTest : public testing::Test {
  protected:
    RunnerTest() : m_directory(m_dir.Path()) {
        FakePlugin::Active() = &m_plugin;
        m_dir.Write("fake/here", "");
        WriteTable("<c><WORKER><TYPE>3</TYPE><PATH>" + FakePath() + "</PATH></WORKER></c>");
        m_info.size = sizeof m_info;
        m_info.contractVersion = RQ_CONTRACT_VERSION;
        m_info.taskId = Text("task-1");
        m_info.taskType = RQ_TYPE_MD5_COMPUTE;
        m_plugin.analyse = [this](RQText, TaskInfo** info) {
            *info = &m_info;
            return 0;
        };
        m_plugin.perform = [](const PerformArguments& call) {
            call.Leave(RQ_STATUS_FINISHED);
            return 0;
        };
    }
    ~RunnerTest() override { FakePlugin::Active() = nullptr; }
    // Before the members of the tests go: the runner calls into them.
    void TearDown() override { m_runner.reset(); }

    void WriteTable(const std::string& xml) { m_dir.Write("RQWorkerConfig.xml", xml); }
    // As a table of this platform has it.
    static std::string FakePath() { return "fake" + NarrowUtf8(WideText(1, PathSeparator())) + "fake.so"; }
    WideText ModuleDirectory() const { return WideFromPath(m_dir.Path()) + PathSeparator(); }

    WorkRunnerSeams Seams() {
        WorkRunnerSeams seams;
        seams.clock = &m_clock;
        seams.moduleDirectory = ModuleDirectory();
        seams.loadLibrary = [this](WorkerPlugin& plugin, platform::OsError*) {
            m_loadedPath = plugin.dllPath;
            plugin.hModule = &m_plugin;
            return true;
        };
        seams.findEntryPoints = [this](WorkerPlugin& plugin) { return m_plugin.FindEntryPoints(plugin); };
        return seams;
    }
    WorkRunner& MakeRunner() { return MakeRunner(Seams()); }
    WorkRunner& MakeRunner(WorkRunnerSeams seams) {
        m_runner = std::make_unique<WorkRunner>(std::move(seams));
        return *m_runner;
    }
    std::int32_t Init(std::int32_t type = 3) {
        WorkRunnerStart start;
        start.parameters = m_parameters;
        start.workerType = type;
        return m_runner->Init(start);
    }
    // A runner with its plug-in loaded; what was logged so far is forgotten.
    WorkRunner& Ready() {
        MakeRunner();
        EXPECT_EQ(Init(), 0);
        m_log.Clear();
        return *m_runner;
    }
    // ... and a task analysed.
    WorkRunner& Analysed() {
        Ready();
        EXPECT_EQ(Analyse(), 0);
        m_log.Clear();
        return *m_runner;
    }
    std::int32_t Analyse(const std::string& text = "<t/>") { return m_runner->AnalyseTask(text, m_taskId); }
    std::int32_t Perform() { return m_runner->PerformTask(m_parameters); }

    // The lines so far as "<level> <text>"; each must have the tag and the module of the runner's lines.
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        for (const LogLine& line : m_log.Lines()) {
            EXPECT_EQ(line.tag, "ACT") << line.text;
            EXPECT_EQ(line.module, "MAIN") << line.text;
            lines.push_back(std::to_string(line.level) + " " + line.text);
        }
        return lines;
    }

    kit::TempDir m_dir;
    kit::ScopedDirectory m_directory;
    kit::FakeClock m_clock;
    LogCapture m_log;
    FakePlugin m_plugin;
    TaskInfo m_info{};
    tagOVLCommunicationParam m_parameters;
    WideText m_loadedPath;
    std::string m_taskId;
    std::unique_ptr<WorkRunner> m_runner;
};

}  // namespace rq
