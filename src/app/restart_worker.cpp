#include "app/restart_worker.h"

#include <cstdlib>

#include "app/instance_lock.h"
#include "platform/crash.h"
#include "platform/process.h"
#include "platform/start_up.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {

namespace {

constexpr unsigned kFirstSuccess = 32;  // smaller results of WinExec are failure codes

}  // namespace

RestartSeams RestartSeams::Real() {
    RestartSeams seams;
    seams.releaseInstanceLock = ReleaseInstanceLock;
    seams.moduleFileName = platform::LongModuleFileName;
    seams.startProgram = platform::StartDetached;
    seams.silenceAbort = [] {
        platform::SilenceAbort();
        platform::LeaveNoCore();
    };
    seams.abort = [] {
        KWOVL_UTILITY::OVLFlushLog();
        std::abort();
    };
    return seams;
}

void RestartWorker(const RestartSeams& seams) {
    seams.releaseInstanceLock();
    Log(3, "patrol timeout, will restart worker .");
    // The path alone, quoted so that blanks in it part nothing.
    if (seams.startProgram("\"" + seams.moduleFileName() + "\"") < kFirstSuccess)
        Log(4, "restart worker error.");
    seams.silenceAbort();
    Log(3, "will abort this worker...");
    seams.abort();
    Log(5, "abort this worker failed,should never happen.");
}

void RestartWorker() {
    RestartWorker(RestartSeams::Real());
}

std::uint64_t OnSupervisionEvent(std::uint32_t event, std::uint64_t, std::uint64_t) {
    if (event == 0) RestartWorker();
    return 0;
}

}  // namespace rq
