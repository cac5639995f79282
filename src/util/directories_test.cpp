#include "util/directories.h"

#include <gtest/gtest.h>

#include <regex>

#include "base/paths.h"
#include "kit/temp_dir.h"
#include "platform/files.h"
#include "platform/identity.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {
namespace {

using namespace KWOVL_UTILITY;

const std::wstring kSeparator(1, PathSeparator());

// Forgets what is cached before and after, so that the environment counts.
class DirectoriesTest : public testing::Test {
  protected:
    DirectoriesTest() { ForgetProcessDirectories(); }
    ~DirectoriesTest() override { ForgetProcessDirectories(); }

    static std::string LogDir() {
        std::string directory;
        EXPECT_EQ(OVLGetLogDir(directory), 0);
        return directory;
    }
    static std::string IniPath() {
        std::string directory;
        EXPECT_EQ(OVLIniGetPath(directory), 0);
        return directory;
    }
    std::string Separator() const { return NarrowUtf8(kSeparator); }

    kit::TempDir m_folder;
};

TEST(ModuleDirectory, IsCutAfterTheLastSeparator) {
    EXPECT_EQ(CutToDirectory(L"C:\\w\\RQWorkerU.exe"), L"C:\\w\\");
    EXPECT_EQ(CutToDirectory(L"C:\\RQWorkerU.exe"), L"C:\\");
    EXPECT_EQ(CutToDirectory(L"/opt/r q/RQWorkerU"), L"/opt/r q/");
    EXPECT_EQ(CutToDirectory(L"RQWorkerU.exe"), L"RQWorkerU.exe" + kSeparator);
    EXPECT_EQ(CutToDirectory(L""), kSeparator);
}

TEST(ModuleDirectory, HoldsThisExecutable) {
    const std::wstring directory = GetModuleDirectory();
    EXPECT_TRUE(directory.ends_with(kSeparator));
    EXPECT_TRUE(WidenUtf8(platform::ModuleFileName()).starts_with(directory));
}

TEST(DailyLogDir, HasTheDateInEightDigits) {
    EXPECT_EQ(DailyLogDir(L"root/", 2017, 5, 31), L"root/RQWorker" + kSeparator + L"20170531" + kSeparator);
    EXPECT_EQ(DailyLogDir(L"", 999, 1, 2), L"RQWorker" + kSeparator + L"09990102" + kSeparator);
}

TEST_F(DirectoriesTest, TheDailyFolderLiesBelowTheLogRoot) {
    kit::ScopedEnvironment logs("RQ_LOG_DIR", m_folder.Utf8("日志"));
    const std::string daily = NarrowUtf8(GetDailyLogDir());
    const std::string root = m_folder.Utf8("日志") + Separator();
    ASSERT_TRUE(daily.starts_with(root)) << daily;
    EXPECT_TRUE(std::regex_match(daily.substr(root.size()), std::regex(R"(RQWorker[/\\]\d{8}[/\\])")))
        << daily;
}

TEST_F(DirectoriesTest, TheEnvironmentSetsBoth) {
    kit::ScopedEnvironment logs("RQ_LOG_DIR", m_folder.Utf8("logs"));
    kit::ScopedEnvironment config("RQ_CONFIG_DIR", m_folder.Utf8("config") + Separator());
    EXPECT_EQ(LogDir(), m_folder.Utf8("logs") + Separator());
    EXPECT_EQ(IniPath(), m_folder.Utf8("config") + Separator());
}

TEST_F(DirectoriesTest, DefaultsWithoutTheEnvironment) {
    kit::ScopedEnvironment logs("RQ_LOG_DIR", std::nullopt);
    kit::ScopedEnvironment config("RQ_CONFIG_DIR", "");
    EXPECT_EQ(LogDir(), platform::DefaultDataFolder() + Separator() + "logs" + Separator());
    EXPECT_EQ(IniPath(), NarrowUtf8(GetModuleDirectory()));
}

TEST_F(DirectoriesTest, TheConfigurationSetsTheLogRootWhereTheEnvironmentDoesNot) {
    m_folder.Write("config/RQWorker.ini", "[Log]\nRoot = " + m_folder.Utf8("记录") + "\n");
    kit::ScopedEnvironment config("RQ_CONFIG_DIR", m_folder.Utf8("config"));
    {
        kit::ScopedEnvironment logs("RQ_LOG_DIR", std::nullopt);
        EXPECT_EQ(LogDir(), m_folder.Utf8("记录") + Separator());
    }
    ForgetProcessDirectories();
    kit::ScopedEnvironment logs("RQ_LOG_DIR", m_folder.Utf8("logs"));
    EXPECT_EQ(LogDir(), m_folder.Utf8("logs") + Separator());
}

TEST_F(DirectoriesTest, RelativeFoldersStayWhereTheyWereAtTheFirstCall) {
    m_folder.Write("elsewhere/x", "");
    kit::ScopedEnvironment logs("RQ_LOG_DIR", "logs");
    kit::ScopedEnvironment config("RQ_CONFIG_DIR", "./config");
    kit::ScopedDirectory here(m_folder.Path());
    EXPECT_EQ(LogDir(), m_folder.Utf8("logs") + Separator());
    kit::ScopedDirectory there(m_folder.Path() / "elsewhere");
    EXPECT_EQ(LogDir(), m_folder.Utf8("logs") + Separator());
    EXPECT_EQ(IniPath(), m_folder.Utf8("config") + Separator());  // asked for the first time only now
}

}  // namespace
}  // namespace rq
