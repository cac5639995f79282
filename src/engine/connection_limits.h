// How many connections there may be at both ports, so that the engine always has files left for its store,
// its logs and its workers. Pure; any thread.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "engine/places.h"
#include "engine/settings.h"

namespace rq::engine {

struct ConnectionLimits {
    Places::Limits link, http;
};

// What the settings say, or as much of it as so many open files allow for. An error when that is too little
// to work with.
Result<ConnectionLimits> LimitConnections(const EngineSettings& settings, std::uint64_t openFiles);

}  // namespace rq::engine
