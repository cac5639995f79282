#include "engine/submission_fields.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <limits>
#include <nlohmann/json.hpp>

#include "base/text.h"

namespace rq::engine {

namespace {

using nlohmann::json;

constexpr std::int64_t kSecond_us = 1'000'000;
constexpr std::int64_t kFarthest_us = 3653LL * 24 * 3600 * kSecond_us;
constexpr std::int64_t kMostMemory_MiB = std::int64_t{1} << 40;
constexpr std::int64_t kMostCores = 1'000'000;
constexpr std::size_t kMostVolumes = 64;
constexpr std::size_t kLongestVolume_bytes = 4096;
constexpr std::size_t kLongestKey_bytes = 200;
constexpr std::string_view kFields[] = {"priority",   "not_before", "deadline", "deadline_action",
                                        "memory_mib", "cores",      "volumes",  "key"};

FieldError Bad(const std::string& field, const std::string& why) {
    return {"bad-field", field, field + ": " + why};
}

std::optional<std::int64_t> Digits(std::string_view text) {
    std::int64_t number = 0;
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool digits = std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (text.empty() || !digits || code != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

std::optional<std::int64_t> FromNow(std::string_view text, std::int64_t now_us) {
    if (text.empty()) return std::nullopt;
    const std::string_view units = "smhd";
    constexpr std::int64_t kSeconds[] = {1, 60, 3600, 86'400};
    const auto unit = units.find(text.back());
    const auto count = Digits(text.substr(0, text.size() - 1));
    if (unit == std::string_view::npos || !count || *count > kFarthest_us / kSecond_us / kSeconds[unit])
        return std::nullopt;
    return now_us + *count * kSeconds[unit] * kSecond_us;
}

// "2025-01-31T10:00:00Z" or with a fraction before the Z.
std::optional<std::int64_t> Absolute(std::string_view text) {
    constexpr std::string_view kForm = "dddd-dd-ddTdd:dd:dd";
    if (text.size() < kForm.size() + 1 || text.back() != 'Z') return std::nullopt;
    for (std::size_t i = 0; i < kForm.size(); ++i) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        if (kForm[i] == 'd' ? !isDigit : text[i] != kForm[i]) return std::nullopt;
    }
    const auto part = [&](std::size_t at, std::size_t length) { return *Digits(text.substr(at, length)); };
    using namespace std::chrono;
    const year_month_day day(year(static_cast<int>(part(0, 4))), month(static_cast<unsigned>(part(5, 2))),
                             std::chrono::day(static_cast<unsigned>(part(8, 2))));
    if (!day.ok() || part(11, 2) > 23 || part(14, 2) > 59 || part(17, 2) > 59) return std::nullopt;
    std::int64_t fraction_us = 0;
    if (std::string_view rest = text.substr(kForm.size(), text.size() - kForm.size() - 1); !rest.empty()) {
        const auto digits =
            rest.size() >= 2 && rest.size() <= 7 && rest[0] == '.' ? Digits(rest.substr(1)) : std::nullopt;
        if (!digits) return std::nullopt;
        fraction_us = *digits;
        for (std::size_t i = rest.size(); i < 7; ++i) fraction_us *= 10;
    }
    const std::int64_t days = sys_days(day).time_since_epoch().count();
    return ((days * 24 + part(11, 2)) * 3600 + part(14, 2) * 60 + part(17, 2)) * kSecond_us + fraction_us;
}

std::optional<std::int64_t> Whole(const json& value, std::int64_t least, std::int64_t most) {
    // Compared as JSON: a number may be larger than any of ours.
    if (!value.is_number_integer() || value < least || value > most) return std::nullopt;
    return value.get<std::int64_t>();
}

bool HasControls(const std::string& text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

std::optional<FieldError> TakeTime(const std::string& name, const json& value, std::int64_t now_us,
                                   std::optional<std::int64_t>& time_us) {
    if (value.is_string()) time_us = ParseTime(value.get_ref<const std::string&>(), now_us);
    if (time_us) return std::nullopt;
    return Bad(name,
               "must be a time in UTC as \"2025-01-31T10:00:00Z\", or one from now on as \"+90s\", \"+15m\", "
               "\"+2h\" or \"+7d\", at most ten years away");
}

std::optional<FieldError> TakeVolumes(const json& value, std::vector<std::string>& volumes) {
    if (!value.is_array() || value.size() > kMostVolumes)
        return Bad("volumes", "must be a list of at most " + std::to_string(kMostVolumes) +
                                  " names of volumes or paths on them");
    for (const auto& one : value) {
        if (!one.is_string() || one.get_ref<const std::string&>().empty())
            return Bad("volumes", "each must be a text, not empty");
        const auto& text = one.get_ref<const std::string&>();
        if (text.size() > kLongestVolume_bytes || HasControls(text))
            return Bad("volumes",
                       "\"" + std::string(CutUtf8(text, 60)) + "\" is too long or holds control characters");
        volumes.push_back(text);
    }
    return std::nullopt;
}

std::optional<FieldError> TakeKey(const json& value, std::string& key) {
    if (!value.is_string()) return Bad("key", "must be a text");
    key = value.get<std::string>();
    if (key.empty()) return Bad("key", "must not be empty; leave it out instead");
    if (key.size() > kLongestKey_bytes)
        return Bad("key", "must not be longer than " + std::to_string(kLongestKey_bytes) + " bytes");
    if (HasControls(key)) return Bad("key", "must not hold control characters");
    return std::nullopt;
}

}  // namespace

std::optional<std::int64_t> ParseTime(std::string_view text, std::int64_t now_us) {
    const auto time = !text.empty() && text.front() == '+' ? FromNow(text.substr(1), now_us) : Absolute(text);
    return time && *time <= now_us + kFarthest_us ? time : std::nullopt;
}

bool IsRunField(std::string_view name) {
    return std::find(std::begin(kFields), std::end(kFields), name) != std::end(kFields);
}

std::optional<std::int32_t> PriorityOf(const json& value) {
    const auto number = Whole(value, 0, 100);
    return number ? std::optional(static_cast<std::int32_t>(*number)) : std::nullopt;
}

std::optional<FieldError> TakeRunField(const std::string& name, const json& value, std::int64_t now_us,
                                       NewTask& task) {
    if (name == "priority") {
        const auto number = PriorityOf(value);
        if (!number) return Bad(name, kPriorityWanted);
        task.priority = *number;
    } else if (name == "not_before") {
        return TakeTime(name, value, now_us, task.notBefore_us);
    } else if (name == "deadline") {
        if (auto fault = TakeTime(name, value, now_us, task.deadline_us)) return fault;
        if (*task.deadline_us <= now_us) return Bad(name, "has passed already");
    } else if (name == "deadline_action") {
        if (value != "none" && value != "cancel") return Bad(name, "must be \"none\" or \"cancel\"");
        task.cancelAtDeadline = value == "cancel";
    } else if (name == "memory_mib") {
        const auto number = Whole(value, 1, kMostMemory_MiB);
        if (!number) return Bad(name, "must be a whole number of MiB, 1 or more");
        task.demand.memory_MiB = *number;
    } else if (name == "cores") {
        const auto number = Whole(value, 1, kMostCores);
        if (!number) return Bad(name, "must be a whole number of processor cores, 1 or more");
        task.demand.cores = *number;
    } else if (name == "volumes") {
        return TakeVolumes(value, task.demand.volumes);
    } else {
        return TakeKey(value, task.key);
    }
    return std::nullopt;
}

std::optional<FieldError> CheckRunFields(const NewTask& task, bool hasAction) {
    if (hasAction && !task.deadline_us) return Bad("deadline_action", "needs a deadline");
    if (task.deadline_us && task.notBefore_us && *task.deadline_us <= *task.notBefore_us)
        return Bad("deadline", "must be later than not_before");
    return std::nullopt;
}

}  // namespace rq::engine
