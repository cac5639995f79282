#include "engine/retry.h"

#include <algorithm>
#include <cstdio>

#include "records/engine_messages.h"

namespace rq::engine {

namespace {

bool Contains(const std::vector<std::uint32_t>& codes, std::uint32_t code) {
    return std::find(codes.begin(), codes.end(), code) != codes.end();
}

std::string Hex(std::uint32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(code));
    return text;
}

RetryDecision Decide(const RetryPolicy& policy, std::int64_t made, const std::string& what) {
    RetryDecision decision;
    decision.listed = true;
    decision.again = made < policy.attempts;
    if (!decision.again) {
        decision.rule = what + ", and " + std::to_string(made) + " of " + std::to_string(policy.attempts) +
                        " attempts were made";
        return decision;
    }
    decision.delay = DelayAfter(policy, made);
    decision.rule = what + ": attempt " + std::to_string(made + 1) + " of " +
                    std::to_string(policy.attempts) + " after " + DurationText(decision.delay);
    return decision;
}

RetryDecision Untouchable(const std::string& what) {
    RetryDecision decision;
    decision.listed = true;
    decision.rule = what + ", and a task of this type is not repeated once its worker has connected";
    return decision;
}

}  // namespace

RetryRules RetryRules::Standard() {
    RetryRules rules;
    RetryPolicy careful;
    careful.onlyUntouched = true;
    rules.byType[RQ_TASK_TRANSFER] = careful;
    rules.byType[RQ_TASK_DELETE] = careful;
    return rules;
}

RetryRules RetryRules::Never() {
    RetryRules rules;
    rules.standard.attempts = 1;
    rules.standard.stopAfter = 0;
    return rules;
}

const RetryPolicy& RetryRules::For(std::int32_t type) const {
    const auto found = byType.find(type);
    return found != byType.end() ? found->second : standard;
}

RetryDecision AfterLoss(const RetryPolicy& policy, std::int64_t made, bool connected) {
    if (policy.onlyUntouched && connected) return Untouchable("the worker was lost");
    return Decide(policy, made, "the worker was lost");
}

std::string ListedError(const RetryPolicy& policy, const FinalStatus& final) {
    if (Contains(policy.errorCodes, final.errorCode))
        return "error " + Hex(final.errorCode) + " may be repeated";
    if (Contains(policy.detailCodes, final.detailErrorCode))
        return "detail error " + Hex(final.detailErrorCode) + " may be repeated";
    return {};
}

RetryDecision AfterError(const RetryPolicy& policy, std::int64_t made, const FinalStatus& final) {
    const std::string what = ListedError(policy, final);
    if (what.empty()) return {};
    // A final status came over a connection.
    return policy.onlyUntouched ? Untouchable(what) : Decide(policy, made, what);
}

std::chrono::milliseconds DelayAfter(const RetryPolicy& policy, std::int64_t made) {
    auto delay = policy.firstDelay;
    for (std::int64_t i = 1; i < made && delay < policy.longestDelay; ++i)
        delay *= std::max(policy.delayFactor, 1);
    return std::min(delay, policy.longestDelay);
}

std::string DurationText(std::chrono::milliseconds duration) {
    const auto ms = duration.count();
    return ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms";
}

}  // namespace rq::engine
