// What tests need beside the node's own ways: a worker that no engine started, and a plug-in in the stage
// that does as its task text says.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "kit/child.h"
#include "node.h"

namespace rq::system_test {

// The text of a task on one file.
std::string Md5TaskText(const std::filesystem::path& file);

// A worker of the node's stage with the log root "logs" of its own; `token` is the engine's, to be accepted.
std::unique_ptr<kit::Child> StartWorkerByHand(const Node& node, const std::vector<std::string>& arguments,
                                              const std::string& token);

// Puts the scripted plug-in (bad_plugins/script.h) and the process fixture into the stage and enters the
// plug-in for "mc". The plug-in's folder, which is current while it runs.
std::filesystem::path UseScriptedPlugin(const Node& node);
// A task text for it: starts something that outlives its parent, with its number in "left.pid", and works
// until it is told to stop.
std::string LeavesAProcessAndHangs();

}  // namespace rq::system_test
