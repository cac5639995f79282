// Breaches: what a plug-in did against its contract during one task. Each kind gets one line in the log for
// each task, which names the plug-in; the task goes on as if nothing had been said. Any thread; Reset by the
// thread that begins a task.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "util/worker_util.h"

namespace rq {

enum class Breach : std::uint32_t {
    DoneAboveTotal = 1,
    NegativeFigure = 2,
    LateCallback = 4,
    OtherThread = 8,
    ReturnedRunning = 16,
};

class Breaches {
  public:
    void Reset() { m_seen.store(0, std::memory_order_relaxed); }

    // `what` completes "plug-in <name> ".
    void Tell(Breach breach, const std::string& pluginName, const char* what) {
        const auto bit = static_cast<std::uint32_t>(breach);
        if ((m_seen.load(std::memory_order_relaxed) & bit) != 0) return;
        if ((m_seen.fetch_or(bit, std::memory_order_relaxed) & bit) != 0) return;
        Log(3, "plug-in " + pluginName + " " + what);
    }

  private:
    std::atomic<std::uint32_t> m_seen{0};
};

}  // namespace rq
