#include "base/remove_tree.h"

#include <gtest/gtest.h>

#include <fstream>

#include "kit/temp_dir.h"

namespace rq {
namespace {

TEST(RemoveTree, TakesFoldersAndFilesOfAllDepths) {
    const kit::TempDir dir;
    dir.Write("tree/a/b/c/文件.txt", "x");
    dir.Write("tree/empty", "");
    std::filesystem::create_directories(dir.Path() / "tree" / "no files" / "here");
    dir.Write("beside", "stays");
    RemoveTree(dir.Path() / "tree");
    EXPECT_FALSE(std::filesystem::exists(dir.Path() / "tree"));
    EXPECT_TRUE(std::filesystem::exists(dir.Path() / "beside"));
    RemoveTree(dir.Path() / "tree");  // nothing there
}

TEST(RemoveTree, ComesBackThoughAFileIsOpen) {
    const kit::TempDir dir;
    std::ofstream open(dir.Write("tree/open", ""), std::ios::app);
    dir.Write("tree/other", "x");
    RemoveTree(dir.Path() / "tree");
    EXPECT_FALSE(std::filesystem::exists(dir.Path() / "tree" / "other"));
}

TEST(RemoveTree, DoesNotFollowLinks) {
    const kit::TempDir dir;
    dir.Write("kept/file", "x");
    std::filesystem::create_directory(dir.Path() / "tree");
    std::error_code refused;
    std::filesystem::create_directory_symlink(dir.Path() / "kept", dir.Path() / "tree" / "link", refused);
    if (refused) GTEST_SKIP() << "this system makes no links here: " << refused.message();
    RemoveTree(dir.Path() / "tree");
    EXPECT_FALSE(std::filesystem::exists(dir.Path() / "tree"));
    EXPECT_TRUE(std::filesystem::exists(dir.Path() / "kept" / "file"));
}

}  // namespace
}  // namespace rq
