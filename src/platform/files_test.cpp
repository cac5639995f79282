#include "platform/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>

#include "kit/files.h"
#include "kit/temp_dir.h"

namespace rq::platform {
namespace {

using kit::TempDir;

unsigned ModeOf(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? static_cast<unsigned>(info.st_mode & 0777) : 0;
}

TEST(Files, ThisProgramsOwnPath) {
    EXPECT_EQ(std::filesystem::path(ModuleFileName()).filename(), "test_platform");
    EXPECT_EQ(ModuleFileName().front(), '/');
}

TEST(Files, CurrentDirectory) {
    const TempDir dir;
    const kit::ScopedDirectory back(dir.Path());
    EXPECT_EQ(std::filesystem::path(CurrentDirectory()), std::filesystem::canonical(dir.Path()));
    EXPECT_TRUE(ChangeCurrentDirectory("/"));
    EXPECT_EQ(CurrentDirectory(), "/");
    OsError error;
    EXPECT_FALSE(ChangeCurrentDirectory(dir.Utf8("没有"), &error));
    EXPECT_EQ(error.code, ENOENT);
    EXPECT_NE(error.message.find("没有: No such file or directory"), std::string::npos) << error.message;
}

TEST(Files, OpenedFilesStayOutOfChildren) {
    const TempDir dir;
    std::FILE* file = OpenFile(dir.Utf8("日志.txt"), "w");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(::fcntl(::fileno(file), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
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
    EXPECT_EQ(error.code, ENOENT);
    EXPECT_FALSE(ReadWholeFile(dir.Utf8(), &error));
    EXPECT_EQ(error.code, EISDIR);
}

TEST(Files, ReadsFilesThatDoNotTellTheirSize) {
    const auto text = ReadWholeFile("/proc/self/status");
    ASSERT_TRUE(text);
    EXPECT_NE(text->find("Name:"), std::string::npos);
}

TEST(Files, APrivateFileIsNewAndItsOwnersAlone) {
    const TempDir dir;
    const std::string path = dir.Utf8("task");
    EXPECT_TRUE(CreatePrivateFile(path, "secret"));
    EXPECT_EQ(ReadWholeFile(path), "secret");
    EXPECT_EQ(ModeOf(path), 0600u);
    OsError error;
    EXPECT_FALSE(CreatePrivateFile(path, "other", &error));
    EXPECT_EQ(error.code, EEXIST);
    EXPECT_EQ(ReadWholeFile(path), "secret");
}

TEST(Files, APrivateFolderWithItsParents) {
    const TempDir dir;
    EXPECT_TRUE(CreatePrivateFolder(dir.Utf8("a/二/c/")));
    EXPECT_EQ(ModeOf(dir.Utf8("a/二/c")), 0700u);
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
    EXPECT_TRUE(ReplaceFile(path, "one", false));
    EXPECT_TRUE(ReplaceFile(path, "two", false));
    EXPECT_EQ(ReadWholeFile(path), "two");
    // Nothing is left beside it.
    EXPECT_EQ(kit::FindFiles(dir.Path(), "").size(), 1u);
    OsError error;
    EXPECT_FALSE(ReplaceFile(dir.Utf8("no/folder"), "x", false, &error));
    EXPECT_EQ(error.code, ENOENT);
}

TEST(Files, APrivateFileStaysPrivateWhenReplaced) {
    const TempDir dir;
    const std::string path = dir.Utf8("token");
    ASSERT_TRUE(CreatePrivateFile(path, "one"));
    EXPECT_TRUE(ReplaceFile(path, "two", false));
    EXPECT_EQ(ModeOf(path), 0600u);
    EXPECT_TRUE(ReplaceFile(dir.Utf8("new"), "x", true));
    EXPECT_EQ(ModeOf(dir.Utf8("new")), 0600u);
}

TEST(Files, ALockIsRefusedToEverybodyElse) {
    const TempDir dir;
    const std::unique_ptr<FolderLock> first(TryLockFile(dir.Utf8("lock")));
    ASSERT_NE(first, nullptr);
    OsError error;
    EXPECT_EQ(TryLockFile(dir.Utf8("lock"), &error), nullptr);
    EXPECT_EQ(error.code, EWOULDBLOCK);
}

TEST(Files, ALockEndsWithItsHandle) {
    const TempDir dir;
    delete TryLockFile(dir.Utf8("lock"));
    const std::unique_ptr<FolderLock> again(TryLockFile(dir.Utf8("lock")));
    EXPECT_NE(again, nullptr);
}

}  // namespace
}  // namespace rq::platform
