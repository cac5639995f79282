#include "engine/retry.h"

#include <gtest/gtest.h>

#include "records/engine_messages.h"

namespace rq::engine {
namespace {

using namespace std::chrono_literals;

FinalStatus Error(std::uint32_t code, std::uint32_t detail) {
    FinalStatus final;
    final.status = kTaskError;
    final.errorCode = code;
    final.detailErrorCode = detail;
    return final;
}

TEST(Retry, DelaysGrowToTheLongest) {
    RetryPolicy policy;
    policy.longestDelay = 60s;
    EXPECT_EQ(DelayAfter(policy, 1), 10s);
    EXPECT_EQ(DelayAfter(policy, 2), 30s);
    EXPECT_EQ(DelayAfter(policy, 3), 60s);
    EXPECT_EQ(DelayAfter(policy, 1'000'000), 60s);
    policy.delayFactor = 0;
    EXPECT_EQ(DelayAfter(policy, 5), 10s);
}

TEST(Retry, ALossIsRepeatedUntilTheAttemptsAreUsedUp) {
    const RetryPolicy policy;
    const auto first = AfterLoss(policy, 1, true);
    EXPECT_TRUE(first.again);
    EXPECT_EQ(first.delay, 10s);
    EXPECT_EQ(first.rule, "the worker was lost: attempt 2 of 3 after 10 s");
    EXPECT_TRUE(AfterLoss(policy, 2, true).again);
    const auto last = AfterLoss(policy, 3, true);
    EXPECT_FALSE(last.again);
    EXPECT_EQ(last.rule, "the worker was lost, and 3 of 3 attempts were made");
}

TEST(Retry, OnlyListedErrorsAreRepeated) {
    RetryPolicy policy;
    policy.errorCodes = {6};
    policy.detailCodes = {0x84100014};
    EXPECT_TRUE(AfterError(policy, 1, Error(6, 0)).again);
    EXPECT_TRUE(AfterError(policy, 1, Error(1, 0x84100014)).again);
    EXPECT_EQ(AfterError(policy, 1, Error(1, 0x84100014)).rule,
              "detail error 0x84100014 may be repeated: attempt 2 of 3 after 10 s");
    // The two lists are apart.
    const auto other = AfterError(policy, 1, Error(0x84100014, 6));
    EXPECT_FALSE(other.again);
    EXPECT_FALSE(other.listed);
    EXPECT_EQ(other.rule, "");
    EXPECT_FALSE(AfterError(policy, 3, Error(6, 0)).again);
    EXPECT_TRUE(AfterError(policy, 3, Error(6, 0)).listed);
}

TEST(Retry, TransfersAndDeletionsAreRepeatedOnlyWhenNothingCanHaveBeenDone) {
    RetryRules rules = RetryRules::Standard();
    for (const std::int32_t type : {RQ_TASK_TRANSFER, RQ_TASK_DELETE}) {
        RetryPolicy policy = rules.For(type);
        EXPECT_TRUE(AfterLoss(policy, 1, false).again) << type;
        EXPECT_FALSE(AfterLoss(policy, 1, true).again) << type;
        policy.errorCodes = {6};
        EXPECT_FALSE(AfterError(policy, 1, Error(6, 0)).again) << type;
        EXPECT_NE(AfterError(policy, 1, Error(6, 0)).rule.find("not repeated once its worker has connected"),
                  std::string::npos);
    }
    EXPECT_TRUE(AfterLoss(rules.For(RQ_TASK_TRANSCODE), 1, true).again);
}

TEST(Retry, NeverIsNever) {
    const RetryRules rules = RetryRules::Never();
    EXPECT_FALSE(AfterLoss(rules.For(RQ_TASK_TRANSCODE), 1, false).again);
    EXPECT_EQ(rules.For(RQ_TASK_DELETE).stopAfter, 0);
}

}  // namespace
}  // namespace rq::engine
