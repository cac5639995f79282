// VolumeWatch: looks at each volume at intervals, whether it is there and how much is free on it. A look at a
// network volume may hang for minutes, so each volume has a thread of its own, and one from which no answer
// comes in time counts as away.
//
// The watch is used on one thread. Its threads touch only what they share with it under a lock; one that
// hangs when the watch goes is left to end by itself.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "engine/limits.h"

namespace rq::engine {

struct VolumeState {
    std::string path;
    std::uint64_t floor_bytes = 0;
    std::optional<std::string> away;  // why; also before the first look
    bool unknown = false;             // before the first look
    std::uint64_t size_bytes = 0, free_bytes = 0;

    bool IsShort() const { return !away && free_bytes < floor_bytes; }
};

using VolumeStates = std::map<std::string, VolumeState>;

// One look; may take long.
VolumeState LookAt(const VolumeSettings& volume);

class VolumeWatch {
  public:
    explicit VolumeWatch(const NodeLimits& limits);
    ~VolumeWatch();
    VolumeWatch(const VolumeWatch&) = delete;
    VolumeWatch& operator=(const VolumeWatch&) = delete;

    // What the latest looks found.
    VolumeStates States() const;
    // Whether every volume has been looked at, or took too long.
    bool HasLooked() const;

  private:
    struct Watched;
    const NodeLimits m_limits;
    std::map<std::string, std::shared_ptr<Watched>> m_volumes;
};

}  // namespace rq::engine
