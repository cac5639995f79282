// StageCheck: whether the stage has what a worker of a type needs to start: the program, the type table and
// the plug-in library that it names. Asked before a task is claimed, so that tasks wait for a stage that is
// being mended instead of failing one after the other. The files are looked at anew at each question; nothing
// is loaded or started. I/O thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "util/type_table_file.h"

namespace rq::engine {

class StageCheck {
  public:
    explicit StageCheck(std::string stageFolder) : m_folder(std::move(stageFolder)) {}

    // Why no worker of this type can start, with the file at fault; nothing when one can.
    std::optional<std::string> Problem(std::int32_t type) const;
    // Everything amiss: the program, the table, and each plug-in of the table.
    std::vector<std::string> Problems() const;

  private:
    std::optional<std::string> ProgramProblem() const;
    std::optional<std::string> TableProblem(const TypeTableReading& table) const;
    std::optional<std::string> PluginProblem(const WorkerTypeEntry& entry) const;
    std::string File(const std::string& name) const;

    const std::string m_folder;
};

}  // namespace rq::engine
