// RunnerSlot: owns the core's plug-in runner and lends it to whoever calls it, so that a call that is under
// way keeps the runner alive and a call that comes too late finds none.
//
// Any thread may Borrow. Put and Withdraw are the main thread's.
#pragma once

#include <cstddef>
#include <memory>

#include "base/sync.h"
#include "plugin/work_runner.h"

namespace rq {

class RunnerSlot {
  public:
    RunnerSlot() = default;
    RunnerSlot(const RunnerSlot&) = delete;
    RunnerSlot& operator=(const RunnerSlot&) = delete;

    // Puts a runner in; only into an empty slot.
    void Put(std::unique_ptr<IWorkRunner> runner);
    // The runner, null when there is none. Withdraw waits for the pointer: keep it for one call or one step.
    std::shared_ptr<IWorkRunner> Borrow();
    // Takes the runner out: from now on Borrow gives null. Returns once nobody uses it any more; null when
    // empty.
    std::unique_ptr<IWorkRunner> Withdraw();

  private:
    void Return();

    Signal m_returned;  // on the system clock: ends with a call of the runner, not with time
    std::unique_ptr<IWorkRunner> m_runner RQ_GUARDED_BY(m_returned);
    std::size_t m_borrowed RQ_GUARDED_BY(m_returned) = 0;
};

}  // namespace rq
