#include "plugincheck/resource_watch.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <thread>

#include "platform/process_facts.h"
#include "plugincheck/machine_clock.h"

namespace rq::plugincheck {
namespace {

constexpr std::size_t kParts = 4;
constexpr double kMemoryLimit_bytes = 64 * 1024;
constexpr std::size_t kFewestHandles = 3;
constexpr std::size_t kTasksForOneHandle = 20;

double Median(std::vector<std::uint64_t> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return static_cast<double>(*middle);
}

std::array<double, kParts> MediansOfParts(const std::vector<std::uint64_t>& values, std::size_t begin) {
    std::array<double, kParts> medians{};
    const std::size_t length = (values.size() - begin) / kParts;
    for (std::size_t part = 0; part < kParts; ++part) {
        const auto first = values.begin() + static_cast<std::ptrdiff_t>(begin + part * length);
        medians[part] = Median({first, first + static_cast<std::ptrdiff_t>(length)});
    }
    return medians;
}

std::string Text(const char* format, double first, double second) {
    char text[160];
    std::snprintf(text, sizeof text, format, first, second);
    return text;
}

}  // namespace

std::optional<Growth> JudgeMemory(const std::vector<std::uint64_t>& bytes) {
    if (bytes.size() < kFewestTasks) return std::nullopt;
    const std::size_t begin = bytes.size() / 4;
    const auto medians = MediansOfParts(bytes, begin);
    const double rise = medians.back() - medians.front();
    const std::size_t part = (bytes.size() - begin) / kParts;
    const auto tasks = static_cast<double>(part * (kParts - 1));
    Growth growth;
    growth.perTask = rise / tasks;
    bool isSteady = rise > kMemoryLimit_bytes;
    for (std::size_t i = 1; i < kParts; ++i) isSteady = isSteady && medians[i] - medians[i - 1] >= rise / 8;
    if (isSteady)
        growth.breach = Text("%.0f bytes more are allocated after %.0f further tasks", rise, tasks) +
                        Text(", %.0f bytes for each", growth.perTask, 0);
    return growth;
}

std::optional<Growth> JudgeHandles(const std::vector<std::size_t>& handles) {
    if (handles.size() < kFewestTasks) return std::nullopt;
    const std::size_t begin = handles.size() / 4;
    const std::size_t tasks = handles.size() - 1 - begin;
    Growth growth;
    const double rise = static_cast<double>(handles.back()) - static_cast<double>(handles[begin]);
    growth.perTask = rise / static_cast<double>(tasks);
    const auto limit = static_cast<double>(std::max(kFewestHandles, tasks / kTasksForOneHandle));
    // What the run-time library opens once for good, at a lock's first contention, comes in a burst and not
    // with the tasks.
    const auto medians = MediansOfParts({handles.begin(), handles.end()}, begin);
    bool isSteady = true;
    for (std::size_t i = 1; i < kParts; ++i) isSteady = isSteady && medians[i] > medians[i - 1];
    if (rise >= limit && isSteady)
        growth.breach = Text("%.0f more are open after %.0f further tasks", rise, double(tasks));
    return growth;
}

std::size_t SettledThreadCount(std::size_t expected, std::chrono::milliseconds longest) {
    const auto deadline = MachineClock::now() + longest;
    std::size_t count = platform::ThreadCount();
    while (count > expected && MachineClock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        count = platform::ThreadCount();
    }
    return count;
}

}  // namespace rq::plugincheck
