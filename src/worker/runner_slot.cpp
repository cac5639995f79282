#include "worker/runner_slot.h"

#include <chrono>
#include <utility>

namespace rq {

void RunnerSlot::Put(std::unique_ptr<IWorkRunner> runner) {
    Signal::Hold hold(m_returned);
    m_runner = std::move(runner);
}

std::shared_ptr<IWorkRunner> RunnerSlot::Borrow() {
    IWorkRunner* runner = nullptr;
    {
        Signal::Hold hold(m_returned);
        if (!m_runner) return nullptr;
        ++m_borrowed;
        runner = m_runner.get();
    }
    // Outside the lock: when memory for the pointer is short, its deleter runs here and takes the lock.
    return {runner, [this](IWorkRunner*) { Return(); }};
}

std::unique_ptr<IWorkRunner> RunnerSlot::Withdraw() {
    Signal::Hold hold(m_returned);
    auto runner = std::move(m_runner);
    while (m_borrowed > 0) m_returned.WaitFor(hold, std::chrono::hours(1));
    m_returned.Reset(hold);
    return runner;
}

void RunnerSlot::Return() {
    Signal::Hold hold(m_returned);
    if (--m_borrowed == 0) m_returned.Notify(hold);
}

}  // namespace rq
