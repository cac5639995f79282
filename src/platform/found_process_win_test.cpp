#include "platform/found_process.h"

#include <gtest/gtest.h>

#include "base/paths.h"
#include "kit/files.h"
#include "kit/stage_copy.h"
#include "platform/process_tree.h"

namespace rq::platform {
namespace {

// The job is the right one, whatever its process cannot be told by.
TEST(FoundProcessOnWindows, AnUnclearOneIsEndedByItsJob) {
    ProcessSpec spec;
    spec.program = Utf8FromPath(kit::ProgramIn(RQ_FIXTURES, "rq_process_fixture"));
    spec.arguments = {"hang"};
    spec.tree = "rq-found-process-win-test-" + std::to_string(CurrentProcessId());
    auto started = ChildProcess::Start(spec);
    ASSERT_NE(started, nullptr);
    EXPECT_EQ(FindTree(spec.tree), std::vector{started->Id()});
    EXPECT_EQ(FindTree(spec.tree + "1"), std::nullopt);
    const auto found = FindProcess(started->Id(), "", spec.tree);
    started.reset();
    ASSERT_NE(found, nullptr);
    EXPECT_FALSE(found->Wait(std::chrono::milliseconds(0)));
    found->KillTree();
    EXPECT_TRUE(found->Wait(kit::kPatience));
}

}  // namespace
}  // namespace rq::platform
