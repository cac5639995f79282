// Locks and waits, the only ones in the project: every mutex here carries clang thread-safety annotations.
//
// Mutex / MutexLock   a plain lock and its scope.
// Signal              a wait that one thread makes and another ends. The notification is a token kept under
// the
//                     signal's own mutex: it is never lost when it comes before the wait, it ends exactly one
//                     wait, and a spurious wake ends none. A flag that a waiter tests is stored while holding
//                     the same mutex (Signal::Hold).
//
// Any thread may call anything here. Time is taken from the Clock given to the Signal, so that tests move it.
#pragma once

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/lock_types.hpp>
#include <boost/thread/mutex.hpp>
#include <chrono>

#include "base/clock.h"

#if defined(__clang__)
#define RQ_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define RQ_THREAD_ANNOTATION(x)
#endif

#define RQ_CAPABILITY(x) RQ_THREAD_ANNOTATION(capability(x))
#define RQ_SCOPED_CAPABILITY RQ_THREAD_ANNOTATION(scoped_lockable)
#define RQ_GUARDED_BY(x) RQ_THREAD_ANNOTATION(guarded_by(x))
#define RQ_PT_GUARDED_BY(x) RQ_THREAD_ANNOTATION(pt_guarded_by(x))
#define RQ_REQUIRES(...) RQ_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define RQ_ACQUIRE(...) RQ_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RQ_RELEASE(...) RQ_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RQ_TRY_ACQUIRE(...) RQ_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RQ_EXCLUDES(...) RQ_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define RQ_RETURN_CAPABILITY(x) RQ_THREAD_ANNOTATION(lock_returned(x))
#define RQ_NO_THREAD_SAFETY_ANALYSIS RQ_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace rq {

class RQ_CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() RQ_ACQUIRE() { m_mutex.lock(); }
    void unlock() RQ_RELEASE() { m_mutex.unlock(); }
    bool try_lock() RQ_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

  private:
    friend class Signal;
    boost::mutex m_mutex;
};

class RQ_SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) RQ_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~MutexLock() RQ_RELEASE() { m_mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& m_mutex;
};

class RQ_CAPABILITY("signal") Signal {
  public:
    explicit Signal(Clock& clock = SystemClock()) : m_clock(clock) {}
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    // Holds the signal's mutex for a scope. The flags that go with the signal are read and stored under it.
    class RQ_SCOPED_CAPABILITY Hold {
      public:
        explicit Hold(Signal& signal) RQ_ACQUIRE(signal) : m_lock(signal.m_mutex) {}
        ~Hold() RQ_RELEASE() {}
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

      private:
        friend class Signal;
        boost::unique_lock<boost::mutex> m_lock;
    };

    // Waits until the token is there (consumes it, true) or the clock reaches `deadline` (false). A token
    // that is already there ends the wait at once. The mutex is free while waiting and held again on return.
    bool WaitUntil(Hold& hold, SteadyTime deadline);
    bool WaitFor(Hold& hold, std::chrono::milliseconds duration);

    // Leaves the token and wakes the waiter. The caller keeps the mutex: the waiter goes on when it is let
    // go.
    void Notify(Hold& hold);
    // Takes away a token that nobody consumed.
    void Reset(Hold& hold);

    // The same for callers that hold nothing.
    bool WaitUntil(SteadyTime deadline) RQ_EXCLUDES(this);
    bool WaitFor(std::chrono::milliseconds duration) RQ_EXCLUDES(this);
    void Notify() RQ_EXCLUDES(this);

  private:
    Clock& m_clock;
    boost::mutex m_mutex;
    boost::condition_variable m_condition;
    bool m_notified = false;
};

}  // namespace rq
