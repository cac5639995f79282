// What /metrics tells, in the Prometheus text format 0.0.4. Pure; any thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "engine/node_facts.h"
#include "engine/store_types.h"

namespace rq::engine {

// Numbers over everything in the store. Times are in microseconds.
struct StoreCensus {
    struct OfType {
        std::map<std::string, std::int64_t> tasks;  // by state
        std::int64_t attempts = 0;
        std::int64_t attemptsLost = 0;
        std::int64_t ended = 0;  // tasks that ran, from their start to their end
        std::int64_t ended_us = 0;
        std::int64_t oldestQueued_us = 0;  // when it was submitted; 0: none is queued
    };
    struct Running {
        std::string task;
        std::int32_t type = 0;
        double percent = 0, speed = 0;
    };
    std::map<std::int32_t, OfType> types;
    std::vector<Running> running;
    std::int64_t events = 0;  // added since the store was made
};

struct Disk {
    std::string use;  // "data", "log"
    std::uint64_t size_bytes = 0, free_bytes = 0;
};

struct MetricsFacts {
    std::string version;
    std::int64_t now_us = 0, started_us = 0;
    std::size_t workers = 0;
    unsigned maxWorkers = 0;
    std::map<std::int32_t, std::string> held;
    std::uint64_t store_bytes = 0;
    std::vector<Disk> disks;
    NodeFacts node;
    HeldByRule queued;
    StoreCensus census;
};

std::string MetricsText(const MetricsFacts& facts);

}  // namespace rq::engine
