// The runner over real libraries: loading, a library beside the plug-in, and a whole task.

#include <filesystem>
#include <functional>

#include "bad_plugins/bad_plugins.h"
#include "base/paths.h"
#include "base/result.h"
#include "platform/codepage.h"
#include "plugin/runner_fixture.h"

namespace rq {
namespace {

using testing::Contains;
using testing::HasSubstr;

class RealLibraryTest : public RunnerTest {
  protected:
    // A module directory whose table names the plug-in, given relative to it.
    std::int32_t InitWith(const std::string& name) {
        const auto file = std::filesystem::path(test::BadPlugin(name)).filename();
        return InitWith(name, std::filesystem::path(name) / file,
                        [](const std::string& utf8) { return utf8; });
    }
    // ... copied to `target` below the plug-ins' folder; `encode` makes the table's bytes.
    std::int32_t InitWith(const std::string& name, const std::filesystem::path& target,
                          const std::function<std::string(const std::string&)>& encode) {
        const auto folder = m_dir.Path() / "plugins" / target.parent_path();
        std::filesystem::copy(test::BadPluginFolder(name), folder, std::filesystem::copy_options::recursive);
        std::filesystem::rename(folder / std::filesystem::path(test::BadPlugin(name)).filename(),
                                folder / target.filename());
        const std::string path = Utf8FromPath(("plugins" / target).make_preferred());
        WriteTable(encode("<c><WORKER><TYPE>3</TYPE><PATH>" + path + "</PATH></WORKER></c>"));
        WorkRunnerSeams seams;
        seams.moduleDirectory = ModuleDirectory();
        MakeRunner(std::move(seams));
        return Init();
    }

    static std::filesystem::path Chinese(const std::string& name) {
        auto path = PathFromUtf8("计算/校验码");
        return path += std::filesystem::path(test::BadPlugin(name)).extension();
    }

    void SetUp() override { std::filesystem::create_directory(m_dir.Path() / "plugins"); }
};

TEST_F(RealLibraryTest, RequiredFunctionsAloneWork) {
    EXPECT_EQ(InitWith("only_required"), 0);
    EXPECT_EQ(Analyse(), 0);
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetStatus(), 0u);
}

TEST_F(RealLibraryTest, WithoutPerform) {
    EXPECT_EQ(InitWith("no_perform"), kStatusFail);
    EXPECT_THAT(Lines(), Contains("4 WorkRunner Init Plug in function False!"));
    EXPECT_EQ(Lines().back(), "4 plug-in library no_perform does not export RQWorkerPerformTask");
}

TEST_F(RealLibraryTest, WithoutAnalyse) {
    EXPECT_EQ(InitWith("no_analyse"), kStatusFail);
    EXPECT_THAT(Lines(), Contains("4 WorkRunner Init Plug in function False!"));
    EXPECT_EQ(Lines().back(), "4 plug-in library no_analyse does not export RQWorkerAnalyseTask");
}

TEST_F(RealLibraryTest, OfAnotherContractVersion) {
    EXPECT_EQ(InitWith("wrong_version"), kStatusFail);
    EXPECT_THAT(Lines(), Contains(HasSubstr("contract version 7")));
}

TEST_F(RealLibraryTest, OfContractVersionZero) {
    EXPECT_EQ(InitWith("version_0"), kStatusFail);
    EXPECT_THAT(Lines(), Contains("4 plug-in library version_0 was built for contract version 0, this worker "
                                  "speaks version 1"));
}

TEST_F(RealLibraryTest, OfContractVersionZeroWithoutADescriptionIsRefusedByItsRecord) {
    EXPECT_EQ(InitWith("version_0_silent"), 0);
    Analyse();
    EXPECT_THAT(Lines(), Contains("4 plug-in version_0_silent: its task information record is of contract "
                                  "version 0, this worker speaks version 1"));
    EXPECT_EQ(Perform(), kStatusFail);
}

TEST_F(RealLibraryTest, WhoseInitFails) {
    EXPECT_EQ(InitWith("init_fails"), 77);
    EXPECT_THAT(Lines(), Contains("4 m_workerPlugin init func failed.."));
}

TEST_F(RealLibraryTest, ThatNeedsALibraryBesideItFindsIt) {
    EXPECT_EQ(InitWith("needs_neighbour"), 0);
    EXPECT_EQ(std::filesystem::current_path(),
              std::filesystem::canonical(m_dir.Path() / "plugins" / "needs_neighbour"));
}

TEST_F(RealLibraryTest, WithChineseNamesInATableInUtf8) {
    const auto target = Chinese("needs_neighbour");
    EXPECT_EQ(InitWith("needs_neighbour", target, [](const std::string& utf8) { return utf8; }), 0);
    EXPECT_EQ(std::filesystem::current_path(),
              std::filesystem::canonical(m_dir.Path() / "plugins" / PathFromUtf8("计算")));
}

TEST_F(RealLibraryTest, WithChineseNamesInATableInGbk) {
    const auto target = Chinese("scripted");
    ASSERT_EQ(InitWith("scripted", target, platform::Utf8ToGbk), 0);
    EXPECT_EQ(Analyse("id t; md5 /file; status 0"), 0);
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetStatus(), 0u);
}

