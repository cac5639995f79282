#include <gtest/gtest.h>
#include <unistd.h>

#include "kit/temp_dir.h"
#include "platform/identity.h"

namespace rq::platform {
namespace {

TEST(IdentityOnLinux, DataFolder) {
    if (::geteuid() == 0) {
        EXPECT_EQ(DefaultDataFolder(), "/var/lib/rqworker");
        return;
    }
    const kit::ScopedEnvironment data("XDG_DATA_HOME", "/data/家/");
    EXPECT_EQ(DefaultDataFolder(), "/data/家/rqworker");
    const kit::ScopedEnvironment none("XDG_DATA_HOME", std::nullopt);
    const kit::ScopedEnvironment home("HOME", "/home/someone");
    EXPECT_EQ(DefaultDataFolder(), "/home/someone/.local/share/rqworker");
}

}  // namespace
}  // namespace rq::platform
