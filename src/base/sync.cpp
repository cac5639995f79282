#include "base/sync.h"

namespace rq {

namespace {

// The end of `duration` from `now`, the last moment there is when that is too far.
SteadyTime After(SteadyTime now, std::chrono::milliseconds duration) {
    const auto room = std::chrono::duration_cast<std::chrono::milliseconds>(SteadyTime::max() - now);
    return duration >= room ? SteadyTime::max() : now + duration;
}

}  // namespace

bool Signal::WaitUntil(Hold& hold, SteadyTime deadline) {
    while (!m_notified) {
        if (m_clock.Steady() >= deadline) return false;
        m_clock.WaitUntil(hold.m_lock, m_condition, deadline);
    }
    m_notified = false;
    return true;
}

bool Signal::WaitFor(Hold& hold, std::chrono::milliseconds duration) {
    return WaitUntil(hold, After(m_clock.Steady(), duration));
}

void Signal::Notify(Hold&) {
    m_notified = true;
    m_condition.notify_one();
}

void Signal::Reset(Hold&) {
    m_notified = false;
}

bool Signal::WaitUntil(SteadyTime deadline) {
    Hold hold(*this);
    return WaitUntil(hold, deadline);
}

bool Signal::WaitFor(std::chrono::milliseconds duration) {
    Hold hold(*this);
    return WaitFor(hold, duration);
}

void Signal::Notify() {
    Hold hold(*this);
    Notify(hold);
}

}  // namespace rq
