#include <gtest/gtest.h>

#include "kit/temp_dir.h"
#include "plugin_common/file.h"
#include "plugin_common/win_text.h"

namespace rq::task {
namespace {

TEST(FileOnWindows, RefusesDevices) {
    InputFile file;
    EXPECT_NE(file.Open("\\\\.\\NUL"), 0u);
    EXPECT_NE(file.Open("NUL"), 0u);
}

TEST(FileOnWindows, ReadsWhatOthersWriteAndDelete) {
    const kit::TempDir dir;
    const auto path = dir.Write("f", "abc");
    InputFile file;
    ASSERT_EQ(file.Open(dir.Utf8("f")), 0u);
    const HANDLE writer = ::CreateFileW(path.c_str(), GENERIC_WRITE | DELETE,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                        OPEN_EXISTING, 0, nullptr);
    EXPECT_NE(writer, INVALID_HANDLE_VALUE);
    ::CloseHandle(writer);
}

TEST(FileOnWindows, ReadsFromPathsLongerThanTheClassicLimit) {
    const kit::TempDir dir;
    std::string name = "深";
    while (name.size() < 400) name += "/" + std::string(40, 'd');
    std::filesystem::path folder(NativePath(dir.Utf8(name)));
    std::error_code ignored;
    for (std::size_t at = 0; at != std::string::npos; at = name.find('/', at + 1))
        ::CreateDirectoryW(NativePath(dir.Utf8(name.substr(0, at == 0 ? name.find('/') : at))).c_str(),
                           nullptr);
    ::CreateDirectoryW(folder.c_str(), nullptr);
    const HANDLE made =
        ::CreateFileW((folder.native() + L"\\f").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    ASSERT_NE(made, INVALID_HANDLE_VALUE);
    ::CloseHandle(made);
    InputFile file;
    EXPECT_EQ(file.Open(dir.Utf8(name) + "/f"), 0u);
}

TEST(FilePathsOnWindows, AbsoluteOnesHaveADriveOrAServer) {
    EXPECT_TRUE(IsAbsolutePath("C:\\a"));
    EXPECT_TRUE(IsAbsolutePath("z:/a"));
    EXPECT_TRUE(IsAbsolutePath("\\\\server\\share"));
    EXPECT_TRUE(IsAbsolutePath("//server/share"));
    for (const char* relative : {"C:a", "C:", "\\a", "/a", "a\\b", "1:\\a", " C:\\a", ""})
        EXPECT_FALSE(IsAbsolutePath(relative)) << relative;
}

TEST(FileOnWindows, OneThatIsNotSharedIsRefused) {
    const kit::TempDir dir;
    const auto path = dir.Write("f", "abc");
    const HANDLE holder = ::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(holder, INVALID_HANDLE_VALUE);
    InputFile file;
    EXPECT_EQ(file.Open(dir.Utf8("f")), static_cast<std::uint32_t>(ERROR_SHARING_VIOLATION));
    ::CloseHandle(holder);
    EXPECT_EQ(file.Open(dir.Utf8("f")), 0u);
}

std::string Long(char c) {
    return std::string(300, c);
}

TEST(NativePathOfPluginsOnWindows, ShortPathsStayAsTheyAre) {
    EXPECT_EQ(NativePath("C:/a/../b"), L"C:\\a\\..\\b");
    EXPECT_EQ(NativePath("b/./c"), L"b\\.\\c");
    EXPECT_EQ(NativePath("//server/share/f"), L"\\\\server\\share\\f");
    EXPECT_EQ(NativePath("NUL"), L"NUL");
    EXPECT_EQ(NativePath(""), L"");
}

TEST(NativePathOfPluginsOnWindows, LongPathsGetThePrefixOfTheirKind) {
    EXPECT_EQ(NativePath("C:/" + Long('d') + "/f"), L"\\\\?\\C:\\" + WideOf(Long('d')) + L"\\f");
    EXPECT_EQ(NativePath("//server/share/" + Long('d')), L"\\\\?\\UNC\\server\\share\\" + WideOf(Long('d')));
    // Nothing is taken out behind the prefix, so it is done before.
    EXPECT_EQ(NativePath("C:/a/../b/./" + Long('d')), L"\\\\?\\C:\\b\\" + WideOf(Long('d')));
    for (const std::string prefix : {"\\\\?\\C:\\", "\\\\.\\C:\\"})
        EXPECT_EQ(NativePath(prefix + Long('d')), WideOf(prefix + Long('d')));
}

TEST(NativePathOfPluginsOnWindows, WhatCountsIsTheFullPath) {
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
}  // namespace rq::task
