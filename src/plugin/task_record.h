// TaskRecord: the task information record as the runner's readers see it, and what was read of it once and
// for all.
//
// A record belongs to the plug-in. The contract keeps one that was performed until the next perform call; a
// plug-in that frees it in an analysis all the same would take a finished task's outcome away with an update
// that comes late. So what the task left behind is copied before such a call (KeptTask), and no reader looks
// at the record after that.
#pragma once

#include <rqworker/plugin.h>

#include <cstdint>
#include <optional>
#include <string>

#include "plughost/result_copy.h"
#include "plugin/work_runner.h"

namespace rq {

struct TaskRecord {
    TaskInfo* info = nullptr;
    std::string taskId;  // fixed when the analysis returns, so it is read only then
};

struct KeptTask {
    volatile std::uint32_t status = kTaskError;
    std::int32_t taskType = 0;
    std::string taskId;
    TaskErrorInfo errors;
    TaskResultCopy results;
};

}  // namespace rq
