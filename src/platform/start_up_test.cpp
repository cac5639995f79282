#include "platform/start_up.h"

#include <gtest/gtest.h>

namespace rq::platform {
namespace {

TEST(StartUp, TheProgramHasAModuleAndMfcNeedsOne) {
    EXPECT_NE(ModuleHandle(), nullptr);
    EXPECT_TRUE(InitialiseMfc(ModuleHandle()));
    EXPECT_FALSE(InitialiseMfc(nullptr));
}

}  // namespace
}  // namespace rq::platform
