// Which files of the log folder are no longer kept, and their removal. I/O thread.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "engine/settings.h"

namespace rq::engine {

// What was removed, of "logs", "output", "dumps".
struct Removed {
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;
};
using RemovedByKind = std::map<std::string, Removed>;

// Removes workers' logs, their captured output, and crash reports that are older than their kind is kept,
// then the oldest of a kind while it has more than its size; last the day folders that are empty since
// yesterday. Files whose name begins with one of `inUse` (workers that run) stay, and so does everything else
// in the folder. `now_us`: since 1970-01-01 UTC.
RemovedByKind RemoveOldFiles(const std::string& logRoot, const Retention& kept,
                             const std::set<std::string>& inUse, std::int64_t now_us);

}  // namespace rq::engine
