// What a check is asked to do. Plain data, copied freely; goes to the checking process as JSON.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/result.h"

namespace rq::plugincheck {

struct CheckOptions {
    std::string library;               // absolute path, UTF-8
    std::optional<std::int32_t> type;  // worker type; the first one that the plug-in names when not given
    std::optional<std::string> task;   // task text; without one nothing is performed
    std::uint64_t seed = 0;            // of every random moment
    std::uint32_t tasks = 1000;        // in a row, at most
    std::uint32_t time_s = 60;         // after which no further task is begun
    std::uint32_t patience_s = 20;     // how long a call may stay away
    std::int32_t patrol_s = 60;        // progress patrol's time-out
};

std::string ToJson(const CheckOptions& options);
Result<CheckOptions> OptionsFromJson(const std::string& json);

}  // namespace rq::plugincheck
