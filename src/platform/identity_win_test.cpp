#include <gtest/gtest.h>

#include "kit/temp_dir.h"
#include "platform/identity.h"

namespace rq::platform {
namespace {

TEST(IdentityOnWindows, DataFolder) {
    const kit::ScopedEnvironment data("LOCALAPPDATA", "C:\\users\\家\\Local\\");
    EXPECT_EQ(DefaultDataFolder(), "C:\\users\\家\\Local\\RQWorker");
    const kit::ScopedEnvironment root("LOCALAPPDATA", "D:\\");
    EXPECT_EQ(DefaultDataFolder(), "D:\\RQWorker");
    const kit::ScopedEnvironment none("LOCALAPPDATA", std::nullopt);
    EXPECT_TRUE(DefaultDataFolder().ends_with("\\RQWorker"));
}

}  // namespace
}  // namespace rq::platform
