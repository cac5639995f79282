// What a test may put in place of the runner's surroundings. An empty member means the real thing.
#pragma once

#include <functional>
#include <memory>

#include "base/clock.h"
#include "base/text.h"
#include "platform/os_error.h"
#include "plughost/plugin_library.h"
#include "plugin/task_thread.h"

namespace rq {

struct WorkRunnerSeams {
    Clock* clock = nullptr;  // SystemClock()
    WideText
        moduleDirectory;  // where the type table lies; ends with a separator. Empty: the executable's folder
    std::function<bool(WorkerPlugin&, platform::OsError*)> loadLibrary;  // LoadPluginLibrary
    std::function<bool(WorkerPlugin&)> findEntryPoints;                  // FindEntryPoints
    std::unique_ptr<TaskThread> taskThread;                              // one that is never started
};

}  // namespace rq
