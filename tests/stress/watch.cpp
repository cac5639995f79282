#include "stress/watch.h"

#include <utility>

#include "kit/replies.h"
#include "link/codec.h"

namespace rq::stress {
namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;
constexpr std::uint32_t kStallDetailError = 0x80000001u;
constexpr std::uint32_t kStallTaskError = 6;

}  // namespace

// The interface is not destroyed through itself; see DeleteClient.
class WatchedClient final : public IEngineCommunicate {
  public:
    WatchedClient(Watch& watch, IEngineCommunicate& link) : m_watch(watch), m_link(link) {}

    void Initialize(const EngineClientSetup* setup) override {
        m_watch.m_handler = setup->handler;
        m_watch.m_context = setup->context;
        const EngineClientSetup watched{&m_watch, &Watch::OnMessage, {}};  // without a log file
        m_link.Initialize(&watched);
    }
    std::uint32_t Connect(const EngineEndpoint* endpoint) override {
        m_watch.Require(!m_watch.m_hasSession, "the worker connects again");
        const std::uint32_t session = m_link.Connect(endpoint);
        m_watch.m_hasSession = session != kNoSession;
        return session;
    }
    void Disconnect() override {
        m_link.Disconnect();
        m_watch.m_isDisconnected.store(true, kRelaxed);
    }
    void Uninitialize() override { m_link.Uninitialize(); }
    bool SendMessage(std::uint32_t session, std::uint32_t id, const void* record) override {
        const Watch::Send send = m_watch.BeginSend(session, id, record);
        const bool result = m_link.SendMessage(session, id, record);
        m_watch.EndSend(send, result);
        return result;
    }

  private:
    Watch& m_watch;
    IEngineCommunicate& m_link;
};

IEngineCommunicate* Watch::MakeClient(IEngineCommunicate& link) {
    return new WatchedClient(*this, link);
}

void Watch::DeleteClient(IEngineCommunicate** client) {
    delete static_cast<WatchedClient*>(std::exchange(*client, nullptr));
}

void Watch::Fail(const std::string& what) {
    MutexLock lock(m_lock);
    m_failures.push_back(what);
}

std::vector<std::string> Watch::Failures() {
    MutexLock lock(m_lock);
    return m_failures;
}

// ---- the message handler ----

void Watch::OnMessage(std::uint32_t id, const void* payload, void* context) {
    static_cast<Watch*>(context)->HandleOrder(id, payload);
}

void Watch::HandleOrder(std::uint32_t id, const void* payload) {
    Require(!m_isDisconnected.load(kRelaxed), "the handler is called after Disconnect has returned");
    Require(!m_lossBegun.load(kRelaxed), "the handler is called after it was told of the loss");
    m_handlerThread.store(std::this_thread::get_id(), kRelaxed);
    Require(m_orderInHand.exchange(id, kRelaxed) == 0, "the handler is called while it runs");
    m_replies = 0;
    m_handled.push_back(id);
    if (id == TCP_SERVER_DISCONNECT_ID) m_lossBegun.store(true, kRelaxed);
    m_handler(id, payload, m_context);
    if (id == TCP_SERVER_DISCONNECT_ID) m_lossTold.store(true, kRelaxed);
    const int wanted = kit::ReplyTo(id) != 0 ? 1 : 0;
    if (m_replies != wanted)
        Fail("order " + std::to_string(id) + " got " + std::to_string(m_replies) + " replies");
    m_orderInHand.store(0, kRelaxed);
}

// ---- sends ----

Watch::Send Watch::BeginSend(std::uint32_t session, std::uint32_t id, const void* record) {
    Require(m_inside.fetch_add(1, kRelaxed) == 0, "two threads are inside SendMessage");
    Require(!m_isDisconnected.load(kRelaxed), "a message is sent after Disconnect");
    ++m_counts.sends;
    if (std::this_thread::get_id() == m_handlerThread.load(kRelaxed) &&
        id == kit::ReplyTo(m_orderInHand.load(kRelaxed)))
        ++m_replies;

    Send send;
    send.isAfterLoss = m_lossTold.load(kRelaxed);
    if (id == TCP_WORKER_STATE_ID)
        CheckState(static_cast<const EngineStateMessage*>(record)->entries.at(0), send);
    bool isFine = true;
    {
        MutexLock lock(m_lock);
        // One may have had its session before the loss.
        if (send.isAfterLoss && session != kNoSession) isFine = ++m_sendsAfterLoss <= 1;
        if (id == TCP_WORKER_SEND_ID) isFine = isFine && ++m_notices == 1;
    }
    Require(isFine, "a second notice, or a send after the loss that carries a session");
    if (id == TCP_WORKER_PROGRESS_ID)
        CheckProgress(static_cast<const EngineProgressMessage*>(record)->entries.at(0));
    return send;
}

void Watch::CheckProgress(const ProgressEntry& entry) {
    Require(entry.percent >= 0 && entry.percent <= 100, "progress beyond 0 to 100 percent");
    bool isOfTask = false;
    {
        MutexLock lock(m_lock);
        isOfTask = m_hasTask && entry.taskId == m_task.id;
    }
    Require(isOfTask, "progress is sent of another task than the present one");
}

void Watch::CheckState(const TaskStatusEntry& entry, Send& send) {
    if (link::IsFinalTaskStatus(entry.status)) {
        send.state = &entry;
        send.isStall = entry.errorCode == kStallTaskError && entry.detailErrorCode == kStallDetailError;
        if (send.isStall) ++m_counts.stalls;
    }
    const char* problem = nullptr;
    {
        MutexLock lock(m_lock);
        if (!m_hasTask || entry.taskId != m_task.id)
            problem = "a status is sent of another task than the present one";
        else if (send.state != nullptr)
            problem = CheckFinal(entry, send);
    }
    if (problem != nullptr) Fail(problem);
}

const char* Watch::CheckFinal(const TaskStatusEntry& entry, const Send& send) {
    if (send.isStall) {
        if (m_task.finals > 0) ++m_counts.lateStalls;
        return ++m_task.stalls > 1 ? "a task is reported as stalled twice" : nullptr;
    }
    ++m_task.finals;
    m_task.isCancelled = m_task.isCancelled || entry.status == kTaskCancelled;
    if (m_task.isAccepted) return "a final status follows one that was accepted";
    // A report that was past its look at the flag.
    if (send.isAfterLoss && ++m_statesAfterLoss > 1) return "a final status is sent again after the loss";
    return nullptr;
}

void Watch::EndSend(const Send& send, bool isAccepted) {
    Require(!(send.isAfterLoss && isAccepted), "a message is accepted after the loss");
    if (!isAccepted) ++m_counts.refused;
    if (send.state != nullptr && isAccepted) {
        ++m_counts.finals;
        MutexLock lock(m_lock);
        if (!send.isStall) m_task.isAccepted = true;
    }
    m_inside.fetch_sub(1, kRelaxed);
}

// ---- tasks ----

void Watch::OnNewTask(const std::string& id) {
    CheckEnd();
    MutexLock lock(m_lock);
    m_hasTask = true;
    m_task = {};
    m_task.id = id;
}

void Watch::CheckEnd() {
    const bool isLost = m_lossBegun.load(kRelaxed);
    bool isReported = true;
    {
        MutexLock lock(m_lock);
        // A cancelled task is reported once, accepted or not.
        isReported = !m_hasTask || m_task.isAccepted || m_task.isCancelled;
    }
    Require(isReported || isLost, "a task is over without a final status that was accepted");
}

}  // namespace rq::stress
