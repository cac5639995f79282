// The worker's side of a perform call as the work sees it: the stop flag, and the progress, which is told at
// most every kReport_ms and never goes back. The perform call's thread only.
#pragma once

#include <chrono>
#include <cstdint>

#include "plugin_common/long_call.h"
#include "rqworker/plugin.hpp"

namespace rq::transcode {

constexpr std::chrono::milliseconds kReport_ms{50};

class Watch {
  public:
    explicit Watch(plugin::Run& run) : m_run(run) {}

    bool Cancelled() const { return m_run.Stop() == RQ_STOP_CANCEL; }
    bool Stopped() const { return m_run.Stop() != RQ_STOP_NONE; }

    // `units` a second are counted; `length_us` below 1 when nobody knows it: then the fraction of the
    // source's bytes that is read tells how much that is (Fraction).
    void Begin(std::int64_t length_us, double units_per_s);
    void Fraction(double fraction);
    // How far the work has come in the target's time.
    void At(std::int64_t position_us);
    // Tells the progress when it is time for it; held here while the task is suspended.
    void Tick();
    // All done: everything that was to be done, or when that was not known, what was.
    void Complete();
    // What `call` returns. It is made aside, and counts as alive for so long.
    template <class Call>
    auto Aside(Call call, std::chrono::seconds limit) {
        return task::MakeLongCall(m_run, std::move(call), limit);
    }

  private:
    void Tell(std::int64_t total, std::int64_t done);

    plugin::Run& m_run;
    std::chrono::steady_clock::time_point m_toldAt = std::chrono::steady_clock::now();
    double m_unitsPerSecond = 0;
    std::int64_t m_total = 0;  // 0: not known
    double m_fraction = 0;
    std::int64_t m_positionUs = 0;
    std::int64_t m_toldTotal = 0;
    std::int64_t m_toldDone = 0;
};

}  // namespace rq::transcode
