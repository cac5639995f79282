// Links, rights and odd names on Linux.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "delete_test_folder.h"
#include "plugin_common/small_files.h"
#include "tree.h"

namespace rq::del {
namespace {

namespace fs = std::filesystem;

TEST_F(DeleteTest, NeverThroughALinkInThePath) {
    Write("other/x", "1");
    Write("allowed/real/x", "1");
    fs::create_symlink(At("other"), At("allowed/out"));
    fs::create_symlink(At("allowed/real"), At("allowed/in"));
    EXPECT_EQ(Do(Text(Item("allowed/out/x") + Item("allowed/in/x"))), RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100031u);
    EXPECT_EQ(Detail(), PathOf("allowed/out") + ": the path leads through a link; give the path without it");
    EXPECT_TRUE(Exists("other/x"));
    EXPECT_TRUE(Exists("allowed/real/x"));
}

TEST_F(DeleteTest, LinksAreDeletedThemselves) {
    Write("other/x", "1");
    fs::create_symlink(At("other"), At("allowed/link"));
    fs::create_directories(At("allowed/tree"));
    fs::create_symlink(At("other"), At("allowed/tree/folder"));
    fs::create_symlink(At("other/x"), At("allowed/tree/file"));
    fs::create_symlink("nowhere", At("allowed/tree/nowhere"));
    EXPECT_EQ(Do(Text(Item("allowed/link", true) + Item("allowed/tree", true))), RQ_STATUS_FINISHED)
        << Detail();
    EXPECT_TRUE(Names("allowed").empty());
    EXPECT_TRUE(Exists("other/x"));
}

TEST_F(DeleteTest, TheAllowedFolderMayBeALink) {
    Write("other/x", "1");
    fs::create_symlink(At("other"), At("link"));
    Allow({PathOf("link")});
    EXPECT_EQ(Do(Text(Item("link/x"))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_FALSE(Exists("other/x"));
}

// What is mounted at a folder, for a scope.
class Mount {
  public:
    Mount(const fs::path& what, const fs::path& at, const char* kind, unsigned long flags) : m_at(at) {
        fs::create_directories(at);
        m_isMounted = ::mount(what.c_str(), at.c_str(), kind, flags, nullptr) == 0;
    }
    ~Mount() {
        if (m_isMounted) ::umount2(m_at.c_str(), MNT_DETACH);
    }
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;
    bool IsMounted() const { return m_isMounted; }

  private:
    fs::path m_at;
    bool m_isMounted = false;
};

// Another file system, and another folder of the same: below the item, and in the path to it.
TEST_F(DeleteTest, NeverIntoWhatIsMounted) {
    Write("other/sub/x", "1");
    Write("allowed/tree/y", "1");
    const Mount memory("tmpfs", At("allowed/tree/memory"), "tmpfs", 0);
    const Mount folder(At("other"), At("allowed/tree/bound"), nullptr, MS_BIND);
    if (!memory.IsMounted() || !folder.IsMounted()) GTEST_SKIP() << "nothing may be mounted here";
    Write("allowed/tree/memory/z/x", "1");
    for (const char* name : {"memory", "bound"}) {
        const std::string mounted = std::string("allowed/tree/") + name;
        for (const std::string& item : {mounted, mounted + (*name == 'm' ? "/z" : "/sub")}) {
            EXPECT_EQ(Do(Text(Item(item, true))), RQ_STATUS_ERROR) << item;
            EXPECT_EQ(Error(), 0x84100031u);
            EXPECT_EQ(Detail(), PathOf(mounted) + ": something is mounted there; allow that folder itself");
        }
    }
    EXPECT_EQ(Do(Text(Item("allowed/tree", true))), RQ_STATUS_ERROR);
    EXPECT_EQ(Names("allowed/tree"), (std::vector<std::string>{"bound", "memory"}));
    EXPECT_TRUE(Exists("other/sub/x"));
    EXPECT_TRUE(Exists("allowed/tree/memory/z/x"));
    // Without all that is in it a mount is no empty folder either.
    fs::remove_all(At("other/sub"));
    EXPECT_EQ(Do(Text(Item("allowed/tree/bound"))), RQ_STATUS_ERROR);
    EXPECT_TRUE(Exists("allowed/tree/bound"));
    // A mount that is allowed itself is one to delete in.
    Allow({PathOf("allowed/tree/memory")});
    EXPECT_EQ(Do(Text(Item("allowed/tree/memory/z", true))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_FALSE(Exists("allowed/tree/memory/z"));
}

// Between the announcement and the deletion the folder's name is given to a link that leads outside: what was
// opened is used, not the name.
TEST(DeleteTree, ANameThatBecomesALinkMeanwhileLeadsNowhere) {
    const kit::TempDir dir;
    dir.Write("allowed/tree/x", "1");
    dir.Write("other/x", "1");
    struct Swap final : TreeEvents {
        explicit Swap(const fs::path& root) : m_root(root) {}
        bool GoOn() override { return true; }
        bool Announce(const std::vector<TreeEntry>& batch) override {
            if (!batch[0].isFolder) {
                fs::rename(m_root / "allowed/tree", m_root / "moved");
                fs::create_symlink(m_root / "other", m_root / "allowed/tree");
            }
            return true;
        }
        void Done(const TreeEntry&, std::uint32_t) override {}
        void Left(const std::string&, std::int32_t, std::uint32_t, const std::string&) override {}
        void Absent(const std::string&) override {}
        fs::path m_root;
    } swap(dir.Path());
    WalkTree({dir.Utf8("allowed"), {"tree"}}, true, TreeWalk::kDelete, swap);
    EXPECT_TRUE(fs::exists(dir.Path() / "other/x"));
    EXPECT_FALSE(fs::exists(dir.Path() / "moved/x"));
}

TEST_F(DeleteTest, SpecialFilesAndOddNamesGo) {
    Write("allowed/tree/line\nend", "1");
    Write("allowed/tree/back\\slash", "1");
    ASSERT_EQ(::mkfifo(At("allowed/tree/pipe").c_str(), 0600), 0);
    EXPECT_EQ(Do(Text(Item("allowed/tree", true))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_FALSE(Exists("allowed/tree"));
    const auto report = Report();
    EXPECT_NE(std::find(report.begin(), report.end(), "delete " + PathOf("allowed/tree") + "/line\\nend"),
              report.end());
    EXPECT_NE(std::find(report.begin(), report.end(), "delete " + PathOf("allowed/tree") + "/back\\\\slash"),
              report.end());
}

TEST_F(DeleteTest, WhatTheSystemRefusesIsNamedAndTheRestGoes) {
    if (::geteuid() == 0) GTEST_SKIP() << "the administrator may delete anything";
    Write("allowed/locked/x", "1");
    Write("allowed/free", "1");
    fs::permissions(At("allowed/locked"), fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_EQ(Do(Text(Item("allowed/locked", true) + Item("allowed/free"))), RQ_STATUS_ERROR);
    fs::permissions(At("allowed/locked"), fs::perms::owner_all);
    EXPECT_EQ(Error(), 0x84100032u);
    EXPECT_EQ(m_info->detailErrorCode, static_cast<std::uint32_t>(EACCES));
    EXPECT_TRUE(Exists("allowed/locked/x"));
    EXPECT_FALSE(Exists("allowed/free"));
}

TEST_F(DeleteTest, FoldersThatAreNestedTooDeepStay) {
    fs::path deep = At("allowed/tree");
    for (std::size_t i = 0; i < kDeepest + 4; ++i) deep /= "d";
    fs::create_directories(deep);
    EXPECT_EQ(Do(Text(Item("allowed/tree", true))), RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100032u);
    EXPECT_NE(Detail().find(": folders are nested more than 256 deep"), std::string::npos) << Detail();
    EXPECT_TRUE(fs::exists(deep));
}

// What cannot be named in the journal is not deleted: each batch is written before it goes.
TEST_F(DeleteTest, AJournalThatCanBeWrittenNoFurtherEndsTheDeletion) {
    for (std::size_t i = 0; i < 3 * kBatch; ++i) Write("allowed/tree/" + std::to_string(i), "1");
    // The first batch has room there, the second has not.
    const std::size_t line_bytes =
        std::string("2025-01-31T10:00:00.000000Z delete \n").size() + PathOf("allowed/tree/1").size();
    {
        const task::SmallFiles limit(line_bytes * kBatch * 3 / 2);
        EXPECT_EQ(Do(Text(Item("allowed/tree", true))), RQ_STATUS_ERROR);
    }
    EXPECT_EQ(Error(), 0x84100033u);
    EXPECT_EQ(m_info->detailErrorCode, static_cast<std::uint32_t>(EFBIG));
    EXPECT_NE(Detail().find("; nothing more was deleted"), std::string::npos) << Detail();
    EXPECT_EQ(Names("allowed/tree").size(), 2 * kBatch);
    std::string journal;
    for (const fs::path& file : kit::FindFiles(m_reportDir.Path(), ".txt")) journal += kit::ReadText(file);
    for (std::size_t i = 0; i < 3 * kBatch; ++i) {
        const std::string name = "allowed/tree/" + std::to_string(i);
        if (!Exists(name)) {
            EXPECT_NE(journal.find("Z delete " + PathOf(name) + "\n"), std::string::npos) << name;
        }
    }
}

}  // namespace
}  // namespace rq::del
