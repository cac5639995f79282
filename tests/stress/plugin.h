// The plug-in of the stress run: does what the draw says of each task, and frees its records as early as the
// contract lets it. Its functions have the form of the plug-in contract; one plug-in at a time.
#pragma once

#include <rqworker/plugin.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "base/sync.h"
#include "plugin/work_runner_seams.h"
#include "stress/draw.h"
#include "stress/watch.h"

namespace rq::stress {

class Plugin {
  public:
    Plugin(const Draw& draw, Watch& watch, Counts& counts);
    ~Plugin();
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    // Puts this plug-in in the place of a library.
    static void FillIn(WorkRunnerSeams& seams);

  private:
    struct Record {
        TaskInfo info{};
        const TaskPlan* plan = nullptr;
    };
    // The arguments of a perform call.
    struct Call {
        TaskInfo& info;
        const volatile std::uint32_t* stop;
        RQProgressCallback progress;
        void* context;
    };

    std::int32_t Analyse(RQText text, TaskInfo** info);
    std::int32_t Perform(const Call& call);
    void Report(const TaskPlan& plan, const Call& call);
    void Help(const std::atomic<bool>& isOver);
    // From the next perform call on nobody looks at the one before.
    void ForgetPerformed(const TaskInfo& next);

    const Draw& m_draw;
    Watch& m_watch;
    Counts& m_counts;
    const std::thread::id m_main = std::this_thread::get_id();
    const RQHostServices* m_host = nullptr;
    Mutex m_lock;
    std::list<Record> m_records RQ_GUARDED_BY(m_lock);
    const TaskInfo* m_performed RQ_GUARDED_BY(m_lock) = nullptr;
};

}  // namespace rq::stress
