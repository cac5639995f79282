// What a worker left behind in the log folder: its log and, when it crashed, its report. They are found by
// the name that its start gave it and by its process id, in the folders of the days on which it lived. Reads
// files; changes nothing. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace rq::engine {

struct WorkerLife {
    std::string name;             // of its parameter file and output, without the ending: "t12a1_09ab12cd"
    std::uint64_t processId = 0;  // 0: unknown
    std::int64_t from_us = 0;     // since 1970-01-01 UTC
    std::int64_t until_us = 0;
};

// Paths in UTF-8, empty for what is not there.
struct WorkerTraces {
    std::string log;
    std::string crashReport;
};

// `logRoot` is the engine's log folder; nothing is found for a life without a name.
WorkerTraces FindWorkerTraces(const std::string& logRoot, const WorkerLife& life);

// The text of the log's last line of level 4 or 5 that tells of a failure; of a large log the end is read.
std::optional<std::string> LastTrouble(const std::string& log);

}  // namespace rq::engine
