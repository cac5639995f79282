// The core's end.
#include "util/worker_util.h"
#include "worker/worker_base.h"

namespace rq {

// The threads go first, since both use the runner and the link; the link goes last, so that a message that a
// thread is still sending has a client.
void CRQWorkerBase::Release() {
    Log(2, "WorkerBase Release begin..");
    JoinProgressThread();
    if (m_heartbeatThread.joinable()) m_heartbeatThread.join();
    // The engine's orders find no runner from here on; one that is using it is waited for.
    if (auto runner = m_pWorker.Withdraw()) {
        runner->Release();
        runner.reset();
    }
    DeleteEngine();
    Log(2, "WorkerBase Release end..");
}

CRQWorkerBase::~CRQWorkerBase() {
    Log(1, "RQWorker is destroyed" + std::string(61, '.'));
}

}  // namespace rq
