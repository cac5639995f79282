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

}  // namespace
}  // namespace rq::task