TEST_F(RealLibraryTest, ThatIsNotThere) {
    const std::string none = "plugins" + NarrowUtf8(WideText(1, PathSeparator())) + "none.so";
    WriteTable("<c><WORKER><TYPE>3</TYPE><PATH>" + none + "</PATH></WORKER></c>");
    WorkRunnerSeams seams;
    seams.moduleDirectory = ModuleDirectory();
    MakeRunner(std::move(seams));
    EXPECT_EQ(Init(), kStatusFail);
    EXPECT_THAT(Lines(), Contains("4 Load worker library failed.File [" + m_dir.Utf8(none) + "]"));
}

TEST_F(RealLibraryTest, ThatLeavesNoRecord) {
    EXPECT_EQ(InitWith("null_task_info"), 0);
    EXPECT_EQ(Analyse("fail"), 12);
    EXPECT_EQ(Analyse("<t/>"), 0);
    EXPECT_EQ(m_log.Count(4, "task info is NULL!!"), 2u);
    EXPECT_EQ(Perform(), kStatusFail);
    EXPECT_EQ(m_runner->GetStatus(), 4u);
}

TEST_F(RealLibraryTest, ScriptedTaskFromAnalysisToResult) {
    ASSERT_EQ(InitWith("scripted"), 0);
    EXPECT_EQ(Analyse("id real-1; type 3; progress 10 4; md5 /file; status 0"), 0);
    EXPECT_EQ(m_taskId, "real-1");
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetStatus(), 0u);
    EXPECT_DOUBLE_EQ(m_runner->GetProgress().percent, 40);
    const auto record = std::dynamic_pointer_cast<const stMD5TaskResult>(m_runner->GetTaskResult(3));
    ASSERT_NE(record, nullptr);
    ASSERT_EQ(record->files.size(), 1u);
    EXPECT_EQ(record->files[0].first, "/file");
    EXPECT_EQ(record->files[0].computedMd5, "000102030405060708090a0b0c0d0e0f");
}

// What was loaded stays: threads that the plug-in left behind may still run in it.
TEST_F(RealLibraryTest, IsNeverUnloaded) {
    std::filesystem::copy(test::BadPluginFolder("only_required"), m_dir.Path() / "plugins" / "only_required",
                          std::filesystem::copy_options::recursive);
    const auto file = std::filesystem::path(test::BadPlugin("only_required")).filename();
    const auto path = ("plugins/only_required" / file).make_preferred();
    WriteTable("<c><WORKER><TYPE>3</TYPE><PATH>" + Utf8FromPath(path) + "</PATH></WORKER></c>");
    WorkerPlugin loaded;
    WorkRunnerSeams seams;
    seams.moduleDirectory = ModuleDirectory();
    seams.findEntryPoints = [&](WorkerPlugin& plugin) {
        const bool isFound = FindEntryPoints(plugin);
        loaded = plugin;
        return isFound;
    };
    MakeRunner(std::move(seams));
    ASSERT_EQ(Init(), 0);
    m_runner.reset();
    TaskInfo* info = nullptr;
    EXPECT_EQ(loaded.pAnalyseTaskFunc(Text("<t/>"), &info), 0);  // a crash if it were gone
    EXPECT_NE(info, nullptr);
}

TEST_F(RealLibraryTest, AnExceptionThatCrossesTheLibraryIsCaught) {
    ASSERT_EQ(InitWith("scripted"), 0);
    EXPECT_EQ(Analyse("id t; throw broken"), 0);
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetStatus(), 4u);
    EXPECT_EQ(m_runner->GetErrorInfo().detailErrorText, L"broken");
    EXPECT_EQ(Analyse("id t; throw-int 3"), 0);
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->GetErrorInfo().detailErrorText, L"unknown exception");
}

}  // namespace
}  // namespace rq
