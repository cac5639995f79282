// The tables of the configuration file whose names are the operator's: [types.tc] and the like, and
// [volumes.NAME]. Part of config_file.cpp. Pure.
#pragma once

#include <toml++/toml.h>

#include <optional>
#include <string>
#include <string_view>

#include "engine/limits.h"

namespace rq::engine {

// What is wrong, and the key that it is wrong with.
struct KeyFault {
    toml::key key;
    std::string problem;
};

// Whether these two read the table.
bool IsLimitsTable(std::string_view name);
std::optional<KeyFault> ReadLimitsTable(std::string_view name, const toml::table& content,
                                        NodeLimits& limits);

// As they stand in the file; empty when nothing is set.
std::string LimitsTables(const NodeLimits& limits);

}  // namespace rq::engine
