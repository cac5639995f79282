// The task type codes of the command line, their numbers and what they stand for. One table for all who read
// or show them. A type without a code is given as its decimal number.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "records/engine_messages.h"

namespace rq {

struct TaskCode {
    std::string_view code;
    std::int32_t type;
    std::string_view meaning;
};

inline constexpr TaskCode kTaskCodes[] = {
    {"tc", RQ_TASK_TRANSCODE, "transcode"},
    {"tf", RQ_TASK_TRANSFER, "transfer"},
    {"vac", RQ_TASK_REVIEW, "technical review of video and audio"},
    {"mc", RQ_TASK_MD5_COMPUTE, "MD5 computation"},
    {"mv", RQ_TASK_MD5_VERIFY, "MD5 verification"},
    {"gfs", RQ_TASK_SOURCE_SIZE, "source file size check"},
    {"df", RQ_TASK_DELETE, "deletion of task files"},
    {"rp", RQ_TASK_REPAIR, "repair"},
    {"itc", RQ_TASK_REALTIME_MERGE, "real-time merge"},
    {"irc", RQ_TASK_REVIEW_MERGE, "merge of review results"},
    {"afd", RQ_TASK_AFD, "AFD"},
    {"lc", RQ_TASK_LOUDNESS, "loudness control"},
    {"kf", RQ_TASK_FRAMES, "frame extraction"},
};

// Exact, case-sensitive.
constexpr std::optional<std::int32_t> TypeOfTaskCode(std::string_view code) {
    for (const TaskCode& entry : kTaskCodes) {
        if (entry.code == code) return entry.type;
    }
    return std::nullopt;
}

// Empty for a type without a code.
constexpr std::string_view CodeOfTaskType(std::int32_t type) {
    for (const TaskCode& entry : kTaskCodes) {
        if (entry.type == type) return entry.code;
    }
    return {};
}

// Types whose worker keeps taking tasks until a cancel or finish order.
constexpr bool IsPackageType(std::int32_t type) {
    return type == RQ_TASK_PACKAGE || type == RQ_TASK_PACKAGE_PARAMETER_FILE;
}

}  // namespace rq
