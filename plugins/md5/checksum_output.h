// The checksum file that a computation writes: a line for each file, in the order in which they come, under
// its name when all of it is there (plugin_common/publish.h). The names are relative to its folder when the
// files lie below it. The perform call's thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "md5_items.h"
#include "plugin_common/publish.h"

namespace rq::md5 {

class ChecksumWriter {
  public:
    // Failures carry words with the path.
    std::optional<Failure> Begin(const Md5Task& task);
    std::optional<Failure> Add(const std::string& path, const task::Md5Digest& digest);
    std::optional<Failure> Publish();
    void Discard() { m_publication.Discard(); }
    const std::string& TemporaryPath() const { return m_publication.TemporaryPath(); }

  private:
    std::optional<Failure> Flush();

    task::Publication m_publication;
    std::string m_target;
    std::string m_folder;   // of the target, with '/' between its parts and at its end
    std::string m_pending;  // lines
};

}  // namespace rq::md5
