#include "engine/config_retry.h"

#include <charconv>
#include <limits>

#include "records/task_codes.h"

namespace rq::engine {

namespace {

constexpr std::int32_t kLargestType = 299;

std::optional<std::string> Whole(const toml::node& node, std::int64_t least, std::int64_t most,
                                 std::int64_t& value) {
    const auto read = node.is_integer() ? node.value<std::int64_t>() : std::nullopt;
    if (!read || *read < least || *read > most)
        return "must be a whole number from " + std::to_string(least) + " to " + std::to_string(most);
    value = *read;
    return std::nullopt;
}

PolicyKey Count(std::string_view name, int RetryPolicy::*member, std::int64_t least, std::int64_t most,
                std::string_view meaning) {
    return {name, meaning, false,
            [=](RetryPolicy& policy, const toml::node& node) {
                std::int64_t value = 0;
                auto fault = Whole(node, least, most, value);
                if (!fault) policy.*member = static_cast<int>(value);
                return fault;
            },
            [=](const RetryPolicy& policy) { return std::to_string(policy.*member); }};
}

PolicyKey Seconds(std::string_view name, std::chrono::milliseconds RetryPolicy::*member,
                  std::string_view meaning) {
    constexpr std::int64_t kLongest_s = 7 * 24 * 3600;
    return {
        name, meaning, false,
        [=](RetryPolicy& policy, const toml::node& node) {
            std::int64_t value = 0;
            auto fault = Whole(node, 0, kLongest_s, value);
            if (!fault) policy.*member = std::chrono::seconds(value);
            return fault;
        },
        [=](const RetryPolicy& policy) {
            return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(policy.*member).count());
        }};
}

// A negative code is written as such or as its two's complement.
PolicyKey Codes(std::string_view name, std::vector<std::uint32_t> RetryPolicy::*member,
                std::string_view meaning) {
    return {name, meaning, false,
            [=](RetryPolicy& policy, const toml::node& node) -> std::optional<std::string> {
                std::vector<std::uint32_t> codes;
                const std::string wanted = "must be a list of codes, as [6, 0x84100014]";
                if (!node.is_array()) return wanted;
                for (const auto& entry : *node.as_array()) {
                    std::int64_t code = 0;
                    if (Whole(entry, std::numeric_limits<std::int32_t>::min(),
                              std::numeric_limits<std::uint32_t>::max(), code))
                        return wanted;
                    codes.push_back(static_cast<std::uint32_t>(code));
                }
                policy.*member = std::move(codes);
                return std::nullopt;
            },
            [=](const RetryPolicy& policy) {
                std::string text;
                for (const auto code : policy.*member)
                    text += (text.empty() ? "" : ", ") + std::to_string(code);
                return "[" + text + "]";
            }};
}

std::vector<PolicyKey> MakeKeys() {
    using P = RetryPolicy;
    PolicyKey untouched = {
        "only_untouched", "", true,
        [](RetryPolicy& policy, const toml::node& node) -> std::optional<std::string> {
            if (!node.is_boolean()) return "must be true or false";
            policy.onlyUntouched = *node.value<bool>();
            return std::nullopt;
        },
        [](const RetryPolicy& policy) -> std::string { return policy.onlyUntouched ? "true" : "false"; }};
    return {Count("attempts", &P::attempts, 1, 100,
                  "Attempts of a task at most, with the first, when its worker is lost."),
            Seconds("first_delay_s", &P::firstDelay, "Before the second attempt, in seconds."),
            Count("delay_factor", &P::delayFactor, 1, 100, "Each further one waits so many times as long,"),
            Seconds("longest_delay_s", &P::longestDelay, "and at most this long."),
            Codes("error_codes", &P::errorCodes,
                  "Error codes of a final status 4 after which there is another attempt,"),
            Codes("detail_codes", &P::detailCodes, "and the same of the processing library's own codes."),
            Count("stop_after", &P::stopAfter, 0, 1'000'000,
                  "So many failures of a type in a row stop the type; 0: never."),
            Seconds("stop_for_s", &P::stopFor, "Then one task is tried after this long."),
            std::move(untouched)};
}

}  // namespace

const std::vector<PolicyKey>& PolicyKeys() {
    static const std::vector<PolicyKey> keys = MakeKeys();
    return keys;
}

std::string PolicyName(std::int32_t type) {
    const auto code = CodeOfTaskType(type);
    return code.empty() ? std::to_string(type) : std::string(code);
}

std::optional<std::int32_t> TypeOfPolicy(std::string_view name) {
    if (const auto type = TypeOfTaskCode(name)) return type;
    std::int32_t type = -1;
    const auto [end, code] = std::from_chars(name.data(), name.data() + name.size(), type);
    const bool whole = code == std::errc() && end == name.data() + name.size();
    return whole && type >= 0 && type <= kLargestType ? std::optional(type) : std::nullopt;
}

std::string PolicyTables(const RetryRules& rules) {
    std::string text;
    for (const auto& [type, policy] : rules.byType) {
        text += "\n[retry." + PolicyName(type) + "]\n";
        if (policy.onlyUntouched)
            text +=
                "# Another attempt only when the worker of the last one never connected: its work is not "
                "done twice.\n";
        for (const auto& key : PolicyKeys()) {
            const std::string shown = key.show(policy);
            // Of single types alone: a type that has none in the file may have it by default.
            if (key.name == std::string_view("only_untouched") || shown != key.show(rules.standard))
                text += std::string(key.name) + " = " + shown + "\n";
        }
    }
    return text;
}

}  // namespace rq::engine
