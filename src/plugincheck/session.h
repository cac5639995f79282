// The checking process: loads the plug-in, drives it through everything that a worker does with one, and
// writes what it sees into the journal. It may crash or hang; supervise.h is for that.
#pragma once

#include <string>

namespace rq::plugincheck {

// Files in the folder that the supervising process made.
inline constexpr const char* kOptionsFile = "options.json";
inline constexpr const char* kJournalFile = "journal";

// Returns what the process ends with: 0 when the journal is complete.
int RunSession(const std::string& folder);

}  // namespace rq::plugincheck
