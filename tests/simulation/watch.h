// Watch: what must hold in every schedule. It sees every call of the link's client and of the message
// handler, every console and log line, the plug-in's calls and the threads' waits, and fails the schedule at
// the first thing that is not as it must be. Called by whoever holds the baton.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "link/engine_client.h"
#include "simulation/scheduler.h"
#include "util/capture_hub.h"
#include "util/log_capture.h"

namespace rq::sim {

struct World;

class Watch final : public Scheduler::Observer, public LogListener, public ConsoleListener {
  public:
    explicit Watch(World& world) : m_world(world) {}

    // The link's real client, watched; deleted by DeleteClient.
    IEngineCommunicate* MakeClient();
    static void DeleteClient(IEngineCommunicate** client);

    // ---- the worker's life ----
    void OnInitialised(std::int32_t result);
    void OnWorkOver();
    void OnReleased();

    // ---- the plug-in ----
    // Not for an update. `task`: the ID that the analysis gives, which may be empty.
    void OnAnalyse(const std::string& task, std::int32_t result);
    void OnPerform();
    void OnPerformed(std::uint32_t status);

    // How many orders of that session the handler has returned from.
    std::uint64_t OrdersHandled(std::uint32_t session) const;

    // ---- Scheduler::Observer ----
    std::string NameOf(int number) override;
    void OnTimedWait(Scheduler::Thread& thread) override;
    void OnTimedOut(Scheduler::Thread& thread) override;
    void OnThreadEnd(Scheduler::Thread& thread) override;

    void Receive(const LogLine& line) override;
    void Receive(const std::string& utf8) override;

  private:
    friend class WatchedClient;

    struct Try {
        std::int64_t begin = 0;
        std::int64_t end = 0;
    };
    // One call of the status report, from its console line to the next step of the main thread.
    struct Report {
        bool isOpen = false;
        std::uint32_t status = 0;
        std::uint64_t begunAtStep = 0;
        bool isFinal = false;  // with retries: what was sent is 0 or 4
        bool isAccepted = false;
        std::vector<Try> tries;
    };
    struct ProgressThread {
        std::string task;
        int sent = 0;
        bool isFirstRoundOver = false;
        bool mustSend = false;
    };
    struct Send {
        std::uint32_t session = 0;
        std::uint32_t id = 0;
        const void* record = nullptr;
        const TaskStatusEntry* state = nullptr;
        bool isFinal = false;
        std::int64_t begin = 0;
    };

    // ---- calls of the client and of the handler ----
    Send BeginSend(std::uint32_t session, std::uint32_t id, const void* record);
    void EndSend(const Send& send, bool result);
    void BeginOrder(std::uint32_t id, std::uint32_t session);
    void EndOrder(std::uint32_t id, std::uint32_t session);
    static void OnMessage(std::uint32_t id, const void* payload, void* context);

    void CheckProgress(const EngineProgressMessage& message);
    void CheckHeartbeat();
    void CheckReportedState(const Send& send);
    void CheckAccepted(const TaskStatusEntry& entry);
    void CheckRetry(const Send& send);
    void BeginReport(std::uint32_t status);
    void CloseReport();
    void EndRound(ProgressThread& progress);
    bool ProgressIsDue() const;

    std::int64_t Now() const;
    std::uint64_t Step() const;
    // Time for which a final status has kept the send lock, so far.
    std::int64_t Busy() const;
    std::int64_t Slack() const;
    void Require(bool holds, const std::string& what) const;

    World& m_world;
    EngineMessageHandler m_handler = nullptr;
    void* m_context = nullptr;

    bool m_isDisconnected = false;  // Disconnect has returned
    bool m_lossBegun = false;
    std::uint64_t m_lossAtStep = 0;  // the core has noted it; 0 before
    int m_reportsAfterLoss = 0;
    std::int64_t m_exitAt = kNever;  // an order to exit, or the loss, was handled
    std::int64_t m_stopAt = kNever;  // the same for what ends the work loop
    std::map<std::uint32_t, std::uint64_t> m_handled;
    std::uint32_t m_orderInHand = 0;
    int m_replies = 0;  // to that order

    bool m_isPaused = false;           // a suspend was begun and no resume since
    std::uint64_t m_pausedAtStep = 0;  // the handler has returned from it; 0 when not paused
    std::string m_task;
    bool m_hasTask = false;  // has had one
    bool m_isPerforming = false;
    bool m_isClosing = false;
    std::uint64_t m_performedAtStep = 0;  // with a final status; 0 otherwise
    bool m_reportIsDue = false;
    std::uint32_t m_dueStatus = 0;
    std::int64_t m_lastActivity = 0;  // of the main thread
    std::int64_t m_workOverAt = 0;
    Report m_report;
    int m_notices = 0;
    bool m_hasStalled = false;

    int m_sendersInside = 0;
    std::int64_t m_busy = 0;
    std::int64_t m_busySince = kNever;

    std::map<int, ProgressThread> m_progress;  // by the thread's number
    std::int64_t m_lastBeat = kNever;          // its end, or the thread's start
    std::int64_t m_busyAtBeat = 0;
};

}  // namespace rq::sim
