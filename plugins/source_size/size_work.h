// Waits until files are complete: looks at each again and again, until its size and time of modification have
// stayed for a while and the size is as asked. Lives as long as one perform call, on its thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "plugin_common/report.h"
#include "rqworker/plugin.hpp"
#include "size_task.h"

namespace rq::source_size {

class SizeRecord final : public plugin::TaskRecord {
  public:
    explicit SizeRecord(SizeTask task) : TaskRecord(RQ_TYPE_SOURCE_SIZE, task.id), m_task(std::move(task)) {}
    const SizeTask& Task() const { return m_task; }

  private:
    SizeTask m_task;
};

// Between two looks, and between two readings of the stop flag.
constexpr std::chrono::milliseconds kLook{500};
constexpr std::chrono::milliseconds kStep{50};
// How long the look at a file may take before the task counts as stalled.
constexpr std::int64_t kOneCall_s = 60;
constexpr std::size_t kMaxFurtherText_bytes = 16u << 10;

class SizeWork {
  public:
    SizeWork(SizeRecord& record, plugin::Run& run, const plugin::Host& host);
    plugin::Outcome Do();

  private:
    using Clock = std::chrono::steady_clock;
    enum class State {
        kUnknown,   // not looked at yet
        kAbsent,    // not there, or cannot be looked at
        kChanging,  // or not looked at for long enough
        kSmall,     // stays, but is smaller than asked
        kLarge,     // larger than the exact size: it will not become smaller by being written
        kComplete,
    };
    struct Watched {
        State state = State::kUnknown;
        std::uint32_t systemCode = 0;  // why it is absent
        std::uint64_t size_bytes = 0;
        std::int64_t modified_ns = 0;
        Clock::time_point since;  // unchanged
    };

    void LookAtAll();
    void Look(std::size_t index);
    bool AllComplete() const;
    bool AnyTooLarge() const;
    // The time for which a task is suspended, which holds the callback, is none of its own.
    template <class Call>
    Clock::duration Tell(const Call& call);
    // Tells progress and waits; false when the task is to stop.
    bool WaitForNextLook();
    plugin::Outcome Conclude();
    std::string WordsOf(std::size_t index) const;

    SizeRecord& m_record;
    plugin::Run& m_run;
    const plugin::Host& m_host;
    task::Report m_report;
    std::vector<Watched> m_files;
    Clock::time_point m_begin = Clock::now();
    std::int64_t m_told = 0;  // files told as complete
};

}  // namespace rq::source_size
