// The fields of a submission that say when a task may run, what it takes of the node, and which key its
// client gave it (docs/api.md). Pure; any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "engine/api_request.h"

namespace rq::engine {

// "+90s", "+15m", "+2h", "+7d" from now, or an absolute time in UTC as "2025-01-31T10:00:00Z", with up to six
// digits of a second. Nothing for what is neither, or further than ten years away.
std::optional<std::int64_t> ParseTime(std::string_view text, std::int64_t now_us);

// Whether this is one of them.
bool IsRunField(std::string_view name);
// Takes the value of one of them: what is wrong with it, or nothing. Volumes stay as they are given.
std::optional<FieldError> TakeRunField(const std::string& name, const nlohmann::json& value,
                                       std::int64_t now_us, NewTask& task);
// What is wrong between fields that are right by themselves.
std::optional<FieldError> CheckRunFields(const NewTask& task, bool hasAction);

// A priority, which is also what an order gives.
std::optional<std::int32_t> PriorityOf(const nlohmann::json& value);
inline constexpr const char* kPriorityWanted = "must be a whole number from 0 to 100; higher goes first";

}  // namespace rq::engine
