// Init and Release of the runner, over entry points of the test's own.

#include "base/result.h"
#include "platform/files.h"
#include "plugin/runner_fixture.h"

namespace rq {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class RunnerInitTest : public RunnerTest {
  protected:
    std::string ChangeLine() const { return "4 ====> Change Work Path to [" + m_dir.Utf8("fake") + "]"; }
};

TEST_F(RunnerInitTest, LoadsAndCallsInit) {
    m_parameters.heartbeatInterval_s = 17;
    m_parameters.serverAddresses = {"10.0.0.1", "10.0.0.2"};
    std::int32_t heartbeat = 0;
    std::string second;
    m_plugin.init = [&](const void* parameter) {
        const auto* record = static_cast<const RQRunningParameter*>(parameter);
        heartbeat = record->heartbeatInterval_s;
        second.assign(record->serverAddresses.items[1].p, record->serverAddresses.items[1].n);
        EXPECT_EQ(Lines().back(), "1 m_workerPlugin.pInitFunc begin..");
        return 0;
    };
    MakeRunner();
    EXPECT_EQ(Init(), 0);
    EXPECT_EQ(heartbeat, 17);
    EXPECT_EQ(second, "10.0.0.2");
    EXPECT_EQ(m_loadedPath, ModuleDirectory() + WidenUtf8(FakePath()));
    EXPECT_THAT(Lines(), ElementsAre(ChangeLine(), "1 m_workerPlugin.pInitFunc begin..",
                                     "1 m_workerPlugin.pInitFunc end.."));
}

TEST_F(RunnerInitTest, ParametersOfInitLiveUntilRelease) {
    const RQRunningParameter* kept = nullptr;
    std::int32_t seenAtRelease = 0;
    m_parameters.value01 = 41;
    m_plugin.init = [&](const void* parameter) {
        kept = static_cast<const RQRunningParameter*>(parameter);
        return 0;
    };
    m_plugin.release = [&] {
        seenAtRelease = kept->value01;
        return 0;
    };
    Ready();
    m_runner->Release();
    EXPECT_EQ(seenAtRelease, 41);
}

TEST_F(RunnerInitTest, Type23GetsTheNameOfTheParameterFile) {
    WriteTable("<c><WORKER><TYPE>23</TYPE><PATH>" + FakePath() + "</PATH></WORKER></c>");
    std::string text;
    m_plugin.init = [&](const void* parameter) {
        text = static_cast<const char*>(parameter);
        return 0;
    };
    MakeRunner();
    EXPECT_EQ(Init(23), 0);
    EXPECT_EQ(text, "actor.xml");
}

TEST_F(RunnerInitTest, Type14GetsTheParameters) {
    WriteTable("<c><WORKER><TYPE>14</TYPE><PATH>" + FakePath() + "</PATH></WORKER></c>");
    std::uint32_t size = 0;
    m_plugin.init = [&](const void* parameter) {
        size = static_cast<const RQRunningParameter*>(parameter)->size;
        return 0;
    };
    MakeRunner();
    EXPECT_EQ(Init(14), 0);
    EXPECT_EQ(size, sizeof(RQRunningParameter));
}

TEST_F(RunnerInitTest, MovesTheCurrentDirectoryAndLeavesItThere) {
    Ready();
    const auto fake = std::filesystem::canonical(m_dir.Path() / "fake");
    EXPECT_EQ(std::filesystem::current_path(), fake);
    m_runner.reset();
    EXPECT_EQ(std::filesystem::current_path(), fake);
}

TEST_F(RunnerInitTest, WithoutAFolderTheCurrentDirectoryStays) {
    m_dir.Write("hereRQWorkerConfig.xml", "<c><WORKER><TYPE>3</TYPE><PATH>fake.so</PATH></WORKER></c>");
    WorkRunnerSeams seams = Seams();
    seams.moduleDirectory = L"here";
    const auto before = std::filesystem::current_path();
    MakeRunner(std::move(seams));
    EXPECT_EQ(Init(), 0);
    EXPECT_EQ(m_loadedPath, L"herefake.so");
    EXPECT_EQ(std::filesystem::current_path(), before);
    EXPECT_THAT(Lines(), ElementsAre());
}

TEST_F(RunnerInitTest, TableSeparatorsOfTheOtherPlatformAreUnderstood) {
    WriteTable("<c><WORKER><TYPE>3</TYPE><PATH>fake\\fake.so</PATH></WORKER></c>");
    MakeRunner();
    EXPECT_EQ(Init(), 0);
    EXPECT_EQ(std::filesystem::current_path(), std::filesystem::canonical(m_dir.Path() / "fake"));
    EXPECT_EQ(m_loadedPath,
              ModuleDirectory() + (PathSeparator() == L'\\' ? L"fake\\fake.so" : L"fake/fake.so"));
}

TEST_F(RunnerInitTest, NoEntryInTheTable) {
    MakeRunner();
    EXPECT_EQ(Init(99), kStatusFail);
    EXPECT_THAT(Lines(), ElementsAre("4 Cannot Find Worker Dll! Type [99].", "4 Get worker library failed."));
    EXPECT_NE(std::filesystem::current_path(), std::filesystem::canonical(m_dir.Path() / "fake"));
}

TEST_F(RunnerInitTest, NoTable) {
    std::filesystem::remove(m_dir.Path() / "RQWorkerConfig.xml");
    MakeRunner();
    EXPECT_EQ(Init(), kStatusFail);
    EXPECT_THAT(Lines(), ElementsAre("4 File [" + m_dir.Utf8("RQWorkerConfig.xml") + "] does not exist.",
                                     "4 Get worker library failed."));
}

TEST_F(RunnerInitTest, LibraryThatDoesNotLoad) {
    WorkRunnerSeams seams = Seams();
    seams.loadLibrary = [](WorkerPlugin&, platform::OsError* error) {
        *error = {2, "fake.so: nothing there"};
        return false;
    };
    MakeRunner(std::move(seams));
    EXPECT_EQ(Init(), kStatusFail);
    EXPECT_THAT(Lines(), ElementsAre(ChangeLine(),
                                     "4 Load worker library failed.File [" + m_dir.Utf8(FakePath()) + "]",
                                     "4 fake.so: nothing there"));
}

TEST_F(RunnerInitTest, EmptyPathTriesToLoadTheModuleDirectory) {
    WriteTable("<c><WORKER><TYPE>3</TYPE></WORKER></c>");
    WorkRunnerSeams seams = Seams();
    seams.loadLibrary = {};
    MakeRunner(std::move(seams));
    EXPECT_EQ(Init(), kStatusFail);
    const std::vector<std::string> lines = Lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "4 ====> Change Work Path to [" + m_dir.Utf8() + "]");
    EXPECT_EQ(lines[1], "4 Load worker library failed.File [" + m_dir.Utf8() +
                            NarrowUtf8(WideText(1, PathSeparator())) + "]");
}

