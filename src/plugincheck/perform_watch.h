// PerformWatch: the worker's side of a perform call. It is the progress callback, holds a suspended task, and
// looks at what it is told by the contract's rules.
//
// Begin and End on the main thread around each perform call; the callback on whatever thread the plug-in
// uses; Suspend, Resume and the readers on any. One object at a time; it is never destroyed while a plug-in
// is loaded, since a late callback may come at any moment.
#pragma once

#include <rqworker/plugin.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

#include "base/sync.h"
#include "plugincheck/journal.h"
#include "plugincheck/machine_clock.h"

namespace rq::plugincheck {

// What the rules need to know of a perform call.
struct PerformTerms {
    TaskInfo* info = nullptr;
    bool isTwoPass = false;  // a review that runs from 0 to 100 twice
    bool canPause = false;   // RQ_ABILITY_PAUSE
    std::chrono::milliseconds patrol{60'000};
};

class PerformWatch {
  public:
    // `calls`: how many perform calls there will be at most. `stopFlag` outlives the object.
    PerformWatch(JournalWriter& journal, const volatile std::uint32_t* stopFlag, std::size_t calls);
    PerformWatch(const PerformWatch&) = delete;
    PerformWatch& operator=(const PerformWatch&) = delete;

    static RQProgressCallback Callback() { return &PerformWatch::OnProgress; }

    // The context of the call that begins, told from those of all others.
    void* Begin(const PerformTerms& terms);
    void End();

    // Called on the perform call's thread at its n-th progress call, from 1. Set while no call runs.
    void SetCallHook(std::function<void(std::uint32_t)> hook) { m_hook = std::move(hook); }

    void Suspend() { m_isPaused = true; }
    void Resume() { m_isPaused = false; }
    // A promise of silence by the host service; any thread.
    void QuietFor(std::chrono::seconds duration) RQ_EXCLUDES(m_mutex);
    std::uint32_t Calls() const { return m_calls; }
    std::chrono::milliseconds LongestSilence() const RQ_EXCLUDES(m_mutex);

    // The longest time between two progress calls of a plug-in that can be paused: 1 s is asked.
    static constexpr std::chrono::milliseconds kPauseGap{1500};

  private:
    using TimePoint = MachineClock::time_point;

    static std::uint32_t OnProgress(std::int64_t total, std::int64_t done, void* context);
    std::uint32_t Take(std::int64_t total, std::int64_t done, const char* context);
    void Hold();
    void CheckFigures(std::int64_t total, std::int64_t done) RQ_REQUIRES(m_mutex);
    void CheckSilence(TimePoint now) RQ_REQUIRES(m_mutex);

    JournalWriter& m_journal;
    const volatile std::uint32_t* m_stopFlag;
    std::vector<char> m_contexts;  // each perform call's context is the address of one of them
    std::function<void(std::uint32_t)> m_hook;
    std::atomic<const char*> m_current{nullptr};  // null while no perform call runs
    std::atomic<bool> m_isPaused{false};
    std::atomic<std::uint32_t> m_calls{0};
    std::size_t m_next = 0;

    mutable Mutex m_mutex;
    PerformTerms m_terms RQ_GUARDED_BY(m_mutex);
    std::thread::id m_thread RQ_GUARDED_BY(m_mutex);
    double m_percent RQ_GUARDED_BY(m_mutex) = 0;
    TimePoint m_lastCall RQ_GUARDED_BY(m_mutex);
    TimePoint m_quietUntil RQ_GUARDED_BY(m_mutex);
    std::chrono::milliseconds m_longestSilence RQ_GUARDED_BY(m_mutex){0};
};

}  // namespace rq::plugincheck
