#include <gtest/gtest.h>

#include "platform/files.h"

namespace rq::platform {
namespace {

TEST(FilesOnLinux, ReadsFilesThatDoNotTellTheirSize) {
    const auto text = ReadWholeFile("/proc/self/status");
    ASSERT_TRUE(text);
    EXPECT_NE(text->find("Name:"), std::string::npos);
}

}  // namespace
}  // namespace rq::platform
