#include "platform/end_request.h"

#include <gtest/gtest.h>

#include <atomic>

#include "kit/files.h"
#include "platform/process.h"

namespace rq::platform {
namespace {

TEST(EndRequests, NobodyIsAskedWhoDoesNotListen) {
    EXPECT_FALSE(AskToEnd(CurrentProcessId()));
}

TEST(EndRequests, AListenerIsAskedAgainAndAgainUntilItIsGone) {
    std::atomic<int> asked{0};
    auto listener = EndRequests::Listen([&] { ++asked; });
    ASSERT_NE(listener, nullptr);
    if (!AskToEnd(CurrentProcessId())) GTEST_SKIP() << "signals are used here";
    EXPECT_TRUE(kit::WaitUntil([&] { return asked == 1; }));
    EXPECT_TRUE(AskToEnd(CurrentProcessId()));
    EXPECT_TRUE(kit::WaitUntil([&] { return asked == 2; }));
    listener.reset();
    EXPECT_FALSE(AskToEnd(CurrentProcessId()));
}

}  // namespace
}  // namespace rq::platform
