// Runs a check in a process of its own, so that a plug-in that crashes or hangs is reported and not suffered.
// One thread.
#pragma once

#include <string>

#include "base/result.h"
#include "plugincheck/options.h"
#include "plugincheck/report.h"

namespace rq::plugincheck {

// The checking process is `program` with these two arguments: this one, and a folder for RunSession.
inline constexpr const char* kSessionArgument = "--check-in-this-process";

// An error when the check could not be made at all; nothing is then known of the plug-in.
Result<Report> RunCheck(const std::string& program, const CheckOptions& options);

}  // namespace rq::plugincheck
