#include "supervision/heartbeat_thread.h"

#include <chrono>

#include "records/engine_messages.h"
#include "util/worker_util.h"

namespace rq {

namespace {

// An interval from this one on is replaced.
constexpr std::int32_t kLongInterval_s = 60;
constexpr std::int32_t kUsualInterval_s = 40;

// False when the wait was ended by a notification.
bool WaitAndBeat(IWorkerCore& core) {
    Signal& signal = core.HeartbeatSignal();
    Signal::Hold hold(signal);
    // 0 and negative intervals are over at once: beats go back to back.
    if (signal.WaitFor(hold, std::chrono::seconds(core.HeartbeatInterval_s()))) return false;
    const HeartbeatRecord record{"1.0", core.WorkerGuid()};
    // A lost beat is followed by the next one.
    core.Send(TCP_WORKER_HEARTBEAT_ID, &record);
    return true;
}

}  // namespace

std::uint32_t HeartbeatThread(IWorkerCore& core) {
    if (core.HeartbeatInterval_s() >= kLongInterval_s) core.SetHeartbeatInterval_s(kUsualInterval_s);
    while (!core.HeartbeatShouldStop() && WaitAndBeat(core)) {
    }
    Log(2, "Worker thread for sending heartbeat has stopped. PID:" + core.ProcessIdText() + ", TaskID:[" +
               core.TaskId() + "]");
    return 0;
}

}  // namespace rq
