#include "platform/console.h"

#include <gtest/gtest.h>

#include "kit/child.h"
#include "kit/os.h"
#include "kit/stage_copy.h"

namespace rq::platform {
namespace {

TEST(Console, AFileIsNoTerminal) {
    kit::Child child(kit::ProgramIn(RQ_FIXTURES, "rq_process_fixture"), {"console"});
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_GE(TerminalColumns(), 1u);
}

TEST(Console, KeepsTheOrderOfWhatTheStreamHasBuffered) {
    kit::Child child(kit::ProgramIn(RQ_FIXTURES, "rq_process_fixture"), {"console"});
    EXPECT_EQ(child.ExitCode(), 0);
    // With the line end that the streams write, too.
    EXPECT_EQ(kit::ReadBytes(child.OutputFile()), "buffered written" + std::string(kit::LineEnd()) + "after");
}

TEST(Console, PauseReturnsAtOnceWithoutATerminal) {
    if (IsTerminal(StandardStream::Input)) GTEST_SKIP() << "standard input is a terminal here";
    PauseForKey();
    EXPECT_FALSE(IsTerminal(StandardStream::Input));
}

}  // namespace
}  // namespace rq::platform