TEST_F(RunnerInitTest, LibraryWithoutPerform) {
    m_plugin.perform = nullptr;
    m_plugin.init = [](const void*) { return 0; };
    MakeRunner();
    EXPECT_EQ(Init(), kStatusFail);
    EXPECT_THAT(Lines(), ElementsAre(ChangeLine(), "4 WorkRunner Init Plug in function False!",
                                     "4 plug-in library fake does not export RQWorkerPerformTask"));
    EXPECT_EQ(Analyse(), 0);
    EXPECT_EQ(Perform(), kStatusFail);
}

TEST_F(RunnerInitTest, LibraryWithoutAnalyse) {
    m_plugin.analyse = nullptr;
    MakeRunner();
    EXPECT_EQ(Init(), kStatusFail);
    EXPECT_THAT(Lines(), ElementsAre(ChangeLine(), "4 WorkRunner Init Plug in function False!",
                                     "4 plug-in library fake does not export RQWorkerAnalyseTask"));
    EXPECT_EQ(m_runner->UpdateTask("<t/>"), kStatusMissing);
    m_log.Clear();
    EXPECT_EQ(Analyse(), kStatusMissing);
    EXPECT_THAT(Lines(),
                ElementsAre("4 AnalysTask Begin! TaskStr: <t/>", "4 worker Plug in Analysis Task failed...",
                            "4 task info is NULL!!", "4 no plug-in that could analyse it is loaded"));
}

