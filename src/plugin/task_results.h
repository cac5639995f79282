// Task results: the per-file outcomes of a task as the record that a status report carries. Pure; any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "plughost/result_copy.h"
#include "records/task_results.h"

namespace rq {

// Types 0 (transfer), 1, 8 and 30 (transcode), 3 and 4 (MD5) have a record.
bool HasTaskResult(std::int32_t taskType);

// The record for the type, null for a type that has none. One entry for each file, in the order given.
std::shared_ptr<const stTaskResultBase> MakeTaskResult(std::int32_t taskType, const TaskResultCopy& results);

// kNotCompared when the first text is empty or that of an all-zero digest; else whether the texts agree, case
// included. An empty second text is a different one.
std::int32_t CompareMd5Texts(const std::string& first, const std::string& second);

}  // namespace rq
