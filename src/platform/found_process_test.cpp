#include "platform/found_process.h"

#include <gtest/gtest.h>

#include "base/paths.h"
#include "kit/files.h"
#include "kit/stage_copy.h"

namespace rq::platform {
namespace {

using std::chrono::milliseconds;

ProcessSpec Hanging() {
    ProcessSpec spec;
    spec.program = Utf8FromPath(kit::ProgramIn(RQ_FIXTURES, "rq_process_fixture"));
    spec.arguments = {"hang"};
    spec.tree = "rq-found-process-test-" + std::to_string(CurrentProcessId());
    return spec;
}

TEST(FoundProcessTest, AProcessIsFoundByItsMarkAndEnded) {
    const auto spec = Hanging();
    auto started = ChildProcess::Start(spec);
    ASSERT_NE(started, nullptr);
    const auto id = started->Id();
    const std::string mark = ProcessMark(id);
    ASSERT_FALSE(mark.empty());
    EXPECT_EQ(ProcessMark(id), mark);
    EXPECT_EQ(FindProcess(id, mark + "1"), nullptr) << "another one that has its id";
    EXPECT_EQ(LookForProcess(id, mark), Presence::There);
    EXPECT_EQ(LookForProcess(id, mark + "1"), Presence::Gone);
    started.reset();  // as if its starter had gone

    const auto found = FindProcess(id, mark, spec.tree);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->Id(), id);
    EXPECT_FALSE(found->Wait(milliseconds(50)));
    found->KillTree();
    const auto status = found->Wait(kit::kPatience);
    ASSERT_TRUE(status);
    EXPECT_TRUE(!status->isKnown || static_cast<std::uint32_t>(status->code) == kKilledExitCode);
    EXPECT_TRUE(found->Wait(milliseconds(0)));
    found->KillTree();
    EXPECT_EQ(ProcessMark(id), "");
    EXPECT_EQ(LookForProcess(id, mark), Presence::Gone);
    EXPECT_EQ(FindProcess(id, mark, spec.tree), nullptr);
}

TEST(FoundProcessTest, NoProcessHasNoMark) {
    EXPECT_EQ(ProcessMark(0x7FFFFFF0), "");
    EXPECT_EQ(LookForProcess(0x7FFFFFF0, "1"), Presence::Gone);
    EXPECT_EQ(LookForProcess(0x7FFFFFF0, ""), Presence::Gone);
    EXPECT_EQ(FindProcess(0x7FFFFFF0, "1"), nullptr);
}

// Whoever has its id may be it: that one is waited for, and left alone.
TEST(FoundProcessTest, WithoutAMarkOnlyItsEndIsSure) {
    auto spec = Hanging();
    spec.tree.clear();
    auto started = ChildProcess::Start(spec);
    ASSERT_NE(started, nullptr);
    EXPECT_EQ(LookForProcess(started->Id(), ""), Presence::Unknown);
    const auto found = FindProcess(started->Id(), "");
    ASSERT_NE(found, nullptr);
    found->KillTree();
    found->RequestEnd();
    EXPECT_FALSE(found->Wait(milliseconds(200)));
    started->KillTree();
    EXPECT_TRUE(found->Wait(kit::kPatience));
}

}  // namespace
}  // namespace rq::platform
