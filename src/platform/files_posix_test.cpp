#include <gtest/gtest.h>

#include "platform/files.h"

namespace rq::platform {
namespace {

TEST(FilesOnLinux, ReadsFilesThatDoNotTellTheirSize) {
    const auto text = ReadWholeFile("/proc/self/status");
    ASSERT_TRUE(text);
    EXPECT_NE(text->find("Name:"), std::string::npos);
}

TEST(FilesOnLinux, AFileWithoutAnEndIsGivenUpAtTheLimit) {
    OsError error;
    EXPECT_FALSE(ReadWholeFile("/dev/zero", &error, 1'000'000));
    EXPECT_EQ(error.message, "read /dev/zero: File too large");
}

TEST(FilesOnLinux, ADeviceHasNoState) {
    EXPECT_FALSE(StateOfFile("/dev/null"));
}

}  // namespace
}  // namespace rq::platform
