#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "kit/temp_dir.h"
#include "plugin_common/file.h"

namespace rq::task {
namespace {

TEST(FileOnLinux, RefusesPipesAndDevices) {
    const kit::TempDir dir;
    InputFile file;
    EXPECT_EQ(file.Open(dir.Utf8()), static_cast<std::uint32_t>(EISDIR));
    const std::string pipe = dir.Utf8("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(file.Open(pipe), static_cast<std::uint32_t>(EINVAL));  // at once, though nobody writes
    EXPECT_EQ(file.Open("/dev/zero"), static_cast<std::uint32_t>(EINVAL));
}

TEST(FilePathsOnLinux, AbsoluteOnesBeginWithASlash) {
    EXPECT_TRUE(IsAbsolutePath("/a"));
    EXPECT_FALSE(IsAbsolutePath("a/b"));
    EXPECT_FALSE(IsAbsolutePath(" /a"));
    EXPECT_FALSE(IsAbsolutePath(""));
}

}  // namespace
}  // namespace rq::task
