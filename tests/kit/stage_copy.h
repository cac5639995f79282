// A copy of the build's stage (the programs, plug-ins and data files as a node has them) for one test, so
// that it may change the data files and leave logs there. Needs the stage target to be built.
#pragma once

#include <filesystem>
#include <string_view>

namespace rq::kit {

// The stage of this build.
std::filesystem::path StageFolder();

// Makes `to` and fills it. Programs and libraries become hard links where the file system allows; all else is
// copied, since a test may change it (and a lock on "worker.uid" goes by the file, not by its name).
void CopyStage(const std::filesystem::path& to);

// The path of a program or library of the stage in `folder`, with the platform's ending: "rqengine" ->
// "rqengine.exe" on Windows.
std::filesystem::path ProgramIn(const std::filesystem::path& folder, std::string_view name);

}  // namespace rq::kit
