#include "platform/start_up.h"

#include <gtest/gtest.h>

#include "platform/files.h"

namespace rq::platform {
namespace {

TEST(StartUp, TheProgramHasAModuleAndMfcNeedsOne) {
    EXPECT_NE(ModuleHandle(), nullptr);
    EXPECT_TRUE(InitialiseMfc(ModuleHandle()));
    EXPECT_FALSE(InitialiseMfc(nullptr));
}

TEST(StartUp, TheLongFileNameIsTheSameWhereBothHaveRoom) {
    EXPECT_FALSE(LongModuleFileName().empty());
    EXPECT_EQ(LongModuleFileName(), ModuleFileName());
}

}  // namespace
}  // namespace rq::platform
