// Whether a task gets another attempt, and after how long: a policy for each task type. Pure; any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "engine/store_types.h"

namespace rq::engine {

struct RetryPolicy {
    int attempts = 3;  // at most, with the first
    // Before the second attempt; each further one waits `delayFactor` times as long.
    std::chrono::milliseconds firstDelay = std::chrono::seconds(10);
    int delayFactor = 3;
    std::chrono::milliseconds longestDelay = std::chrono::minutes(10);
    // A task whose work cannot be done twice (a move, a deletion): only an attempt whose worker never
    // connected is followed by another, since nothing can have been done in it.
    bool onlyUntouched = false;
    // A final status 4 is followed by another attempt when its error code or its detail code is listed here.
    std::vector<std::uint32_t> errorCodes;
    std::vector<std::uint32_t> detailCodes;
    // So many failures of the type without a finished task between them stop it; 0: never.
    int stopAfter = 5;
    // Then one task is tried after this long.
    std::chrono::milliseconds stopFor = std::chrono::minutes(5);
};

struct RetryRules {
    RetryPolicy standard;
    std::map<std::int32_t, RetryPolicy> byType;

    // The standard policy, with transfers (which may be moves) and deletions repeated only while untouched.
    static RetryRules Standard();
    // Every task has one attempt, and no type is ever stopped.
    static RetryRules Never();
    const RetryPolicy& For(std::int32_t type) const;
};

struct RetryDecision {
    bool again = false;
    bool listed = false;  // the failure is one that the policy speaks of
    std::chrono::milliseconds delay{0};
    std::string rule;  // what decided, in words; empty when the policy does not speak of this failure
};

// `made` is the number of attempts so far. `connected`: the worker of the last one had a session.
RetryDecision AfterLoss(const RetryPolicy& policy, std::int64_t made, bool connected);
// What a policy lists of a final status 4, in words; empty: nothing.
std::string ListedError(const RetryPolicy& policy, const FinalStatus& final);
RetryDecision AfterError(const RetryPolicy& policy, std::int64_t made, const FinalStatus& final);

// Before attempt number `made` + 1.
std::chrono::milliseconds DelayAfter(const RetryPolicy& policy, std::int64_t made);

// "10 s", "250 ms"
std::string DurationText(std::chrono::milliseconds duration);

}  // namespace rq::engine
