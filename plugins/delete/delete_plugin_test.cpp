// The delete plug-in through its exported functions, on both platforms.
#include <atomic>
#include <chrono>
#include <thread>

#include "delete_test_folder.h"
#include "tree.h"

namespace rq::del {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

TEST_F(DeleteTest, DescribesItself) {
    EXPECT_EQ(plugin::View(m_description->name), "delete");
    ASSERT_EQ(m_description->typeCount, 1u);
    EXPECT_EQ(m_description->types[0], 7);
}

TEST_F(DeleteTest, PassesTheCheck) {
    Write("allowed/stays/a", "1");
    Write("allowed/stays/b/c", "1");
    ExpectCheckPasses(Text(Item("allowed/stays", true), true));
    EXPECT_TRUE(Exists("allowed/stays/b/c"));
    ExpectCheckPasses(Text(Item("allowed/not there")));
}

// Files that somebody makes again and again, so that most tasks have something to delete.
TEST_F(DeleteTest, PassesTheCheckWithRealDeletions) {
    fs::create_directories(At("allowed/made"));
    fs::create_directories(At("new"));
    std::string items;
    for (int i = 0; i < 5; ++i) items += Item("allowed/made/" + std::to_string(i));
    std::atomic<bool> isOver{false};
    std::thread maker([&] {
        for (int i = 0; !isOver; i = (i + 1) % 5) {
            const std::string name = std::to_string(i);
            Write("new/" + name, "1");
            std::error_code problem;
            if (!Exists("allowed/made/" + name))
                fs::rename(At("new/" + name), At("allowed/made/" + name), problem);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    ExpectCheckPasses(Text(items), "100");
    isOver = true;
    maker.join();
    std::size_t deleted = 0;
    for (const fs::path& report : kit::FindFiles(m_reportDir.Path(), ".txt"))
        for (const std::string& line : kit::ReadLines(report))
            deleted += line.find("Z delete ") == 19 ? 1 : 0;
    EXPECT_GE(deleted, 20u);
}

TEST_F(DeleteTest, DeletesFilesAndEmptyFolders) {
    Write("allowed/a 新.mxf", "1");
    Write("allowed/stays", "1");
    fs::create_directories(At("allowed/empty"));
    EXPECT_EQ(Do(Text(Item("allowed/a 新.mxf") + Item("allowed/empty"))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Names("allowed"), Lines{"stays"});
    EXPECT_EQ(Report(), (Lines{"task t1", Line("delete", "allowed/a 新.mxf"), Line("delete", "allowed/empty"),
                               "end 1 file and 1 folder deleted"}));
    EXPECT_EQ(Further().rfind("1 file and 1 folder deleted; journal: ", 0), 0u) << Further();
    ExpectWholeProgress();
}

TEST_F(DeleteTest, DeletesAFolderWithAllThatIsInIt) {
    for (int i = 0; i < 600; ++i) Write("allowed/tree/many/f" + std::to_string(i), "1");
    Write("allowed/tree/deep/deeper/x", "1");
    fs::create_directories(At("allowed/tree/empty"));
    Write("allowed/beside", "1");
    EXPECT_EQ(Do(Text(Item("allowed/tree", true))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Names("allowed"), Lines{"beside"});
    EXPECT_EQ(Further().rfind("601 files and 5 folders deleted", 0), 0u) << Further();
    EXPECT_EQ(m_progress.back().total, 606);
    ExpectWholeProgress();
}

TEST_F(DeleteTest, ADryRunDeletesNothing) {
    Write("allowed/tree/x", "1");
    EXPECT_EQ(Do(Text(Item("allowed/tree", true) + Item("allowed/gone"), true)), RQ_STATUS_FINISHED);
    EXPECT_TRUE(Exists("allowed/tree/x"));
    EXPECT_EQ(Report(), (Lines{"task t1", Line("would-delete", "allowed/tree/x"),
                               Line("would-delete", "allowed/tree"), Line("absent", "allowed/gone"),
                               "end dry run: 1 file and 1 folder would be deleted, 1 item was not there"}));
}

TEST_F(DeleteTest, WhatIsNotThereIsNoFailure) {
    EXPECT_EQ(Do(Text(Item("allowed/gone") + Item("allowed/no folder/gone", true))), RQ_STATUS_FINISHED);
    EXPECT_EQ(Further().rfind("0 files and 0 folders deleted, 2 items were not there; journal: ", 0), 0u)
        << Further();
}

TEST_F(DeleteTest, AFolderThatIsNotEmptyStays) {
    Write("allowed/tree/x", "1");
    for (const bool dryRun : {false, true}) {
        EXPECT_EQ(Do(Text(Item("allowed/tree"), dryRun)), RQ_STATUS_ERROR);
        EXPECT_EQ(Error(), 0x84100032u);
        EXPECT_NE(Detail().find(": the folder is not empty; say <Recursive>true</Recursive>"),
                  std::string::npos)
            << Detail();
        EXPECT_TRUE(Exists("allowed/tree/x"));
    }
}

TEST_F(DeleteTest, OnlyBelowAllowedFolders) {
    Write("other/x", "1");
    Write("allowed2/x", "1");
    Write("allowed/x", "1");
    EXPECT_EQ(Do(Text(Item("other/x") + Item("allowed2/x") + Item("allowed", true) + Item("allowed/x"))),
              RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100030u);
    EXPECT_EQ(Detail(), PathOf("other/x") +
                            ": it lies below no folder of RQWorkerDelete.xml; name one of the "
                            "folders above it there, or give another path");
    EXPECT_TRUE(Exists("other/x"));
    EXPECT_TRUE(Exists("allowed2/x"));
    EXPECT_TRUE(Names("allowed").empty());  // what is allowed goes, the folder itself stays
    const Lines report = Report();
    EXPECT_EQ(std::count_if(report.begin(), report.end(),
                            [](const std::string& line) { return line.rfind("left ", 0) == 0; }),
              3);
}

TEST_F(DeleteTest, NothingConfiguredIsNothingAllowed) {
    Write("allowed/x", "1");
    const std::string file = m_configDir.Utf8("RQWorkerDelete.xml");
    fs::remove(PathFromUtf8(file));
    EXPECT_EQ(Do(Text(Item("allowed/x"))), RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100034u);
    EXPECT_EQ(Detail(), "this node allows no deletions: there is no " + file +
                            "; name the folders below which tasks may delete in it: "
                            "<DeleteConfig><Folder>...</Folder></DeleteConfig>");
    EXPECT_TRUE(Exists("allowed/x"));
    EXPECT_EQ(Report(), (Lines{"task t1", "end 0 files and 0 folders deleted"}));
    EXPECT_NE(Further().find("\n" + Detail()), std::string::npos) << Further();
}

TEST_F(DeleteTest, AnythingWrongInTheConfigurationAllowsNothing) {
    Write("allowed/x", "1");
    const std::string good = "<Folder>" + PathOf("allowed") + "</Folder>";
    const std::string file = m_configDir.Utf8("RQWorkerDelete.xml");
    const std::string root = kit::RootName() + "/";
    const std::pair<std::string, std::string> cases[] = {
        {"<DeleteConfig>" + good + "\n<Folder>relative</Folder></DeleteConfig>",
         "line 2: <Folder> is \"relative\"; give the absolute path of a folder"},
        {"<DeleteConfig>" + good + "<Folder>" + root + "</Folder></DeleteConfig>",
         "line 1: <Folder> is a whole file system: \"" + root + "\"; name the folders in it"},
        {"<DeleteConfig>" + good + "<Folder>" + root + "a/../b</Folder></DeleteConfig>",
         "line 1: <Folder> has \"..\" in it; give the path without it: \"" + root + "a/../b\""},
        {"<DeleteConfig>" + good + "\n<Folder x=\"y\">" + PathOf("other") + "</Folder></DeleteConfig>",
         "line 2: <Folder> has the attribute \"x\"; attributes are not used here"},
        {"<DeleteConfig/>", "line 1: <DeleteConfig> has no <Folder>; give at least one, or remove the file"},
        {"<DeleteConfig>" + good,
         "line 1: not well-formed XML: no element found; <DeleteConfig> of line 1 is "
         "still open"},
    };
    for (const auto& [text, words] : cases) {
        m_configDir.Write("RQWorkerDelete.xml", text);
        EXPECT_EQ(Do(Text(Item("allowed/x"))), RQ_STATUS_ERROR);
        EXPECT_EQ(Error(), 0x84100034u);
        EXPECT_EQ(Detail(), file + ": " + words);
    }
    EXPECT_TRUE(Exists("allowed/x"));
    const kit::ScopedEnvironment relative("RQ_CONFIG_DIR", "relative");
    EXPECT_EQ(Do(Text(Item("allowed/x"))), RQ_STATUS_ERROR);
    EXPECT_EQ(Detail(), "RQ_CONFIG_DIR is no absolute path: \"relative\"; give one");
}

TEST_F(DeleteTest, AJournalThatCannotBeWrittenDeletesNothing) {
    Write("allowed/x", "1");
    const kit::ScopedEnvironment folder("RQ_REPORT_DIR", Write("file", ""));
    EXPECT_EQ(Do(Text(Item("allowed/x"))), RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100033u);
    EXPECT_TRUE(Exists("allowed/x"));
}

TEST_F(DeleteTest, ACancelStopsBetweenEntries) {
    for (int i = 0; i < 50; ++i) Write("allowed/tree/f" + std::to_string(i), "1");
    // Progress is told when deleting begins: nothing is deleted by then.
    m_onProgress = [&] {
        if (m_progress.size() == 2) RQStore32(&m_stop, RQ_STOP_CANCEL);
    };
    EXPECT_EQ(Do(Text(Item("allowed/tree", true))), RQ_STATUS_CANCELLED);
    EXPECT_EQ(Names("allowed/tree").size(), 50u);
    EXPECT_EQ(Report().back(), "end ended early: 0 files and 0 folders deleted");
    RQStore32(&m_stop, RQ_STOP_NONE);
}

TEST_F(DeleteTest, ACancelBeforeItBeginsLeavesNothing) {
    Write("allowed/x", "1");
    RQStore32(&m_stop, RQ_STOP_CANCEL);
    EXPECT_EQ(Do(Text(Item("allowed/x"))), RQ_STATUS_CANCELLED);
    EXPECT_TRUE(Exists("allowed/x"));
    EXPECT_TRUE(kit::FindFiles(m_reportDir.Path(), ".txt").empty());
    RQStore32(&m_stop, RQ_STOP_NONE);
}

// Halfway: the journal names everything that is gone.
TEST_F(DeleteTest, TheJournalNamesWhatIsGoneWhenItWasStopped) {
    for (int i = 0; i < 2000; ++i) Write("allowed/tree/f" + std::to_string(i), "1");
    // Time passes in each report, so that the next one is due at once: one comes soon after the first
    // deletions.
    m_onProgress = [&] {
        if (m_progress.size() == 1) return;
        if (Names("allowed/tree").size() < 2000) return RQStore32(&m_stop, RQ_STOP_FINISH);
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
    };
    const std::uint32_t status = Do(Text(Item("allowed/tree", true)));
    EXPECT_EQ(status, RQ_STATUS_FINISHED);
    const Lines report = Report();
    EXPECT_EQ(RQLoad32(&m_stop), RQ_STOP_FINISH);
    RQStore32(&m_stop, RQ_STOP_NONE);
    const Lines left = Names("allowed/tree");
    ASSERT_LT(left.size(), 2000u);
    for (int i = 0; i < 2000; ++i) {
        const std::string name = "f" + std::to_string(i);
        const bool isGone = std::find(left.begin(), left.end(), name) == left.end();
        const bool isNamed =
            std::find(report.begin(), report.end(), Line("delete", "allowed/tree/" + name)) != report.end();
        EXPECT_TRUE(!isGone || isNamed) << name;
    }
    EXPECT_EQ(report.back().rfind("end ended early: ", 0), 0u);
}

TEST(DeletePaths, ThePlaceIsBelowTheDeepestAllowedFolder) {
    const std::string root = kit::RootName();
    const std::vector<std::string> folders{root + "/a", root + "/a/b/", root + "/c"};
    const auto place = [&](const std::string& path) { return PlaceOf(folders, SplitPath(root + path)); };
    ASSERT_TRUE(place("/a//b/x/"));
    EXPECT_EQ(place("/a//b/x/")->folder, root + "/a/b/");
    EXPECT_EQ(place("/a//b/x/")->below, Lines{"x"});
    EXPECT_EQ(place("/a/b")->folder, root + "/a");
    EXPECT_FALSE(place("/a"));
    EXPECT_FALSE(place("/ab"));
    EXPECT_FALSE(place("/"));
    EXPECT_EQ(place("/A/x").has_value(), !root.empty());  // Windows
}

}  // namespace
}  // namespace rq::del
