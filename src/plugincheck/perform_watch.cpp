#include "plugincheck/perform_watch.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace rq::plugincheck {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;

constexpr std::uint32_t kNoContext = 0xFFFFFFFFu;
constexpr milliseconds kPausePass(2);
constexpr std::int64_t kLongestPromise_s = 366LL * 24 * 60 * 60;

std::atomic<PerformWatch*> g_watch{nullptr};

std::string Percent(double percent) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", percent);
    return text;
}

std::string OfTotal(std::int64_t total, std::int64_t done) {
    return std::to_string(done) + " of " + std::to_string(total);
}

}  // namespace

PerformWatch::PerformWatch(JournalWriter& journal, const volatile std::uint32_t* stopFlag, std::size_t calls)
    : m_journal(journal), m_stopFlag(stopFlag), m_contexts(calls) {
    g_watch = this;
}

void* PerformWatch::Begin(const PerformTerms& terms) {
    MutexLock lock(m_mutex);
    m_terms = terms;
    m_thread = std::this_thread::get_id();
    m_percent = 0;
    m_lastCall = m_quietUntil = MachineClock::now();
    m_calls = 0;
    m_isPaused = false;  // an order that came too late for the call before
    char* context = &m_contexts[m_next++ % m_contexts.size()];
    m_current = context;
    return context;
}

void PerformWatch::End() {
    MutexLock lock(m_mutex);
    if (RQLoad32(m_stopFlag) == RQ_STOP_NONE) CheckSilence(MachineClock::now());
    m_current = nullptr;
    m_isPaused = false;
}

std::uint32_t PerformWatch::OnProgress(std::int64_t total, std::int64_t done, void* context) {
    PerformWatch* watch = g_watch;
    if (watch == nullptr) return 0;
    if (context == nullptr) {
        watch->m_journal.Tell(Check::ProgressContext, "the context was NULL");
        return kNoContext;
    }
    return watch->Take(total, done, static_cast<const char*>(context));
}

std::uint32_t PerformWatch::Take(std::int64_t total, std::int64_t done, const char* context) {
    const std::less<const char*> isBefore;
    if (isBefore(context, m_contexts.data()) || !isBefore(context, m_contexts.data() + m_contexts.size())) {
        m_journal.Tell(Check::ProgressContext, "a context that no perform call was given");
        return 0;
    }
    if (context != m_current) {
        m_journal.Tell(Check::ProgressLate,
                       "a call with " + OfTotal(total, done) +
                           (m_current.load() == nullptr ? " while no perform call was running"
                                                        : " and the context of an earlier perform call"));
        return 0;
    }
    bool isOwnThread = false;
    {
        MutexLock lock(m_mutex);
        isOwnThread = std::this_thread::get_id() == m_thread;
        if (!isOwnThread) {
            m_journal.Tell(Check::ProgressThread, "a call with " + OfTotal(total, done) +
                                                      " on another thread than the perform call's");
        }
        CheckSilence(MachineClock::now());
        CheckFigures(total, done);
        for (const Check check : {Check::ProgressThread, Check::ProgressContext, Check::NegativeFigure})
            m_journal.Exercised(check);
    }
    const std::uint32_t call = ++m_calls;
    if (isOwnThread && m_hook) m_hook(call);
    Hold();
    return 0;
}

// The status is written as a worker writes it. A call whose perform call has returned is let go.
void PerformWatch::Hold() {
    if (!m_isPaused || RQLoad32(m_stopFlag) != RQ_STOP_NONE) return;
    const char* const current = m_current;
    if (current == nullptr) return;
    TaskInfo* info = nullptr;
    {
        MutexLock lock(m_mutex);
        info = m_terms.info;
    }
    m_journal.Exercised(Check::Pause);
    RQStore32(&info->status, RQ_STATUS_PAUSED);
    while (m_isPaused && RQLoad32(m_stopFlag) == RQ_STOP_NONE && m_current == current)
        std::this_thread::sleep_for(kPausePass);
    if (m_current == current) RQStore32(&info->status, RQ_STATUS_RUNNING);
    MutexLock lock(m_mutex);
    m_lastCall = MachineClock::now();
    m_quietUntil = std::max(m_quietUntil, m_lastCall);
}

void PerformWatch::CheckFigures(std::int64_t total, std::int64_t done) {
    if (total < 0 || done < 0) {
        m_journal.Tell(Check::NegativeFigure, "progress of " + OfTotal(total, done));
        return;
    }
    if (total == 0) {  // a sign of life for `done` seconds
        m_quietUntil = m_lastCall + std::chrono::seconds(std::min(done, kLongestPromise_s));
        return;
    }
    double percent = static_cast<double>(done) / static_cast<double>(total) * 100.0;
    m_journal.Exercised(Check::PercentAbove100);
    m_journal.Exercised(Check::PercentBackwards);
    if (percent > 100.0)
        m_journal.Tell(Check::PercentAbove100,
                       "progress of " + OfTotal(total, done) + " (" + Percent(percent) + " %)");
    if (m_terms.isTwoPass) percent = percent / 2 + (m_percent >= 50 ? 50 : 0);
    if (percent < m_percent - 1e-9)
        m_journal.Tell(Check::PercentBackwards, "progress of " + OfTotal(total, done) + " (" +
                                                    Percent(percent) + " %) after " + Percent(m_percent) +
                                                    " %");
    m_percent = percent;
}

void PerformWatch::CheckSilence(TimePoint now) {
    m_journal.Exercised(Check::Silence);
    const auto gap = duration_cast<milliseconds>(now - m_lastCall);
    const auto silence = duration_cast<milliseconds>(now - std::max(m_lastCall, m_quietUntil));
    if (gap > kPauseGap && m_terms.canPause)
        m_journal.Tell(Check::Pause, "no progress call for " + std::to_string(gap.count()) +
                                         " ms; this check allows " + std::to_string(kPauseGap.count()) +
                                         " ms");
    if (silence > m_terms.patrol)
        m_journal.Tell(Check::Silence, "nothing for " + std::to_string(silence.count()) +
                                           " ms, the patrol waits " + std::to_string(m_terms.patrol.count()) +
                                           " ms: a worker would have stopped the task as stalled");
    m_longestSilence = std::max(m_longestSilence, silence);
    m_lastCall = now;
}

void PerformWatch::QuietFor(std::chrono::seconds duration) {
    MutexLock lock(m_mutex);
    const auto bounded = std::min<std::int64_t>(duration.count(), kLongestPromise_s);
    m_quietUntil = MachineClock::now() + std::chrono::seconds(bounded);
}

std::chrono::milliseconds PerformWatch::LongestSilence() const {
    MutexLock lock(m_mutex);
    return m_longestSilence;
}

}  // namespace rq::plugincheck
