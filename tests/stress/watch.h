// Watch: stands between the worker core and its link, and holds what must be true whatever the order of the
// threads. It collects what was wrong instead of ending the run; the main thread asks at the end.
//
// It orders the threads no more than the core does, so that a race checker sees what there is: sends come one
// at a time under the core's send lock anyway, and what the handler's side notes is atomic and relaxed.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "base/sync.h"
#include "link/engine_communicate.h"
#include "records/engine_messages.h"

namespace rq::stress {

// Of all lives.
struct Counts {
    // The main thread's.
    std::uint64_t lives = 0;
    std::uint64_t tasks = 0;
    std::uint64_t reports = 0;
    std::chrono::steady_clock::duration performing{0};  // without what held it: pauses, quiet times
    std::map<std::uint32_t, std::uint64_t> orders;      // handled, by id
    // Any thread's.
    std::atomic<std::uint64_t> sends = 0;
    std::atomic<std::uint64_t> refused = 0;
    std::atomic<std::uint64_t> finals = 0;
    std::atomic<std::uint64_t> stalls = 0;
    std::atomic<std::uint64_t> lateStalls = 0;  // behind the task's own final status
};

class Watch {
  public:
    explicit Watch(Counts& counts) : m_counts(counts) {}

    // A client that passes everything on to `link`, which the caller keeps.
    IEngineCommunicate* MakeClient(IEngineCommunicate& link);
    static void DeleteClient(IEngineCommunicate** client);

    // The plug-in analyses a new task, on the main thread. All that was sent of the one before has been sent.
    void OnNewTask(const std::string& id);

    // ---- for the main thread, when the worker is gone ----
    void CheckEnd();
    const std::vector<std::uint32_t>& Handled() const { return m_handled; }
    std::vector<std::string> Failures();
    void Fail(const std::string& what);

  private:
    friend class WatchedClient;

    // What has been sent of the task that was analysed last.
    struct Reported {
        std::string id;
        int finals = 0;  // of its own
        bool isAccepted = false;
        bool isCancelled = false;
        int stalls = 0;
    };
    struct Send {
        const TaskStatusEntry* state = nullptr;  // of a final status
        bool isStall = false;
        bool isAfterLoss = false;
    };

    static void OnMessage(std::uint32_t id, const void* payload, void* context);
    void HandleOrder(std::uint32_t id, const void* payload);
    Send BeginSend(std::uint32_t session, std::uint32_t id, const void* record);
    void EndSend(const Send& send, bool isAccepted);
    void CheckState(const TaskStatusEntry& entry, Send& send);
    void CheckProgress(const ProgressEntry& entry);
    const char* CheckFinal(const TaskStatusEntry& entry, const Send& send) RQ_REQUIRES(m_lock);
    void Require(bool holds, const char* what) {
        if (!holds) Fail(what);
    }

    Counts& m_counts;
    EngineMessageHandler m_handler = nullptr;
    void* m_context = nullptr;

    std::atomic<int> m_inside = 0;
    std::atomic<bool> m_isDisconnected = false;
    std::atomic<bool> m_lossBegun = false;
    std::atomic<bool> m_lossTold = false;
    bool m_hasSession = false;  // the main thread's

    // The handler thread's.
    std::atomic<std::thread::id> m_handlerThread;
    std::atomic<std::uint32_t> m_orderInHand = 0;
    int m_replies = 0;
    std::vector<std::uint32_t> m_handled;  // the main thread's when the worker is gone

    Mutex m_lock;
    bool m_hasTask RQ_GUARDED_BY(m_lock) = false;
    Reported m_task RQ_GUARDED_BY(m_lock);
    int m_notices RQ_GUARDED_BY(m_lock) = 0;
    int m_sendsAfterLoss RQ_GUARDED_BY(m_lock) = 0;
    int m_statesAfterLoss RQ_GUARDED_BY(m_lock) = 0;
    std::vector<std::string> m_failures RQ_GUARDED_BY(m_lock);
};

}  // namespace rq::stress
