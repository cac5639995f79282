// What the node has and what is taken of it, as health and metrics tell. Plain values.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "engine/volume_watch.h"

namespace rq::engine {

// What tasks that have a worker take.
struct Usage {
    std::map<std::int32_t, unsigned> workers;  // by type
    std::int64_t memory_MiB = 0;
    std::int64_t cores = 0;
};

struct NodeFacts {
    std::int64_t memory_MiB = 0;  // for tasks that declare it; 0: unknown
    std::int64_t cores = 0;
    Usage taken;
    VolumeStates volumes;
};

// Queued tasks by the first rule that holds them and their type; "turn" when nothing but their turn is
// missing.
using HeldByRule = std::map<std::pair<std::string, std::int32_t>, std::int64_t>;

}  // namespace rq::engine
