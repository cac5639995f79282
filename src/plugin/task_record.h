// TaskRecord: the task information record as the runner's readers see it, and what was read of it once and
// for all.
//
// A record belongs to the plug-in, which may free it in any analyse call but the ones that come while it is
// being performed. Before such a call what a finished task left behind is copied (KeptTask), so that an
// update that comes late neither loses a task's outcome nor lets a reader touch freed memory.
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