TEST_F(RunnerInitTest, LibraryWithNeither) {
    m_plugin.analyse = nullptr;
    m_plugin.perform = nullptr;
    MakeRunner();
    EXPECT_EQ(Init(), kStatusFail);
    EXPECT_EQ(Lines().back(),
              "4 plug-in library fake does not export RQWorkerAnalyseTask and RQWorkerPerformTask");
}

// Whatever was loaded is released, also after an Init that failed on the way.
TEST_F(RunnerInitTest, AFailedInitIsReleasedToo) {
    int released = 0;
    m_plugin.release = [&] { return ++released; };
    m_plugin.init = [](const void*) { return -77; };
    MakeRunner();
    EXPECT_EQ(Init(), -77);
    m_runner->Release();
    EXPECT_EQ(released, 1);
    m_plugin.perform = nullptr;
    m_plugin.init = [](const void*) -> std::int32_t { throw std::logic_error("called"); };
    MakeRunner();
    EXPECT_EQ(Init(), kStatusFail);
    m_runner->Release();
    EXPECT_EQ(released, 2);
}

TEST_F(RunnerInitTest, AFolderThatIsNotThereIsALineAndTheLoadIsTried) {
    WriteTable("<c><WORKER><TYPE>3</TYPE><PATH>none" + FakePath() + "</PATH></WORKER></c>");
    const auto before = std::filesystem::current_path();
    MakeRunner();
    EXPECT_EQ(Init(), 0);
    EXPECT_EQ(std::filesystem::current_path(), before);
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "4 ====> Change Work Path to [" + m_dir.Utf8("nonefake") + "]");
    EXPECT_THAT(lines[1], testing::StartsWith("3 "));
    EXPECT_THAT(lines[1], HasSubstr("nonefake"));
}

TEST_F(RunnerInitTest, InitAndReleaseAreNotRequired) {
    MakeRunner();
    EXPECT_EQ(Init(), 0);
    m_runner->Release();
    EXPECT_THAT(Lines(), ElementsAre(ChangeLine()));
}

TEST_F(RunnerInitTest, InitThatFailsGivesItsCode) {
    m_plugin.init = [](const void*) { return -77; };
    MakeRunner();
    EXPECT_EQ(Init(), -77);
    EXPECT_THAT(Lines(),
                ElementsAre(ChangeLine(), "1 m_workerPlugin.pInitFunc begin..",
                            "4 m_workerPlugin init func failed..", "1 m_workerPlugin.pInitFunc end.."));
}

TEST_F(RunnerInitTest, PluginOfAnotherContractIsNotCalledAgain) {
    static RQPluginDescription description{};
    description.size = sizeof description;
    description.contractVersion = RQ_CONTRACT_VERSION + 1;
    m_plugin.describe = [](const RQHostServices*) { return &description; };
    m_plugin.init = [](const void*) -> std::int32_t { throw std::logic_error("called"); };
    m_plugin.release = []() -> std::int32_t { throw std::logic_error("called"); };
    MakeRunner();
    EXPECT_EQ(Init(), kStatusFail);
    m_runner->Release();
    EXPECT_EQ(m_runner->UpdateTask("<t/>"), kStatusMissing);
    EXPECT_THAT(Lines().back(), HasSubstr("contract version"));
}

