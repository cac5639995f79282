#include "kit/child.h"

#include <gtest/gtest.h>

namespace rq::kit {
namespace {

// The shell is on every system that these tests run on.
const std::filesystem::path kShell = "/bin/sh";

TEST(Child, GivesOutputErrorsAndExitCode) {
    Child child(kShell, {"-c", "printf 'out 输出'; printf bad >&2; exit 7"});
    EXPECT_EQ(child.ExitCode(), 7);
    EXPECT_EQ(child.Output(), "out 输出");
    EXPECT_EQ(child.Errors(), "bad");
}

TEST(Child, PassesEnvironmentAndDirectory) {
    const TempDir dir;
    Child::Options options;
    options.environment = {{"RQ_KIT_CHILD", "值"}};
    options.directory = dir.Path();
    Child child(kShell, {"-c", "printf '%s' \"$RQ_KIT_CHILD\"; : > here"}, options);
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_EQ(child.Output(), "值");
    EXPECT_TRUE(std::filesystem::exists(dir.Path() / "here"));
}

TEST(Child, StandardInputIsEmpty) {
    Child child(kShell, {"-c", "cat"});
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_EQ(child.Output(), "");
}

TEST(Child, IsKilledAndSaysSo) {
    Child child(kShell, {"-c", "sleep 1000"});
    EXPECT_TRUE(child.IsRunning());
    child.Kill();
    EXPECT_EQ(child.ExitCode(), 1009);
}

TEST(Child, ThrowsWhenThereIsNoProgram) {
    EXPECT_THROW(Child("/no/such/program", {}), std::runtime_error);
}

}  // namespace
}  // namespace rq::kit
