#include "supervision/efficiency.h"

#include <cstdio>

#include "records/engine_messages.h"

namespace rq {

namespace {

// Has no name of its own; its speed is in units per millisecond like that of frame extraction.
constexpr std::int32_t kTaskType20 = 20;

bool IsTranscode(std::int32_t taskType) {
    return taskType == RQ_TASK_TRANSCODE || taskType == RQ_TASK_REALTIME_MERGE;
}

template <class... Values>
std::string Format(const char* format, Values... values) {
    const int size = std::snprintf(nullptr, 0, format, values...);
    if (size <= 0) return {};
    std::string text(static_cast<std::size_t>(size), '\0');
    std::snprintf(text.data(), text.size() + 1, format, values...);
    return text;
}

}  // namespace

bool IsSpeedPerFrame(std::int32_t taskType) {
    return IsTranscode(taskType) || taskType == RQ_TASK_REVIEW;
}

bool IsSpeedComputed(std::int32_t taskType) {
    return IsSpeedPerFrame(taskType) || taskType == RQ_TASK_FRAMES || taskType == kTaskType20 ||
           taskType == RQ_TASK_PACKAGE_PARAMETER_FILE;
}

Efficiency ComputeEfficiency(std::int32_t taskType, double percent, std::int64_t processed,
                             double pluginSpeed, std::int64_t elapsed_ms, std::int32_t frameRate) {
    const double count = static_cast<double>(processed);
    const double elapsed = static_cast<double>(elapsed_ms);
    if (!IsSpeedComputed(taskType)) return {pluginSpeed, 0, {}};
    // Units per millisecond, without the factor 1000 of the others: readers of these types expect it so.
    if (!IsSpeedPerFrame(taskType)) return {count / elapsed, 0, {}};

    const double averageSpeed = count * 1000.0 / elapsed;
    const double timeSpeed = averageSpeed / frameRate;
    if (IsTranscode(taskType)) {
        return {timeSpeed, averageSpeed,
                Format("Efficiency: Percent:%.2f %% , AverageSpeed:%.2f frame/s, TimeSpeed:%.2f.", percent,
                       averageSpeed, timeSpeed)};
    }
    // A review prints its average speed under the name TimeSpeed.
    return {averageSpeed, averageSpeed,
            Format("Efficiency: Percent:%.2f %% , TimeSpeed:%.2f.", percent, averageSpeed)};
}

}  // namespace rq
