// Agenda: what happens outside the worker, and when: bytes that arrive, commits that end, orders. One thread
// of the schedule carries it out. Any thread of the schedule may add to it.
#pragma once

#include <functional>
#include <map>
#include <utility>

#include "simulation/scheduler.h"

namespace rq::sim {

class Agenda {
  public:
    explicit Agenda(Scheduler& scheduler) : m_scheduler(scheduler) {}

    void After(std::int64_t delay, std::function<void()> what) {
        m_entries.emplace(std::pair(m_scheduler.Now() + delay, m_number++), std::move(what));
        m_scheduler.WakeAll(this);
    }
    // The thread's function: returns after End().
    void CarryOut() {
        while (!m_isOver) {
            const auto next = m_entries.begin();
            const std::int64_t due = next == m_entries.end() ? kNever : next->first.first;
            if (due > m_scheduler.Now()) {
                m_scheduler.Block(this, "next event", due);
                continue;
            }
            const std::function<void()> what = std::move(next->second);
            m_entries.erase(next);
            what();
            m_scheduler.MayPreempt();
        }
    }
    void End() {
        m_isOver = true;
        m_scheduler.WakeAll(this);
    }

  private:
    Scheduler& m_scheduler;
    std::map<std::pair<std::int64_t, std::uint64_t>, std::function<void()>> m_entries;
    std::uint64_t m_number = 0;
    bool m_isOver = false;
};

}  // namespace rq::sim
