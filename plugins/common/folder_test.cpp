#include "plugin_common/folder.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "base/paths.h"
#include "kit/os.h"
#include "kit/temp_dir.h"

namespace rq::task {
namespace {

namespace fs = std::filesystem;

TEST(Folder, ListsInTheOrderOfTheNamesBytes) {
    const kit::TempDir dir;
    for (const char* name : {"b", "a.txt", "中文", "B", "a", "Z  z", "sub/inner"}) dir.Write(name, "x");
    std::vector<FolderEntry> entries = {{"old", EntryKind::kOther}};
    ASSERT_EQ(ListFolder(dir.Utf8(), entries), 0u);
    std::vector<std::string> names;
    for (const FolderEntry& entry : entries) {
        names.push_back(entry.name);
        EXPECT_EQ(entry.kind, entry.name == "sub" ? EntryKind::kFolder : EntryKind::kFile) << entry.name;
    }
    // Windows holds "b" and "B" for one name.
    std::vector<std::string> wanted = {"B", "Z  z", "a", "a.txt", "b", "sub", "中文"};
    if (names.size() + 1 == wanted.size()) wanted.erase(wanted.begin());
    EXPECT_EQ(names, wanted);
    fs::create_directory(dir.Path() / "empty");
    EXPECT_EQ(ListFolder(dir.Utf8("empty"), entries), 0u);
    EXPECT_TRUE(entries.empty());
}

TEST(Folder, AListCanBeEnded) {
    const kit::TempDir dir;
    for (const char* name : {"a", "b", "c", "d", "e"}) dir.Write(name, "x");
    std::vector<FolderEntry> entries;
    int asked = 0;
    EXPECT_EQ(ListFolder(dir.Utf8(), entries, [&] { return ++asked < 4; }), 0u);
    EXPECT_EQ(asked, 4);
    EXPECT_LE(entries.size(), 3u);  // "." and ".." count
    EXPECT_EQ(ListFolder(dir.Utf8(), entries, [] { return true; }), 0u);
    EXPECT_EQ(entries.size(), 5u);
}

TEST(Folder, TellsLinks) {
    const kit::TempDir dir;
    dir.Write("sub/file", "x");
    std::error_code problem;
    fs::create_symlink("sub/file", dir.Path() / "to file", problem);
    if (problem == std::errc::function_not_supported) GTEST_SKIP() << "no links here";
    fs::create_directory_symlink("sub", dir.Path() / "to sub");
    std::vector<FolderEntry> entries;
    ASSERT_EQ(ListFolder(dir.Utf8(), entries), 0u);
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[1].kind, EntryKind::kLink);
    EXPECT_EQ(entries[2].kind, EntryKind::kLink);
    EXPECT_EQ(ListFolder(dir.Utf8("to sub"), entries), 0u);
    EXPECT_EQ(entries.size(), 1u);
    EXPECT_TRUE(IsFolder(dir.Utf8("to sub")));
    EXPECT_FALSE(IsFolder(dir.Utf8("to file")));
}

TEST(Folder, SaysWhyItCannotBeListed) {
    const kit::TempDir dir;
    std::vector<FolderEntry> entries;
    EXPECT_EQ(ListFolder(dir.Utf8("gone"), entries), static_cast<std::uint32_t>(kit::Codes().folderNotFound));
    dir.Write("file", "");
    EXPECT_NE(ListFolder(dir.Utf8("file"), entries), 0u);
    EXPECT_FALSE(IsFolder(dir.Utf8("file")));
    EXPECT_FALSE(IsFolder(dir.Utf8("gone")));
}

TEST(Folder, PutsPathsTogetherAndApart) {
    const std::string root = kit::RootName() + "/";
    EXPECT_EQ(PathBelow(root, "a"), root + "a");
    const std::string a = PathBelow(root + "a", "b");
    EXPECT_EQ(std::string(FolderPart(a)) + "b", a);
    EXPECT_EQ(FolderPart("name"), "");
    EXPECT_EQ(WithSlashes(WithSeparators("a/b")), "a/b");
}

}  // namespace
}  // namespace rq::task
