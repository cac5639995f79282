#include "kit/child.h"

#include <gtest/gtest.h>

#include "base/paths.h"
#include "kit/os.h"

namespace rq::kit {
namespace {

const std::filesystem::path kProgram = PathFromUtf8(RQ_CHILD_FIXTURE);

TEST(Child, GivesOutputErrorsAndExitCode) {
    Child child(kProgram, {"speak"});
    EXPECT_EQ(child.ExitCode(), 7);
    EXPECT_EQ(child.Output(), "out 输出\n");
    EXPECT_EQ(ReadBytes(child.OutputFile()), "out 输出" + std::string(LineEnd()));
    EXPECT_EQ(child.Errors(), "bad");
}

TEST(Child, PassesEnvironmentAndDirectory) {
    const TempDir dir;
    Child::Options options;
    options.environment = {{"RQ_KIT_CHILD", "值"}};
    options.directory = dir.Path();
    Child child(kProgram, {"surroundings"}, options);
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_EQ(child.Output(), "值");
    EXPECT_TRUE(std::filesystem::exists(dir.Path() / "here"));
}

TEST(Child, StandardInputIsEmpty) {
    Child child(kProgram, {"copy"});
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_EQ(child.Output(), "");
}

TEST(Child, IsKilledAndSaysSo) {
    Child child(kProgram, {"hang"});
    EXPECT_TRUE(child.IsRunning());
    child.Kill();
    EXPECT_EQ(child.ExitCode(), 1000 + static_cast<int>(platform::kKilledExitCode));
}

TEST(Child, ThrowsWhenThereIsNoProgram) {
    EXPECT_THROW(Child(RootName() + "/no/such/program", {}), std::runtime_error);
}

}  // namespace
}  // namespace rq::kit
