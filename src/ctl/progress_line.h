// How a task's progress looks on a terminal and in plain lines. Pure; one thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace rq::ctl {

struct ProgressView {
    std::string state;   // as the API names it
    double percent = 0;  // 0 to 100
    double speed = 0;    // in the unit of the type
    std::int32_t type = 0;
    std::optional<std::chrono::seconds> left;
};

// "[########            ]  41.5 %   812.4 MiB/s   0:12 left", in ASCII, never longer than `columns` - 1; what
// does not fit is left out from the right.
std::string BarLine(const ProgressView& view, unsigned columns);

// "running, 41.5 %, 812.4 MiB/s, 0:12 left"
std::string PlainLine(const ProgressView& view);

// "0:07", "12:34", "1:02:03"
std::string DurationText(std::chrono::seconds duration);

// "812.4 MiB/s"; empty when nothing is known. Units by task type: MiB/s, "x" real time, units a second or
// millisecond.
std::string SpeedText(double speed, std::int32_t type);

// Estimates what is left from how the percentage moved since the first value that it was given.
class RemainingTime {
  public:
    using Time = std::chrono::steady_clock::time_point;
    // Nothing until the percentage has moved for a second at least.
    std::optional<std::chrono::seconds> Update(double percent, Time now);

  private:
    std::optional<Time> m_since;
    double m_first = 0;
};

}  // namespace rq::ctl
