// The keys of a retry policy in the configuration file: [retry] for all types, [retry.tc] and the like for
// one. Part of config_file.cpp. Pure.
#pragma once

#include <toml++/toml.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/retry.h"

namespace rq::engine {

struct PolicyKey {
    std::string_view name, meaning;
    bool forTypesOnly = false;  // not in [retry]
    // Takes a node: what is wrong with it, or nothing.
    std::function<std::optional<std::string>(RetryPolicy&, const toml::node&)> take;
    std::function<std::string(const RetryPolicy&)> show;
};

const std::vector<PolicyKey>& PolicyKeys();

// "tc", or "20" for a type without a code; and back.
std::string PolicyName(std::int32_t type);
std::optional<std::int32_t> TypeOfPolicy(std::string_view name);

// The tables of single types, each with what differs from the standard.
std::string PolicyTables(const RetryRules& rules);

}  // namespace rq::engine
