#include "platform/files.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>

#include "base/paths.h"
#include "kit/files.h"
#include "kit/os.h"
#include "kit/sparse_file.h"
#include "kit/temp_dir.h"

namespace rq::platform {
namespace {

using kit::TempDir;

TEST(Files, ThisProgramsOwnPath) {
    EXPECT_EQ(PathFromUtf8(ModuleFileName()).stem(), "test_platform");
    EXPECT_TRUE(PathFromUtf8(ModuleFileName()).is_absolute());
}

TEST(Files, CurrentDirectory) {
    const TempDir dir;
    const kit::ScopedDirectory back(dir.Path());
    EXPECT_EQ(PathFromUtf8(CurrentDirectory()), std::filesystem::canonical(dir.Path()));
    const auto root = dir.Path().root_path();
    EXPECT_TRUE(ChangeCurrentDirectory(Utf8FromPath(root)));
    EXPECT_EQ(PathFromUtf8(CurrentDirectory()), root);
    OsError error;
    EXPECT_FALSE(ChangeCurrentDirectory(dir.Utf8("没有"), &error));
    EXPECT_EQ(error.code, kit::Codes().notFound);
    EXPECT_TRUE(error.message.ends_with("没有: " + kit::Words(error.code))) << error.message;
}

TEST(Files, OpenedFilesStayOutOfChildren) {
    const TempDir dir;
    std::FILE* file = OpenFile(dir.Utf8("日志.txt"), "w");
    ASSERT_NE(file, nullptr);
    EXPECT_FALSE(kit::IsInheritable(file));
    std::fclose(file);
    EXPECT_EQ(OpenFile(dir.Utf8("no/folder"), "w"), nullptr);
}

TEST(Files, ReadsWholeFiles) {
    const TempDir dir;
    std::string bytes(200000, 'x');
    bytes[7] = '\0';
    dir.Write("文件 1", bytes);
    EXPECT_EQ(ReadWholeFile(dir.Utf8("文件 1")), bytes);
    dir.Write("empty", "");
    EXPECT_EQ(ReadWholeFile(dir.Utf8("empty")), "");
    OsError error;
    EXPECT_FALSE(ReadWholeFile(dir.Utf8("missing"), &error));
    EXPECT_EQ(error.code, kit::Codes().notFound);
    EXPECT_FALSE(ReadWholeFile(dir.Utf8(), &error));
    EXPECT_EQ(error.code, kit::Codes().isFolder);
}

TEST(Files, ReadsNoMoreThanALimit) {
    const TempDir dir;
    dir.Write("x", std::string(100'000, 'x'));
    OsError error;
    EXPECT_EQ(ReadWholeFile(dir.Utf8("x"), &error, 100'000)->size(), 100'000u);
    EXPECT_EQ(error.code, 0);
    EXPECT_FALSE(ReadWholeFile(dir.Utf8("x"), &error, 99'999));
    EXPECT_EQ(error.message, "read " + dir.Utf8("x") + ": " + kit::Words(error.code));
    kit::MakeSparseFile(dir.Path() / "sparse", 1ull << 33);
    EXPECT_FALSE(ReadWholeFile(dir.Utf8("sparse"), &error, 1000));
    dir.Write("empty", "");
    EXPECT_EQ(ReadWholeFile(dir.Utf8("empty"), &error, 0), "");
}

TEST(Files, AStateTellsAChangeOfSizeAndOfTime) {
    const TempDir dir;
    const auto path = dir.Write("文件", "ab");
    const auto time = std::filesystem::last_write_time(path);
    std::filesystem::last_write_time(path, time);  // where whole seconds alone can be set
    const auto before = StateOfFile(dir.Utf8("文件"));
    ASSERT_TRUE(before);
    EXPECT_EQ(before->size_bytes, 2u);
    EXPECT_EQ(StateOfFile(dir.Utf8("文件")), before);
    std::filesystem::last_write_time(path, time + std::chrono::seconds(2));
    EXPECT_NE(StateOfFile(dir.Utf8("文件"))->changed, before->changed);
    dir.Write("文件", "abc");
    std::filesystem::last_write_time(path, time);
    EXPECT_EQ(StateOfFile(dir.Utf8("文件")), (FileState{before->changed, 3}));
    EXPECT_FALSE(StateOfFile(dir.Utf8("missing")));
    EXPECT_FALSE(StateOfFile(dir.Utf8()));
}

TEST(Files, StreamsOfEveryMode) {
    const TempDir dir;
    const auto write = [&](const char* mode, const char* text) {
        std::FILE* file = OpenFile(dir.Utf8("文"), mode);
        if (file == nullptr) return false;
        std::fputs(text, file);
        return std::fclose(file) == 0;
    };
    EXPECT_FALSE(write("rb", "x"));
    EXPECT_TRUE(write("wb", "one\n"));
    EXPECT_TRUE(write("ab", "two\n"));
    EXPECT_EQ(ReadWholeFile(dir.Utf8("文")), "one\ntwo\n");
    EXPECT_TRUE(write("r+b", "O"));
    EXPECT_EQ(ReadWholeFile(dir.Utf8("文")), "One\ntwo\n");
    EXPECT_TRUE(write("wb", ""));
    EXPECT_EQ(ReadWholeFile(dir.Utf8("文")), "");
}

TEST(Files, PathsLongerThanTheClassicLimit) {
    const TempDir dir;
    std::string folder = dir.Utf8("深");
    while (folder.size() < 400) folder += "/" + std::string(40, 'd');
    ASSERT_TRUE(CreatePrivateFolder(folder));
    EXPECT_TRUE(CreatePrivateFile(folder + "/file", "deep"));
    EXPECT_EQ(ReadWholeFile(folder + "/file"), "deep");
    EXPECT_TRUE(ReplaceWholeFile(folder + "/file", "deeper", false));
    EXPECT_EQ(ReadWholeFile(folder + "/file"), "deeper");
}

TEST(Files, APrivateFileIsNewAndItsOwnersAlone) {
    const TempDir dir;
    const std::string path = dir.Utf8("task");
    EXPECT_TRUE(CreatePrivateFile(path, "secret"));
    EXPECT_EQ(ReadWholeFile(path), "secret");
    EXPECT_TRUE(kit::IsOwnersAlone(PathFromUtf8(path)));
    OsError error;
    EXPECT_FALSE(CreatePrivateFile(path, "other", &error));
    EXPECT_EQ(error.code, kit::Codes().exists);
    EXPECT_EQ(ReadWholeFile(path), "secret");
}

TEST(Files, APrivateFolderWithItsParents) {
    const TempDir dir;
    EXPECT_TRUE(CreatePrivateFolder(dir.Utf8("a/二/c/")));
    EXPECT_TRUE(kit::IsOwnersAlone(dir.Path() / PathFromUtf8("a/二/c")));
    EXPECT_TRUE(kit::IsOwnersAlone(dir.Path() / "a"));
    EXPECT_TRUE(CreatePrivateFolder(dir.Utf8("a/二/c")));  // it is there
    dir.Write("file", "");
    OsError error;
    EXPECT_FALSE(CreatePrivateFolder(dir.Utf8("file/below"), &error));
    EXPECT_NE(error.code, 0);
}

TEST(Files, RelativePrivateFolder) {
    const TempDir dir;
    const kit::ScopedDirectory back(dir.Path());
    EXPECT_TRUE(CreatePrivateFolder("x/y"));
    EXPECT_TRUE(std::filesystem::is_directory(dir.Path() / "x" / "y"));
}

TEST(Files, ReplaceKeepsTheOldTextUntilTheNewOneIsComplete) {
    const TempDir dir;
    const std::string path = dir.Utf8("actor.xml");
    EXPECT_TRUE(ReplaceWholeFile(path, "one", false));
    EXPECT_TRUE(ReplaceWholeFile(path, "two", false));
    EXPECT_EQ(ReadWholeFile(path), "two");
    // Nothing is left beside it.
    EXPECT_EQ(kit::FindFiles(dir.Path(), "").size(), 1u);
    OsError error;
    EXPECT_FALSE(ReplaceWholeFile(dir.Utf8("no/folder"), "x", false, &error));
    EXPECT_EQ(error.code, kit::Codes().folderNotFound);
}

TEST(Files, APrivateFileStaysPrivateWhenReplaced) {
    const TempDir dir;
    const std::string path = dir.Utf8("token");
    ASSERT_TRUE(CreatePrivateFile(path, "one"));
    EXPECT_TRUE(ReplaceWholeFile(path, "two", false));
    EXPECT_TRUE(kit::IsOwnersAlone(PathFromUtf8(path)));
    EXPECT_TRUE(ReplaceWholeFile(dir.Utf8("new"), "x", true));
    EXPECT_TRUE(kit::IsOwnersAlone(dir.Path() / "new"));
}

TEST(Files, ALockIsRefusedToEverybodyElse) {
    const TempDir dir;
    const std::unique_ptr<FolderLock> first(TryLockFile(dir.Utf8("lock")));
    ASSERT_NE(first, nullptr);
    OsError error;
    EXPECT_EQ(TryLockFile(dir.Utf8("lock"), &error), nullptr);
    EXPECT_EQ(error.code, kit::Codes().locked);
}

TEST(Files, ALockEndsWithItsHandle) {
    const TempDir dir;
    delete TryLockFile(dir.Utf8("lock"));
    const std::unique_ptr<FolderLock> again(TryLockFile(dir.Utf8("lock")));
    EXPECT_NE(again, nullptr);
}

}  // namespace
}  // namespace rq::platform
