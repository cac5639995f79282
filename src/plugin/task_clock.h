// TaskClock: local time that no step of the wall clock can move. Anchored when a task begins, it gives the
// local time of that moment moved on by the steady clock; before the first anchor it is the wall clock. Any
// thread; one anchors.
#pragma once

#include <atomic>
#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <chrono>
#include <cstdint>
#include <limits>

#include "base/clock.h"

namespace rq {

class TaskClock {
  public:
    explicit TaskClock(Clock& clock) : m_clock(clock) {}

    void Anchor() {
        const std::int64_t steady_us = Steady_us();
        m_offset_us.store((m_clock.Local() - Epoch()).total_microseconds() - steady_us);
    }

    LocalTime Now() const {
        const std::int64_t offset_us = m_offset_us.load(std::memory_order_relaxed);
        if (offset_us == kNoAnchor) return m_clock.Local();
        return Epoch() + boost::posix_time::microseconds(Steady_us() + offset_us);
    }

  private:
    static constexpr std::int64_t kNoAnchor = std::numeric_limits<std::int64_t>::min();

    static const LocalTime& Epoch() {
        static const LocalTime epoch(boost::gregorian::date(1970, 1, 1));
        return epoch;
    }

    std::int64_t Steady_us() const {
        return std::chrono::duration_cast<std::chrono::microseconds>(m_clock.Steady().time_since_epoch())
            .count();
    }

    Clock& m_clock;
    std::atomic<std::int64_t> m_offset_us{
        kNoAnchor};  // local minus steady; one word, so that it is never torn
};

}  // namespace rq