TEST_F(RunnerInitTest, DescribeComesBeforeInitAndGetsTheServices) {
    std::vector<std::string> order;
    m_plugin.describe = [&](const RQHostServices* host) {
        order.push_back("describe");
        EXPECT_EQ(host->size, sizeof(RQHostServices));
        return nullptr;
    };
    m_plugin.init = [&](const void*) {
        order.push_back("init");
        return 0;
    };
    Ready();
    EXPECT_THAT(order, ElementsAre("describe", "init"));
}

TEST_F(RunnerInitTest, ReleaseCallsThePluginOnceWithItsLines) {
    int calls = 0;
    m_plugin.release = [&] {
        ++calls;
        EXPECT_THAT(Lines(), ElementsAre("1 m_workerPlugin.pReleaseFunc begin.."));
        return 5;
    };
    Ready();
    m_runner->Release();
    m_runner->Release();
    m_runner.reset();
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(Lines(),
                ElementsAre("1 m_workerPlugin.pReleaseFunc begin..", "1 m_workerPlugin.pReleaseFunc end.."));
}

TEST_F(RunnerInitTest, TheDestructorReleases) {
    int calls = 0;
    m_plugin.release = [&] { return ++calls; };
    Ready();
    m_runner.reset();
    EXPECT_EQ(calls, 1);
}

TEST_F(RunnerInitTest, AfterReleaseThereIsNoTaskAndNoCall) {
    // Nor while the plug-in frees its record.
    m_plugin.release = [this] {
        EXPECT_EQ(m_runner->GetStatus(), 4u);
        EXPECT_EQ(m_runner->GetTaskId(), "");
        EXPECT_EQ(m_runner->GetTaskResult(3), nullptr);
        return 0;
    };
    Analysed();
    m_runner->Release();
    EXPECT_EQ(m_runner->GetStatus(), 4u);
    EXPECT_EQ(m_runner->GetTaskId(), "");
    EXPECT_EQ(m_runner->GetTaskResult(3), nullptr);
    m_plugin.analyse = [](RQText, TaskInfo**) -> std::int32_t { throw std::logic_error("called"); };
    EXPECT_EQ(m_runner->UpdateTask("<t/>"), kStatusMissing);
    EXPECT_EQ(Perform(), kStatusFail);
}

TEST_F(RunnerInitTest, ANewRunnerHasItsDefaults) {
    WorkRunner& runner = MakeRunner();
    EXPECT_EQ(runner.GetStatus(), 4u);
    EXPECT_EQ(runner.GetTaskId(), "");
    EXPECT_EQ(runner.GetFrameRate(), 25);
    EXPECT_EQ(runner.GetCloseMode(), 0u);
    EXPECT_EQ(runner.GetStopFlag(), 0u);
    EXPECT_FALSE(runner.IsStatusChanged());
    EXPECT_TRUE(runner.IsIdle());
    const TaskProgress progress = runner.GetProgress();
    EXPECT_EQ(progress.percent, 0);
    EXPECT_TRUE(progress.lastUpdate.is_not_a_date_time());
    EXPECT_TRUE(progress.expectedNextUpdate.is_not_a_date_time());
    EXPECT_TRUE(progress.start.is_not_a_date_time());
    EXPECT_EQ(progress.updated, 0);
    EXPECT_EQ(progress.processed, 0);
    const TaskErrorInfo errors = runner.GetErrorInfo();
    EXPECT_EQ(errors.errorCode, 0);
    EXPECT_EQ(errors.detailErrorCode, 0u);
    EXPECT_TRUE(errors.detailErrorText.empty());
    EXPECT_TRUE(errors.furtherText.empty());
    EXPECT_EQ(runner.UpdateTask("<t/>"), kStatusMissing);
    EXPECT_EQ(Perform(), kStatusFail);
}

}  // namespace
}  // namespace rq
