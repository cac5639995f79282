// SentMessages: copies of everything that was sent, with the session ID and the clock's time. Any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "base/clock.h"
#include "records/engine_messages.h"

namespace rq::testing {

struct SentMessage {
    std::uint32_t sessionId = 0;
    std::uint32_t id = 0;
    std::variant<std::monostate, HeartbeatRecord, TaskNotice, TaskCommandReply, EngineProgressMessage,
                 EngineStateMessage>
        record;
    SteadyTime time;

    template <class Record>
    const Record& As() const {
        return std::get<Record>(record);
    }
    // The one entry of a report.
    const TaskStatusEntry& Status() const { return As<EngineStateMessage>().entries.at(0); }
    const ProgressEntry& Progress() const { return As<EngineProgressMessage>().entries.at(0); }
};

class SentMessages {
  public:
    void Record(std::uint32_t sessionId, std::uint32_t id, const void* record, SteadyTime time) {
        SentMessage message{sessionId, id, {}, time};
        switch (id) {
            case TCP_WORKER_HEARTBEAT_ID:
                message.record = *static_cast<const HeartbeatRecord*>(record);
                break;
            case TCP_WORKER_SEND_ID:
                message.record = *static_cast<const TaskNotice*>(record);
                break;
            case TCP_WORKER_PROGRESS_ID:
                message.record = *static_cast<const EngineProgressMessage*>(record);
                break;
            case TCP_WORKER_STATE_ID:
                message.record = *static_cast<const EngineStateMessage*>(record);
                break;
            default:
                message.record = *static_cast<const TaskCommandReply*>(record);
        }
        const std::scoped_lock lock(m_mutex);
        m_messages.push_back(std::move(message));
        m_changed.notify_all();
    }

    std::vector<SentMessage> All() const {
        const std::scoped_lock lock(m_mutex);
        return m_messages;
    }
    std::vector<SentMessage> WithId(std::uint32_t id) const {
        std::vector<SentMessage> chosen;
        for (auto& message : All())
            if (message.id == id) chosen.push_back(message);
        return chosen;
    }
    // The statuses of all status reports, in order.
    std::vector<std::uint32_t> Statuses() const {
        std::vector<std::uint32_t> statuses;
        for (const auto& message : WithId(TCP_WORKER_STATE_ID)) statuses.push_back(message.Status().status);
        return statuses;
    }
    // The time only bounds a test that has gone wrong.
    bool WaitFor(std::uint32_t id, std::size_t count,
                 std::chrono::seconds bound = std::chrono::seconds(60)) const {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, bound, [&] {
            std::size_t found = 0;
            for (const auto& message : m_messages) found += message.id == id ? 1 : 0;
            return found >= count;
        });
    }
    void Clear() {
        const std::scoped_lock lock(m_mutex);
        m_messages.clear();
    }

  private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<SentMessage> m_messages;
};

}  // namespace rq::testing
