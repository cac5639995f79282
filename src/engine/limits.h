// What a node's operator allows: workers of a type at once, memory and processor cores for tasks that declare
// what they take, and volumes that tasks may declare. Plain values, part of the engine's settings.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

namespace rq::engine {

struct VolumeSettings {
    std::string path;            // absolute
    std::uint64_t free_MiB = 0;  // with less free space its tasks wait
    std::string marker;          // a file on the volume, without which it is away; empty: none
};

struct NodeLimits {
    std::map<std::int32_t, unsigned> typeWorkers;  // at once, by type
    std::uint64_t memory_MiB = 0;                  // 0: what the machine has
    std::uint64_t cores = 0;                       // 0: what the machine has
    // A task for which memory or cores are lacking may be passed by later ones for so long.
    std::chrono::milliseconds passFor = std::chrono::seconds(60);
    std::map<std::string, VolumeSettings> volumes;  // by name
    std::chrono::milliseconds volumeInterval = std::chrono::seconds(3);
    std::chrono::milliseconds volumePatience = std::chrono::seconds(15);  // for a volume that does not answer
};

}  // namespace rq::engine
