#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "kit/files.h"
#include "kit/temp_dir.h"
#include "platform/files.h"
#include "platform/win_api.h"

namespace rq::platform {
namespace {

using kit::TempDir;

TEST(FilesOnWindows, BothSeparators) {
    const TempDir dir;
    EXPECT_TRUE(CreatePrivateFolder(dir.Utf8() + "/a\\b/c"));
    EXPECT_TRUE(CreatePrivateFile(dir.Utf8() + "\\a/b\\c/file", "x"));
    EXPECT_EQ(ReadWholeFile(dir.Utf8() + "/a/b/c/file"), "x");
}

TEST(FilesOnWindows, TextStreamsWriteTheSystemsLineEnds) {
    const TempDir dir;
    std::FILE* file = OpenFile(dir.Utf8("text"), "w");
    ASSERT_NE(file, nullptr);
    std::fputs("one\n", file);
    std::fclose(file);
    EXPECT_EQ(ReadWholeFile(dir.Utf8("text")), "one\r\n");
}

// Somebody who shares reading only, as a virus scanner does.
WinHandle HoldForReading(const std::string& path, DWORD sharing) {
    return WinHandle(::CreateFileW(NativePath(path).c_str(), GENERIC_READ, sharing, nullptr, OPEN_EXISTING,
                                   FILE_ATTRIBUTE_NORMAL, nullptr));
}

std::ptrdiff_t CountIn(const TempDir& dir) {
    return std::distance(std::filesystem::directory_iterator(dir.Path()), {});
}

TEST(FilesOnWindows, AFileThatSomebodyLetsGoOfSoonIsReplaced) {
    const TempDir dir;
    const std::string path = dir.Utf8("actor.xml");
    ASSERT_TRUE(ReplaceWholeFile(path, "one", false));
    WinHandle reader = HoldForReading(path, FILE_SHARE_READ);
    ASSERT_TRUE(reader.Valid());
    std::thread holder([&] {
        ::Sleep(200);
        reader.Close();
    });
    EXPECT_TRUE(ReplaceWholeFile(path, "two", false));
    holder.join();
    EXPECT_EQ(ReadWholeFile(path), "two");
}

TEST(FilesOnWindows, AFileThatSomebodyKeepsStaysAsItIs) {
    const TempDir dir;
    const std::string path = dir.Utf8("actor.xml");
    ASSERT_TRUE(ReplaceWholeFile(path, "one", false));
    const WinHandle reader = HoldForReading(path, FILE_SHARE_READ);
    ASSERT_TRUE(reader.Valid());
    OsError error;
    EXPECT_FALSE(ReplaceWholeFile(path, "two", false, &error));
    EXPECT_TRUE(error.code == ERROR_SHARING_VIOLATION || error.code == ERROR_ACCESS_DENIED) << error.message;
    EXPECT_TRUE(error.message.starts_with("rename " + path + ".new-")) << error.message;
    EXPECT_EQ(ReadWholeFile(path), "one");
    EXPECT_EQ(CountIn(dir), 1);  // no temporary file
}

// Nobody will let go of it: nothing is waited for.
TEST(FilesOnWindows, AReadOnlyFileIsNotReplaced) {
    const TempDir dir;
    const std::string path = dir.Utf8("actor.xml");
    ASSERT_TRUE(ReplaceWholeFile(path, "one", false));
    ASSERT_TRUE(::SetFileAttributesW(NativePath(path).c_str(), FILE_ATTRIBUTE_READONLY));
    OsError error;
    EXPECT_FALSE(ReplaceWholeFile(path, "two", false, &error));
    EXPECT_EQ(error.code, ERROR_ACCESS_DENIED);
    EXPECT_EQ(ReadWholeFile(path), "one");
    EXPECT_EQ(CountIn(dir), 1);  // no temporary file
    ASSERT_TRUE(::SetFileAttributesW(NativePath(path).c_str(), FILE_ATTRIBUTE_NORMAL));
}

TEST(FilesOnWindows, AFileThatIsNotSharedCannotBeRead) {
    const TempDir dir;
    const std::string path = dir.Utf8("actor.xml");
    ASSERT_TRUE(ReplaceWholeFile(path, "one", false));
    const WinHandle holder = HoldForReading(path, 0);
    ASSERT_TRUE(holder.Valid());
    OsError error;
    EXPECT_FALSE(ReadWholeFile(path, &error));
    EXPECT_EQ(error.code, ERROR_SHARING_VIOLATION);
    EXPECT_EQ(OpenFile(path, "rb"), nullptr);
}

std::string Long(char c) {
    return std::string(300, c);
}

TEST(NativePathOnWindows, ShortPathsStayAsTheyAre) {
    EXPECT_EQ(NativePath("C:/a/../b"), L"C:\\a\\..\\b");
    EXPECT_EQ(NativePath("b/./c"), L"b\\.\\c");
    EXPECT_EQ(NativePath("//server/share/f"), L"\\\\server\\share\\f");
    EXPECT_EQ(NativePath("NUL"), L"NUL");
    EXPECT_EQ(NativePath(""), L"");
}

TEST(NativePathOnWindows, LongPathsGetThePrefixOfTheirKind) {
    EXPECT_EQ(NativePath("C:/" + Long('d') + "/f"), L"\\\\?\\C:\\" + WideOf(Long('d')) + L"\\f");
    EXPECT_EQ(NativePath("//server/share/" + Long('d')), L"\\\\?\\UNC\\server\\share\\" + WideOf(Long('d')));
    // Nothing is taken out behind the prefix, so it is done before.
    EXPECT_EQ(NativePath("C:/a/../b/./" + Long('d')), L"\\\\?\\C:\\b\\" + WideOf(Long('d')));
    for (const std::string prefix : {"\\\\?\\C:\\", "\\\\.\\C:\\"})
        EXPECT_EQ(NativePath(prefix + Long('d')), WideOf(prefix + Long('d')));
}

TEST(NativePathOnWindows, WhatCountsIsTheFullPath) {
    // Long as it is written, short as it is meant.
    std::string around;
    for (int i = 0; i < 60; ++i) around += "a/../";
    EXPECT_FALSE(NativePath("C:/" + around + "f").starts_with(L"\\\\?\\"));
    // Short as it is written.
    const kit::TempDir dir;
    const auto deep = dir.Path() / std::string(150, 'd');
    std::filesystem::create_directory(deep);
    const kit::ScopedDirectory back(deep);
    const std::string name(100, 'f');
    EXPECT_EQ(NativePath(name), L"\\\\?\\" + (std::filesystem::current_path() / name).native());
    EXPECT_EQ(NativePath("f"), L"f");
}

}  // namespace
}  // namespace rq::platform
