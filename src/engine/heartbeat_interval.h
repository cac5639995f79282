// How often a worker that is started in this stage beats. Reads a file; any thread.
#pragma once

#include <chrono>
#include <string>

namespace rq::engine {

// What the stage's actor.xml says, as the worker takes it: 40 s for 60 s and more, and when the file says
// nothing; at least 1 s.
std::chrono::milliseconds HeartbeatInterval(const std::string& stageFolder);

}  // namespace rq::engine
