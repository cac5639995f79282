// What a finished transcode prints: a line for each file that it made. Pure; any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace rq::ctl {

// "/out/a.mp4: mp4, 250 frames, 10.0 s of sound, 1.2 MiB". `result` is the "result" of a task (docs/api.md);
// empty when it is no transcode's.
std::string ReportTranscode(const nlohmann::json& result);

}  // namespace rq::ctl
