// HastyClock: the real clock, a hundred times as fast, so that a worker's waits of seconds are short and its
// threads meet in them as they do in a long life. Any thread.
#pragma once

#include <boost/date_time/posix_time/posix_time.hpp>
#include <chrono>
#include <thread>

#include "base/clock.h"

namespace rq::stress {

class HastyClock final : public Clock {
  public:
    static constexpr int kHaste = 100;

    SteadyTime Steady() override { return m_begin + (SystemClock().Steady() - m_begin) * kHaste; }
    LocalTime Local() override {
        const auto passed = std::chrono::duration_cast<std::chrono::microseconds>(Steady() - m_begin);
        return m_localBegin + boost::posix_time::microseconds(passed.count());
    }
    void WaitUntil(boost::unique_lock<boost::mutex>& lock, boost::condition_variable& condition,
                   SteadyTime deadline) override {
        SystemClock().WaitUntil(lock, condition, m_begin + (deadline - m_begin) / kHaste);
    }
    void SleepFor(std::chrono::milliseconds duration) override {
        std::this_thread::sleep_for(std::chrono::microseconds(duration) / kHaste);
    }

  private:
    const SteadyTime m_begin = SystemClock().Steady();
    const LocalTime m_localBegin = SystemClock().Local();
};

}  // namespace rq::stress
