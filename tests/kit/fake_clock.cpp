#include "kit/fake_clock.h"

#include <algorithm>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <cassert>
#include <vector>

namespace rq::kit {

// One wait, from its beginning to its end, also when it ends by an exception (an interruption).
class FakeClock::Registration {
  public:
    Registration(FakeClock& clock, boost::unique_lock<boost::mutex>& lock,
                 boost::condition_variable& condition, SteadyTime deadline)
        : m_clock(clock), m_lock(lock) {
        const std::scoped_lock hold(clock.m_mutex);
        m_passed = clock.m_steady >= deadline;
        m_waiter = clock.m_waiters.insert(clock.m_waiters.end(),
                                          Waiter{lock.mutex(), &condition, deadline, m_passed, 0});
        ++clock.m_waitsBegun;
        clock.m_changed.notify_all();
    }

    ~Registration() {
        // Advance may be about to lock the waiter's mutex: it must be free until Advance is through with it,
        // and the waiter must not go away before that.
        m_lock.unlock();
        {
            std::unique_lock hold(m_clock.m_mutex);
            m_clock.m_changed.wait(hold, [this] { return m_waiter->pins == 0; });
            m_clock.m_waiters.erase(m_waiter);
        }
        m_lock.lock();
    }

    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    bool Passed() const { return m_passed; }

  private:
    FakeClock& m_clock;
    boost::unique_lock<boost::mutex>& m_lock;
    std::list<Waiter>::iterator m_waiter;
    bool m_passed = false;
};

FakeClock::FakeClock()
    : m_steady(std::chrono::hours(1000)),
      m_local(boost::gregorian::date(2017, 5, 31), boost::posix_time::time_duration(10, 15, 30)) {}

FakeClock::~FakeClock() {
    assert(m_waiters.empty() && "a thread still waits on the clock");
}

SteadyTime FakeClock::Steady() {
    const std::scoped_lock hold(m_mutex);
    return m_steady;
}

LocalTime FakeClock::Local() {
    const std::scoped_lock hold(m_mutex);
    return m_local;
}

void FakeClock::WaitUntil(boost::unique_lock<boost::mutex>& lock, boost::condition_variable& condition,
                          SteadyTime deadline) {
    const Registration registration(*this, lock, condition, deadline);
    if (!registration.Passed()) condition.wait(lock);
}

void FakeClock::SleepFor(std::chrono::milliseconds duration) {
    boost::mutex mutex;
    boost::condition_variable condition;
    boost::unique_lock<boost::mutex> lock(mutex);
    const SteadyTime end = Steady() + duration;
    while (Steady() < end) WaitUntil(lock, condition, end);
}

void FakeClock::Advance(std::chrono::milliseconds duration) {
    std::vector<Waiter*> due;
    {
        const std::scoped_lock hold(m_mutex);
        m_steady += duration;
        m_local += boost::posix_time::milliseconds(duration.count());
        for (Waiter& waiter : m_waiters) {
            if (waiter.passed || waiter.deadline > m_steady) continue;
            waiter.passed = true;
            ++waiter.pins;
            due.push_back(&waiter);
        }
    }
    for (Waiter* waiter : due) {
        const boost::unique_lock<boost::mutex> held(*waiter->mutex);
        waiter->condition->notify_all();
    }
    const std::scoped_lock hold(m_mutex);
    for (Waiter* waiter : due) --waiter->pins;
    m_changed.notify_all();
}

void FakeClock::SetLocal(LocalTime local) {
    const std::scoped_lock hold(m_mutex);
    m_local = local;
}

std::size_t FakeClock::CountWaiting() const {
    return static_cast<std::size_t>(std::count_if(m_waiters.begin(), m_waiters.end(),
                                                  [](const Waiter& waiter) { return !waiter.passed; }));
}

bool FakeClock::WaitForWaiters(std::size_t count, std::chrono::seconds bound) {
    std::unique_lock hold(m_mutex);
    return m_changed.wait_for(hold, bound, [&] { return CountWaiting() >= count; });
}

std::uint64_t FakeClock::WaitsBegun() {
    const std::scoped_lock hold(m_mutex);
    return m_waitsBegun;
}

bool FakeClock::WaitForWaitsBegun(std::uint64_t total, std::chrono::seconds bound) {
    std::unique_lock hold(m_mutex);
    return m_changed.wait_for(hold, bound, [&] { return m_waitsBegun >= total; });
}

}  // namespace rq::kit
