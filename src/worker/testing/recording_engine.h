// RecordingEngine: an engine client that keeps a copy of everything sent, notes the calls in the test's
// journal and delivers orders when the test says so. Its EngineScript belongs to the test and outlives it.
// Any thread.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "link/engine_communicate.h"
#include "supervision/testing/journal.h"
#include "supervision/testing/sent_messages.h"

namespace rq::testing {

struct EngineScript {
    EngineScript(Journal& noteIn, Clock& timesFrom) : journal(noteIn), clock(timesFrom) {}

    // As the client library would, on the caller's thread.
    void Deliver(std::uint32_t id, const void* payload) const { setup.handler(id, payload, setup.context); }
    void DeliverText(std::uint32_t id, const char* text, std::uint32_t sessionId = 7) const {
        const TaskTextPayload payload{sessionId, 0, text};
        Deliver(id, &payload);
    }
    void DeliverCommand(std::uint32_t id, const TaskCommand& command = {},
                        std::uint32_t sessionId = 7) const {
        const TaskCommandPayload payload{sessionId, 0, &command};
        Deliver(id, &payload);
    }
    void DeliverLoss(std::uint32_t sessionId = 7) const {
        const DisconnectPayload payload{sessionId};
        Deliver(TCP_SERVER_DISCONNECT_ID, &payload);
    }
    void DeliverDestroy() const { Deliver(TCP_WORKER_DESTROY_ID, nullptr); }

    Journal& journal;
    Clock& clock;
    EngineClientSetup setup;                   // what Initialize was given
    std::deque<std::uint32_t> connectResults;  // then 7
    std::function<void()> onConnect;           // before Connect returns
    std::function<void()> onDisconnect;
    std::function<bool(std::uint32_t)> onSend;  // accepts everything without; what it throws the sender gets
    SentMessages sent;
    std::atomic<int> sendersInside = 0;
};

class RecordingEngine final : public IEngineCommunicate {
  public:
    explicit RecordingEngine(EngineScript& script) : m_script(script) {
        m_script.journal.Note("client created");
    }
    ~RecordingEngine() { m_script.journal.Note("client deleted"); }

    void Initialize(const EngineClientSetup* setup) override {
        m_script.journal.Note("client.Initialize");
        m_script.setup = *setup;
    }
    std::uint32_t Connect(const EngineEndpoint* endpoint) override {
        m_script.journal.Note("client.Connect " + std::string(endpoint->address) + ":" +
                              std::to_string(endpoint->port));
        std::uint32_t result = 7;
        if (!m_script.connectResults.empty()) {
            result = m_script.connectResults.front();
            m_script.connectResults.pop_front();
        }
        if (m_script.onConnect) m_script.onConnect();
        return result;
    }
    void Disconnect() override {
        m_script.journal.Note("client.Disconnect");
        if (m_script.onDisconnect) m_script.onDisconnect();
    }
    void Uninitialize() override { m_script.journal.Note("client.Uninitialize"); }
    bool SendMessage(std::uint32_t sessionId, std::uint32_t id, const void* record) override {
        const Inside inside(m_script.sendersInside);
        m_script.journal.Note("send " + std::to_string(id));
        m_script.sent.Record(sessionId, id, record, m_script.clock.Steady());
        return (!m_script.onSend || m_script.onSend(id)) && sessionId != kNoSession;
    }

  private:
    class Inside {
      public:
        explicit Inside(std::atomic<int>& senders) : m_senders(senders) {
            EXPECT_EQ(m_senders.fetch_add(1), 0) << "two senders at once";
        }
        ~Inside() { m_senders.fetch_sub(1); }
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;

      private:
        std::atomic<int>& m_senders;
    };

    EngineScript& m_script;
};

}  // namespace rq::testing
