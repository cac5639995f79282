// One worker's life as the seed draws it, in this process, from the core's construction to its end.
#pragma once

#include <filesystem>

#include "stress/draw.h"
#include "stress/watch.h"

namespace rq::stress {

// What was wrong with it; empty when nothing. `folder` has the type table. The main thread.
std::vector<std::string> LiveOneLife(const Draw& draw, const std::filesystem::path& folder, Counts& counts);

}  // namespace rq::stress
