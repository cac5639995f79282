// What a spool file may not be called there.
#include <gtest/gtest.h>

#include "link/spool_file.h"

namespace rq::link {
namespace {

TEST(SpoolFileOnWindows, AttemptsThatNameDevicesAreNone) {
    for (const char* device : {"con", "NUL", "com1"}) EXPECT_FALSE(IsSpoolAttempt(device)) << device;
    EXPECT_TRUE(IsSpoolAttempt("console"));
}

}  // namespace
}  // namespace rq::link
