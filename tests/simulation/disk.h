// The engine's fake disk: final statuses, one record for each attempt's task. What was written but not yet
// synced is gone after a crash.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace rq::sim {

struct FinalRecord {
    std::string attempt;
    std::string task;
    std::uint32_t status = 0;
    std::string text;  // everything else that the report said

    bool IsOf(const FinalRecord& other) const { return attempt == other.attempt && task == other.task; }
};

class Disk {
  public:
    // The place of the record for that attempt and task; written now when there is none.
    std::size_t Write(const FinalRecord& record) {
        const auto found = std::find_if(m_records.begin(), m_records.end(),
                                        [&](const FinalRecord& each) { return each.IsOf(record); });
        if (found != m_records.end()) return static_cast<std::size_t>(found - m_records.begin());
        m_records.push_back(record);
        return m_records.size() - 1;
    }
    // Everything up to this place is there for good.
    void Sync(std::size_t place) { m_synced = std::max(m_synced, std::min(place + 1, m_records.size())); }
    void Crash() { m_records.resize(m_synced); }

    // What survives whatever comes; null when there is none.
    const FinalRecord* Durable(const std::string& attempt, const std::string& task) const {
        for (std::size_t i = 0; i < m_synced; ++i) {
            if (m_records[i].attempt == attempt && m_records[i].task == task) return &m_records[i];
        }
        return nullptr;
    }
    const std::vector<FinalRecord>& Records() const { return m_records; }
    std::size_t Synced() const { return m_synced; }

  private:
    std::vector<FinalRecord> m_records;
    std::size_t m_synced = 0;
};

}  // namespace rq::sim
