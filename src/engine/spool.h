// Spool: the folder in which workers leave final statuses that no engine acknowledged (docs/engine-link.md,
// "The spool"). Reads and removes their files; what a status does is the scheduler's. I/O thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "engine/engine_log.h"
#include "engine/retention.h"
#include "link/spool_file.h"

namespace rq::engine {

class Spool {
  public:
    Spool(const std::string& dataFolder, EngineLog& log);

    // Empty when the folder could not be made.
    const std::string& Folder() const { return m_folder; }
    // The status that the attempt's worker left; nothing when there is none. A damaged file is logged and
    // renamed; an error when it cannot be read at present.
    Result<std::optional<link::SpooledStatus>> Read(const std::string& attempt);
    // One that cannot be read for long counts as damaged.
    void GiveUp(const std::string& attempt);
    // What is left of the attempt, except a damaged file.
    void Remove(const std::string& attempt);
    // Whose files there are.
    std::vector<std::string> Attempts() const;

  private:
    std::string File(const std::string& attempt, std::string_view ending) const;

    std::string m_folder;
    EngineLog& m_log;
};

// Damaged files are kept as long as crash reports; they are small and few, so there is no bound on their
// size.
Removed RemoveOldSpool(const std::string& dataFolder, const Retention& kept);

}  // namespace rq::engine
