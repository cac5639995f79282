// The report of a task whose type has no result record: a text file of its own in the report folder of the
// node (node.h), which only grows, one line for each thing that was done or found. The task's further text
// names it.
//
// Line: "<UTC time> <word> [<path>]". In a path a backslash is "\\" where the platform's paths have none, and
// a line end is "\n" or "\r" everywhere, so that a line is always one thing. One thread at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "plugin_common/node.h"

namespace rq::task {

struct ReportFailure {
    std::uint32_t systemCode = 0;
    std::string words;  // with the path, and what to do
};

class Report {
  public:
    // A new file "<kind>_<UTC time>_<task id>_<digits>.txt", and its first line, which is not synced yet.
    std::optional<ReportFailure> Create(std::string_view kind, std::string_view taskId);
    // Kept until the next Write.
    void Add(std::string_view word, std::string_view text);
    // What was added goes to the file; with `sync`, to the disk.
    std::optional<ReportFailure> Write(bool sync);
    const std::string& Path() const { return m_path; }

  private:
    ReportFailure FailureOf(std::uint32_t code, const std::string& path) const;

    AppendFile m_file;
    std::string m_path;
    std::string m_pending;
};

// A path as a report or a manifest of lines can hold it.
std::string EscapedPath(std::string_view path);

// "20261121T220728.123Z" without punctuation between the parts of a day.
std::string UtcStamp();

}  // namespace rq::task
