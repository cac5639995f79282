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
    double frameRate_fps = 0;  // frames worked on in a second; 0 when there are none to tell of
};

// "[########            ]  41.5 %   812.4 MiB/s   0:12 left", for a transcode
// "[########            ]  41.5 %   62.3 fps   2.5x   0:12 left", in ASCII, never longer than `columns` - 1;
// what does not fit is left out from the right.
std::string BarLine(const ProgressView& view, unsigned columns);

// "running, 41.5 %, 812.4 MiB/s, 0:12 left", "running, 41.5 %, 62.3 fps, 2.5x, 0:12 left"
std::string PlainLine(const ProgressView& view);

// "0:07", "12:34", "1:02:03"
std::string DurationText(std::chrono::seconds duration);

// Until 100 at this pace; nothing when that is out of sight.
std::optional<std::chrono::seconds> TimeLeft(double percent, double percentPerSecond);

// "812.4 MiB/s"; empty when nothing is known. Units by task type: MiB/s, "x" real time, units a second or
// millisecond.
std::string SpeedText(double speed, std::int32_t type);

// "62.3 fps"; empty when nothing is known, or for a task that does not work on frames.
std::string FrameRateText(double frameRate_fps, std::int32_t type);

// How fast the percentage moves, from the first value that it was given to its latest change.
class Pace {
  public:
    using Time = std::chrono::steady_clock::time_point;
    // Percent per second; nothing until there was a change at least a second after the first value.
    std::optional<double> Update(double percent, Time now);

  private:
    std::optional<Time> m_since;
    Time m_changed;
    double m_first = 0;
    double m_latest = 0;
};

}  // namespace rq::ctl
