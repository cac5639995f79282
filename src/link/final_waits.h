// Senders of final statuses, each waiting for the acknowledgement of its frame. The list belongs to the
// client and is used under the client's lock; each FinalWait stands on its sender's stack and is taken out of
// the list, under that lock, before it goes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "base/sync.h"

namespace rq::link {

class FinalWait {
  public:
    explicit FinalWait(Clock& clock) : m_signal(clock) {}

    // True when it was acknowledged; false when the connection was lost or the time ran out.
    bool Await(SteadyTime deadline) {
        Signal::Hold hold(m_signal);
        while (!m_decided)
            if (!m_signal.WaitUntil(hold, deadline)) break;
        return m_acknowledged;
    }
    void Decide(bool acknowledged) {
        Signal::Hold hold(m_signal);
        m_decided = true;
        m_acknowledged = acknowledged;
        m_signal.Notify(hold);
    }

  private:
    Signal m_signal;
    bool m_decided RQ_GUARDED_BY(m_signal) = false;
    bool m_acknowledged RQ_GUARDED_BY(m_signal) = false;
};

class FinalWaits {
  public:
    void Add(std::uint64_t seq, FinalWait* wait) { m_waits.push_back({seq, wait}); }
    void Remove(const FinalWait* wait) {
        std::erase_if(m_waits, [wait](const Entry& entry) { return entry.wait == wait; });
    }
    // Ends every wait for a frame up to `acknowledged`.
    void Acknowledge(std::uint64_t acknowledged) {
        std::erase_if(m_waits, [acknowledged](const Entry& entry) {
            if (entry.seq > acknowledged) return false;
            entry.wait->Decide(true);
            return true;
        });
    }
    void FailAll() {
        for (const Entry& entry : m_waits) entry.wait->Decide(false);
        m_waits.clear();
    }

  private:
    struct Entry {
        std::uint64_t seq;
        FinalWait* wait;
    };
    std::vector<Entry> m_waits;
};

// Final statuses that were sent and not acknowledged in time. Their caller sends those with status 0 and 4
// again.
class Unanswered {
  public:
    bool Has(const std::string& body) const {
        return std::find(m_bodies.begin(), m_bodies.end(), body) != m_bodies.end();
    }
    void Note(const std::string& body, bool acknowledged) {
        std::erase(m_bodies, body);
        if (!acknowledged) m_bodies.push_back(body);
        // Two senders at most: the task's own end and the patrol.
        if (m_bodies.size() > 2) m_bodies.erase(m_bodies.begin());
    }

  private:
    std::vector<std::string> m_bodies;
};

}  // namespace rq::link
