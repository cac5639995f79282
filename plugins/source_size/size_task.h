// The task text of a source size check (docs/tasks/source_size.md), read and checked. Pure; any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plugin_common/task_xml.h"

namespace rq::source_size {

struct SourceFile {
    std::string path;                          // absolute, as in the task text
    std::optional<std::uint64_t> exact_bytes;  // at most one of the two
    std::optional<std::uint64_t> least_bytes;
};

struct SizeTask {
    std::string id;
    std::chrono::microseconds stableFor{5'000'000};
    std::chrono::microseconds timeout{600'000'000};
    std::vector<SourceFile> files;
};

// False, with `error` set, for a text that does not fit; the ID is there when that much could be read.
bool ReadSizeTask(std::string_view text, SizeTask& task, task::XmlError& error);

}  // namespace rq::source_size
