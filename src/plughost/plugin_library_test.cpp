#include "plughost/plugin_library.h"

#include <gtest/gtest.h>

#include <string>

#include "bad_plugins/bad_plugins.h"
#include "base/paths.h"
#include "kit/temp_dir.h"
#include "platform/library.h"

namespace rq {
namespace {

WorkerPlugin Load(const std::string& name) {
    WorkerPlugin plugin;
    plugin.dllPath = WidenUtf8(test::BadPlugin(name));
    platform::OsError error;
    EXPECT_TRUE(LoadPluginLibrary(plugin, &error)) << error.message;
    return plugin;
}

TEST(PluginLibrary, NewRecordIsZeroed) {
    const WorkerPlugin plugin;
    EXPECT_TRUE(plugin.dllPath.empty());
    EXPECT_EQ(plugin.hModule, nullptr);
    EXPECT_EQ(plugin.pAnalyseTaskFunc, nullptr);
    EXPECT_EQ(plugin.pPerformTaskFunc, nullptr);
    EXPECT_EQ(plugin.pInitFunc, nullptr);
    EXPECT_EQ(plugin.pReleaseFunc, nullptr);
    EXPECT_EQ(plugin.pDescribeFunc, nullptr);
}

TEST(PluginLibrary, MissingFileFailsAndSaysWhich) {
    WorkerPlugin plugin;
    plugin.dllPath = L"/nowhere/there-is-no-such-plug-in.so";
    platform::OsError error;
    EXPECT_FALSE(LoadPluginLibrary(plugin, &error));
    EXPECT_EQ(plugin.hModule, nullptr);
    EXPECT_NE(error.message.find("there-is-no-such-plug-in"), std::string::npos) << error.message;
}

TEST(PluginLibrary, FileThatIsNoLibraryFails) {
    const kit::TempDir folder;
    WorkerPlugin plugin;
    plugin.dllPath = WideFromPath(folder.Write("text.so", "this is no library"));
    platform::OsError error;
    EXPECT_FALSE(LoadPluginLibrary(plugin, &error));
    EXPECT_FALSE(error.message.empty());
}

TEST(PluginLibrary, FindsAllFive) {
    WorkerPlugin plugin = Load("scripted");
    EXPECT_TRUE(FindEntryPoints(plugin));
    EXPECT_NE(plugin.pAnalyseTaskFunc, nullptr);
    EXPECT_NE(plugin.pPerformTaskFunc, nullptr);
    EXPECT_NE(plugin.pInitFunc, nullptr);
    EXPECT_NE(plugin.pReleaseFunc, nullptr);
    EXPECT_NE(plugin.pDescribeFunc, nullptr);
}

// Each pointer is the function of its name, not a neighbour's.
TEST(PluginLibrary, EachPointerIsTheFunctionOfItsName) {
    WorkerPlugin plugin = Load("scripted");
    ASSERT_TRUE(FindEntryPoints(plugin));
    const auto symbol = [&](const char* name) { return platform::FindSymbol(plugin.hModule, name); };
    EXPECT_EQ(reinterpret_cast<void*>(plugin.pAnalyseTaskFunc), symbol("RQWorkerAnalyseTask"));
    EXPECT_EQ(reinterpret_cast<void*>(plugin.pPerformTaskFunc), symbol("RQWorkerPerformTask"));
    EXPECT_EQ(reinterpret_cast<void*>(plugin.pInitFunc), symbol("RQWorkerInit"));
    EXPECT_EQ(reinterpret_cast<void*>(plugin.pReleaseFunc), symbol("RQWorkerRelease"));
    EXPECT_EQ(reinterpret_cast<void*>(plugin.pDescribeFunc), symbol("RQWorkerDescribe"));
}

TEST(PluginLibrary, InitReleaseAndDescriptionMayBeMissing) {
    WorkerPlugin plugin = Load("only_required");
    EXPECT_TRUE(FindEntryPoints(plugin));
    EXPECT_EQ(plugin.pInitFunc, nullptr);
    EXPECT_EQ(plugin.pReleaseFunc, nullptr);
    EXPECT_EQ(plugin.pDescribeFunc, nullptr);
}

TEST(PluginLibrary, WithoutPerformTheOthersAreStillFound) {
    WorkerPlugin plugin = Load("no_perform");
    EXPECT_FALSE(FindEntryPoints(plugin));
    EXPECT_NE(plugin.hModule, nullptr) << "the library stays loaded";
    EXPECT_NE(plugin.pAnalyseTaskFunc, nullptr);
    EXPECT_EQ(plugin.pPerformTaskFunc, nullptr);
    EXPECT_NE(plugin.pInitFunc, nullptr);
    EXPECT_NE(plugin.pReleaseFunc, nullptr);
}

TEST(PluginLibrary, WithoutAnalyseTheOthersAreStillFound) {
    WorkerPlugin plugin = Load("no_analyse");
    EXPECT_FALSE(FindEntryPoints(plugin));
    EXPECT_EQ(plugin.pAnalyseTaskFunc, nullptr);
    EXPECT_NE(plugin.pPerformTaskFunc, nullptr);
    EXPECT_NE(plugin.pInitFunc, nullptr);
}

TEST(PluginLibrary, NeighbourIsFoundInTheCurrentDirectory) {
    const kit::ScopedDirectory there(PathFromUtf8(test::BadPluginFolder("needs_neighbour")));
    WorkerPlugin plugin = Load("needs_neighbour");
    ASSERT_TRUE(FindEntryPoints(plugin));
    EXPECT_EQ(plugin.pInitFunc(nullptr), 0);
}

TEST(PluginDescription, IsCopied) {
    WorkerPlugin plugin = Load("scripted");
    ASSERT_TRUE(FindEntryPoints(plugin));
    const Result<PluginDescription> description = DescribePlugin(plugin, nullptr);
    ASSERT_TRUE(description.has_value()) << description.error().message;
    EXPECT_TRUE(description->isGiven);
    EXPECT_EQ(description->name, "scripted");
    EXPECT_EQ(description->version, "1.2.3");
    EXPECT_EQ(description->types, (std::vector<std::int32_t>{0, 1, 2, 3, 4, 14}));
    EXPECT_EQ(description->abilities, RQ_ABILITY_PAUSE | RQ_ABILITY_FINISH | RQ_ABILITY_UPDATE);
}

TEST(PluginDescription, WithoutTheExportTheFileNameIsTheName) {
    WorkerPlugin plugin = Load("only_required");
    ASSERT_TRUE(FindEntryPoints(plugin));
    const Result<PluginDescription> description = DescribePlugin(plugin, nullptr);
    ASSERT_TRUE(description.has_value());
    EXPECT_FALSE(description->isGiven);
    EXPECT_EQ(description->name, "only_required");
    EXPECT_TRUE(description->types.empty());
}

TEST(PluginDescription, AnotherContractVersionIsRefusedWithBothVersions) {
    WorkerPlugin plugin = Load("wrong_version");
    ASSERT_TRUE(FindEntryPoints(plugin));
    const Result<PluginDescription> description = DescribePlugin(plugin, nullptr);
    ASSERT_TRUE(description.has_error());
    EXPECT_EQ(description.error().message,
              "plug-in library wrong_version was built for contract version 7, this worker speaks version 1");
}

TEST(PluginDescription, VersionZeroIsRefused) {
    WorkerPlugin plugin = Load("version_0");
    ASSERT_TRUE(FindEntryPoints(plugin));
    const Result<PluginDescription> description = DescribePlugin(plugin, nullptr);
    ASSERT_TRUE(description.has_error());
    EXPECT_EQ(description.error().message,
              "plug-in library version_0 was built for contract version 0, this worker speaks version 1");
}

TEST(PluginDescription, TooShortIsRefused) {
    WorkerPlugin plugin = Load("short_description");
    ASSERT_TRUE(FindEntryPoints(plugin));
    const Result<PluginDescription> description = DescribePlugin(plugin, nullptr);
    ASSERT_TRUE(description.has_error());
    EXPECT_EQ(
        description.error().message,
        "plug-in library short_description: its description is too small: 4 bytes, at least 8 are needed");
}

// Descriptions that no library is worth: the check is the same for a function of the test's own.
RQPluginDescription g_description;
const RQPluginDescription* Describe(const RQHostServices*) {
    return &g_description;
}

class DescriptionCheck : public ::testing::Test {
  protected:
    DescriptionCheck() {
        g_description = {};
        g_description.size = sizeof g_description;
        g_description.contractVersion = RQ_CONTRACT_VERSION;
        m_plugin.dllPath = L"/somewhere/own.so";
        m_plugin.pDescribeFunc = &Describe;
    }
    WorkerPlugin m_plugin;
};

TEST_F(DescriptionCheck, LongerThanKnownIsTaken) {
    g_description.size = sizeof g_description + 64;
    EXPECT_TRUE(DescribePlugin(m_plugin, nullptr).has_value());
}

TEST_F(DescriptionCheck, OneByteShortIsRefused) {
    g_description.size = sizeof g_description - 1;
    EXPECT_TRUE(DescribePlugin(m_plugin, nullptr).has_error());
}

TEST_F(DescriptionCheck, TypesThatAreCountedAndMissingAreRefused) {
    g_description.typeCount = 2;
    const Result<PluginDescription> description = DescribePlugin(m_plugin, nullptr);
    ASSERT_TRUE(description.has_error());
    EXPECT_EQ(description.error().message,
              "plug-in library own: its description counts 2 task types and lists none");
}

TEST_F(DescriptionCheck, NameIsRepairedAndAnEmptyOneReplaced) {
    EXPECT_EQ(DescribePlugin(m_plugin, nullptr)->name, "own");
    g_description.name = {"b\xFF", 2};
    EXPECT_EQ(DescribePlugin(m_plugin, nullptr)->name, "b\xEF\xBF\xBD");
}

TEST(PluginFileStem, DropsFolderAndExtension) {
    EXPECT_EQ(PluginFileStem(L"/a/b.c/md5.so"), "md5");
    EXPECT_EQ(PluginFileStem(L"md5"), "md5");
    EXPECT_EQ(PluginFileStem(L"/a/.hidden"), ".hidden");
    EXPECT_EQ(PluginFileStem(L"/插件/任务.1.so"), "任务.1");
    EXPECT_EQ(PluginFileStem(L""), "");
}

TEST(PluginFolder, IsWhatStandsBeforeTheLastSeparator) {
    const std::wstring separator(1, PathSeparator());
    EXPECT_EQ(PluginFolder(L"a" + separator + L"b" + separator + L"c.so"), L"a" + separator + L"b");
    EXPECT_EQ(PluginFolder(L"a" + separator), L"a");
    EXPECT_EQ(PluginFolder(separator + L"c.so"), L"");
    EXPECT_EQ(PluginFolder(L"c.so"), L"");
}

TEST(CheckTaskInfo, WholeRecordPasses) {
    TaskInfo info{};
    info.size = sizeof info;
    info.contractVersion = RQ_CONTRACT_VERSION;
    EXPECT_EQ(CheckTaskInfo(info, "md5"), std::nullopt);
    info.size = sizeof info + 8;
    EXPECT_EQ(CheckTaskInfo(info, "md5"), std::nullopt);
}

TEST(CheckTaskInfo, TooSmallNamesThePlugIn) {
    TaskInfo info{};
    info.size = sizeof info - 1;
    info.contractVersion = RQ_CONTRACT_VERSION;
    EXPECT_EQ(CheckTaskInfo(info, "md5"),
              "plug-in md5: its task information record is too small: 87 bytes, at least 88 are needed");
    info.size = 0;
    EXPECT_EQ(CheckTaskInfo(info, "md5"),
              "plug-in md5: its task information record is too small: 0 bytes, at least 8 are needed");
}

TEST(CheckTaskInfo, AnotherVersionNamesBoth) {
    TaskInfo info{};
    info.size = sizeof info;
    info.contractVersion = 3;
    EXPECT_EQ(
        CheckTaskInfo(info, "md5"),
        "plug-in md5: its task information record is of contract version 3, this worker speaks version 1");
}

}  // namespace
}  // namespace rq
