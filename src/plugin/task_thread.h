// TaskThread: the thread object that the close operation waits for, interrupts and lets go. The runner never
// starts it: a task runs on the thread that calls PerformTask, and what ends it is the stop flag. On a thread
// that was never started a timed wait counts as a success, and join, interrupt and detach do nothing; Boost
// itself says otherwise of such an object, so each asks joinable() first.
//
// Any thread may wait; the virtual functions are there for tests of a thread that does not end.
#pragma once

#include <boost/date_time/posix_time/posix_time_duration.hpp>
#include <boost/thread/thread.hpp>
#include <chrono>

namespace rq {

class TaskThread {
  public:
    TaskThread() = default;
    explicit TaskThread(boost::thread thread) : m_thread(std::move(thread)) {}
    virtual ~TaskThread() { Detach(); }
    TaskThread(const TaskThread&) = delete;
    TaskThread& operator=(const TaskThread&) = delete;

    virtual bool Joinable() const { return m_thread.joinable(); }

    virtual void Join() {
        if (m_thread.joinable()) m_thread.join();
    }

    // True when the thread has ended within `timeout`, or was never started.
    virtual bool TimedJoin(std::chrono::milliseconds timeout) {
        return !m_thread.joinable() || m_thread.timed_join(boost::posix_time::milliseconds(timeout.count()));
    }

    // Asks the thread to end at its next interruption point.
    virtual void Interrupt() {
        if (m_thread.joinable()) m_thread.interrupt();
    }

    // Gives the thread up; it runs on, owned by nobody.
    virtual void Detach() {
        if (m_thread.joinable()) m_thread.detach();
    }

  private:
    boost::thread m_thread;
};

}  // namespace rq
