// IWorkerCore: what the supervision of a worker needs of the worker core. The core implements it; the tests
// of this room put a small stand-in there.
//
// Threads: the core outlives the progress and the heartbeat thread, which call everything here; the status
// report calls on the main thread. Every function may be called by any thread. Texts are UTF-8.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/clock.h"
#include "base/sync.h"
#include "plugin/work_runner.h"

namespace rq {

// The log tag of status reports and of the suspend and resume orders; it has no file of its own.
inline constexpr const char* kStatusTag = "thread_get_status";

class IWorkerCore {
  public:
    virtual Clock& GetClock() = 0;

    // Null when there is none or it is being released. The runner stays until the last such pointer is gone:
    // keep it for one step only.
    virtual std::shared_ptr<IWorkRunner> Runner() = 0;

    // Running parameters, seconds.
    virtual std::int32_t HeartbeatInterval_s() = 0;
    virtual void SetHeartbeatInterval_s(std::int32_t interval_s) = 0;
    virtual std::uint32_t ProgressReportInterval_s() = 0;
    virtual std::uint32_t ProgressPatrolTimeout_s() = 0;

    virtual std::int32_t TaskType() = 0;
    virtual std::string TaskId() = 0;
    virtual std::string WorkerGuid() = 0;
    virtual std::string ProcessIdText() = 0;

    // There is no engine connection.
    virtual bool IsDisconnected() = 0;
    virtual bool IsPaused() = 0;
    // The progress thread's running flag.
    virtual bool IsWorking() = 0;
    // The heartbeat thread's stop flag.
    virtual bool HeartbeatShouldStop() = 0;

    // A notification of either ends the wait of its thread.
    virtual Signal& ProgressSignal() = 0;
    virtual Signal& HeartbeatSignal() = 0;

    // Sets the stop flag and closes the runner's task in that CloseMode; -1 without a runner.
    virtual std::int32_t SetClose(std::uint32_t mode) = 0;

    // SetClose in that mode, then sends the record that `make` gives, with no other send between the two:
    // what the closed task reports of itself comes after it. The engine link's success flag.
    virtual bool CloseAndSend(std::uint32_t mode, std::uint32_t id,
                              const std::function<const void*()>& make) = 0;

    // Sends under the send lock with the session ID of that moment; the engine link's success flag.
    virtual bool Send(std::uint32_t id, const void* record) = 0;

  protected:
    ~IWorkerCore() = default;
};

}  // namespace rq
