// Watching many tasks: a table that is redrawn on a terminal, a line for each change elsewhere. The engine is
// asked once a second; the tasks are left alone, whatever becomes of the watcher.
#pragma once

#include <string>
#include <vector>

#include "ctl/engine_access.h"

namespace rq::ctl {

// Of these tasks until all have ended; without any, of all that have not ended, until the user ends it. With
// `asJson` each change is the task in short on a line of its own. The value is what rqctl ends with.
Outcome<int> WatchTasks(EngineAccess& engine, const std::vector<std::string>& ids, bool asJson);

// ---- pure ----

// Lines without their ends, each narrower than `columns`: a head and at most `most` tasks, what runs first.
std::vector<std::string> WatchLines(const std::vector<nlohmann::json>& tasks, unsigned columns,
                                    std::size_t most);
// What redraws `before` lines with the new ones.
std::string Redraw(std::size_t before, const std::vector<std::string>& lines);
// "t12: running, 41.5 %, 812.4 MiB/s"
std::string ChangeLine(const nlohmann::json& task);
// Tells a task's next line from the one before: its state, and each tenth of its way.
std::string ChangeKey(const nlohmann::json& task);

}  // namespace rq::ctl
