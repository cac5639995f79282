// What tasks leave behind: threads, memory, handles. The judgements are pure functions over samples; the
// sampling is the main thread's.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace rq::plugincheck {

// Judgements look at samples that were taken after each task of a row. The first quarter is left out: caches
// fill there. Fewer than this many tasks are not judged.
constexpr std::size_t kFewestTasks = 40;

struct Growth {
    double perTask = 0;                 // bytes or handles
    std::optional<std::string> breach;  // what was seen
};

// Memory has grown when the medians of the four parts of the rest rise from each to the next, each by at
// least an eighth of the whole rise, and the whole rise is more than 64 KiB. What is smaller, or comes in one
// step, is not told from a cache. Nothing with too few.
std::optional<Growth> JudgeMemory(const std::vector<std::uint64_t>& bytes);

// Handles have grown when the end of the row has at least three more than the end of its first quarter, and
// at least one more for each twenty tasks.
std::optional<Growth> JudgeHandles(const std::vector<std::size_t>& handles);

// The number of threads, once it is at most `expected` or the time is over: a thread that has ended needs a
// moment to leave the system's table.
std::size_t SettledThreadCount(std::size_t expected, std::chrono::milliseconds longest);

}  // namespace rq::plugincheck
