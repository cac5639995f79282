#include "simulation/engine.h"

#include <algorithm>
#include <utility>

#include "records/task_results.h"
#include "simulation/world.h"

namespace rq::sim {
namespace {

// Of everything but final statuses: the engine has a second.
constexpr std::int64_t kLongestAckDelay = 900 * kMillisecond;

std::string Number(std::uint64_t value) {
    return std::to_string(value);
}

FinalRecord RecordOf(const TaskStatusEntry& entry) {
    return {Engine::kAttempt, entry.taskId, entry.status,
            Number(entry.errorCode) + "|" + Number(entry.detailErrorCode) + "|" + entry.furtherText};
}

}  // namespace

// ---- the engine ----

Engine::Answer Engine::Accept(const std::shared_ptr<Socket>& socket) {
    if (m_isDown || m_world.scheduler.Now() < m_world.scenario.engineUp) return Answer::Refused;
    const Handshake handshake = NextHandshake();
    if (handshake == Handshake::Hangs) return Answer::Hangs;
    auto peer = std::make_shared<EnginePeer>(*this, socket, handshake);
    m_peers.push_back(peer);
    socket->SetPeer(peer);
    return Answer::Accepted;
}

Handshake Engine::NextHandshake() {
    const auto& planned = m_world.scenario.handshakes;
    return m_handshakes < planned.size() ? planned[m_handshakes++] : Handshake::Welcome;
}

void Engine::Crash() {
    m_world.scheduler.Note("the engine crashes");
    ++m_world.counts.crashes;
    ++m_life;
    m_isDown = true;
    m_disk.Crash();
    for (const auto& peer : std::exchange(m_peers, {})) peer->Die();
    m_world.agenda.After(m_world.scenario.engineBackAfter, [this] { m_isDown = false; });
}

void Engine::CheckFinals() const {
    const auto& records = m_disk.Records();
    for (std::size_t i = 0; i < records.size(); ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            if (records[i].IsOf(records[j]))
                m_world.scheduler.Fail("the final status of " + records[i].task + " is recorded twice");
        }
    }
}

// ---- one connection ----

void EnginePeer::Later(std::int64_t delay, void (EnginePeer::*what)()) {
    m_world.agenda.After(delay, [self = shared_from_this(), what] {
        if (self->m_socket) ((*self).*what)();
    });
}

void EnginePeer::Die() {
    if (const auto socket = std::exchange(m_socket, nullptr)) socket->Break();
}

void EnginePeer::OnEnd() {
    if (!m_socket) return;
    m_world.scheduler.Note("the engine sees the end of connection " + std::to_string(m_socket->Number()));
    m_socket->CloseByEngine();
    m_socket = nullptr;
    std::erase(m_engine.m_peers, shared_from_this());
}

void EnginePeer::OnBytes(std::string_view bytes) {
    m_reader.Feed(bytes);
    link::Frame frame;
    while (m_socket) {
        const auto status = m_reader.Next(&frame);
        if (status == link::FrameReader::Status::NeedMore) return;
        if (status == link::FrameReader::Status::Bad)
            m_world.scheduler.Fail("the worker sent " + m_reader.Problem());
        OnFrame(frame);
    }
}

void EnginePeer::OnFrame(const link::Frame& frame) {
    m_world.scheduler.Note("engine got " + link::IdText(frame.id) + " seq " + Number(frame.seq) + " ack " +
                           Number(frame.ack));
    if (m_heardBye) m_world.scheduler.Fail("the worker sent a frame after its BYE");
    if ((frame.id < TCP_WORKER_HEARTBEAT_ID) != (frame.seq == 0))
        m_world.scheduler.Fail("a frame of the worker's has the wrong kind of number");
    TakeAck(frame.ack);
    if (frame.id == link::kHelloId) return OnHello(frame);
    if (!m_isOpen) m_world.scheduler.Fail("the worker sent a frame before it was welcomed");
    if (frame.seq == 0)
        OnControl(frame);
    else
        OnNumbered(frame);
}

void EnginePeer::OnHello(const link::Frame& frame) {
    const auto hello = link::DecodeHello(frame.body);
    if (!hello || hello->token != Engine::kToken || hello->attempt != Engine::kAttempt)
        m_world.scheduler.Fail("the worker's HELLO is not what it should be");
    switch (m_handshake) {
        case Handshake::Refuse:
            SendFrame(0, link::kRefuseId, link::EncodeRefuse({link::kRefuseEnding, "not now"}));
            m_socket->CloseByEngine();
            return;
        case Handshake::Close:
            m_socket->CloseByEngine();
            return;
        case Handshake::NoSession: {
            link::Welcome welcome;
            welcome.sessionId = kNoSession;
            SendFrame(0, link::kWelcomeId, link::EncodeWelcome(welcome));
            return;
        }
        case Handshake::Late:
            return Later(m_world.random.Between(4'900, 5'200) * kMillisecond, &EnginePeer::Welcome);
        case Handshake::Mute:
        case Handshake::Hangs:
            return;
        case Handshake::Welcome:
            return Welcome();
    }
}

void EnginePeer::Welcome() {
    link::Welcome welcome;
    m_session = ++m_engine.m_lastSession;
    welcome.sessionId = m_session;
    welcome.pingInterval_ms = m_world.scenario.ping_ms;
    welcome.silenceLimit_ms = m_world.scenario.silence_ms;
    SendFrame(0, link::kWelcomeId, link::EncodeWelcome(welcome));
    m_isOpen = true;
    for (const PlannedOrder& order : m_world.scenario.orders) {
        if (order.isEarly) Order(order);
    }
    const std::int64_t toClosing = m_world.scenario.closing - m_world.scheduler.Now();
    Later(std::max<std::int64_t>(toClosing, 0), &EnginePeer::GiveClosingOrders);
    BeginTrouble();
}

// Once in a schedule.
void EnginePeer::BeginTrouble() {
    if (std::exchange(m_engine.m_hasHadTrouble, true)) return;
    const Scenario& scenario = m_world.scenario;
    const auto at = [&](auto what) {
        m_world.agenda.After(scenario.troubleAt, [self = shared_from_this(), what] {
            if (self->m_socket) what(*self);
        });
    };
    switch (scenario.trouble) {
        case Trouble::None:
            return;
        case Trouble::CutToWorker:
            return m_socket->CutToWorkerAfter(scenario.troubleAt);
        case Trouble::CutToEngine:
            return m_socket->CutToEngineAfter(scenario.troubleAt);
        case Trouble::Reset:
            return at([](EnginePeer& peer) { peer.m_socket->Break(); });
        case Trouble::Silence:
            return at([](EnginePeer& peer) { peer.m_socket->FallSilent(); });
        case Trouble::StuckWrite:
            return at([](EnginePeer& peer) { peer.m_socket->HoldNextWrite(11 * kSecond); });
        case Trouble::Bye:
            return at([](EnginePeer& peer) {
                peer.SendFrame(0, link::kByeId, {});
                peer.m_saidBye = true;
                peer.m_socket->CloseByEngine();
            });
        case Trouble::Crash:
            m_world.agenda.After(scenario.troubleAt, [&engine = m_engine] { engine.Crash(); });
            return;
    }
}

// An acknowledgement never goes down, is never for what was not sent, nor for an order whose handler has not
// returned.
void EnginePeer::TakeAck(std::uint64_t ack) {
    if (ack < m_peerAck) m_world.scheduler.Fail("the worker's acknowledgement goes back");
    if (ack > m_sent) m_world.scheduler.Fail("the worker acknowledges what was not sent");
    // The handler never sees 12306 of the wire.
    std::uint64_t toHandle = 0;
    for (std::uint64_t seq = 0; seq < ack; ++seq)
        toHandle += m_orders[seq] != TCP_SERVER_DISCONNECT_ID ? 1 : 0;
    if (toHandle > m_world.watch.OrdersHandled(m_session))
        m_world.scheduler.Fail("the worker acknowledges an order before it was handled");
    m_peerAck = ack;
}

void EnginePeer::OnControl(const link::Frame& frame) {
    if (frame.id == link::kPingId) {
        SendAck();
    } else if (frame.id == link::kByeId) {
        m_heardBye = true;
        OnEnd();
    }
}

void EnginePeer::OnNumbered(const link::Frame& frame) {
    if (frame.seq != m_received + 1)
        m_world.scheduler.Fail("the worker sent seq " + Number(frame.seq) + " after " + Number(m_received));
    m_received = frame.seq;
    const auto record = link::DecodeWorkerRecord(frame.id, frame.body);
    if (!record) m_world.scheduler.Fail("a record of the worker's cannot be decoded");
    if (frame.id == TCP_WORKER_SEND_ID) OnNotice();
    if (const auto* state = std::get_if<EngineStateMessage>(&*record)) {
        CheckEntry(state->entries.at(0));
        if (link::IsFinalState(*state)) return OnFinal(frame.seq, state->entries.front());
    }
    AckSoon();
}

void EnginePeer::OnNotice() {
    if (std::exchange(m_hasNotice, true)) m_world.scheduler.Fail("a second notice came");
    for (const PlannedOrder& order : m_world.scenario.orders) {
        if (!order.isEarly) Order(order);
    }
}

// What a task leaves behind begins with the task's ID (see plugin.cpp).
void EnginePeer::CheckEntry(const TaskStatusEntry& entry) const {
    const auto isOf = [&](const std::string& text) {
        return text.empty() || text.compare(0, entry.taskId.size() + 1, entry.taskId + ":") == 0;
    };
    bool own = isOf(entry.furtherText);
    if (const auto* result = dynamic_cast<const stTranscodeTaskResult*>(entry.result.get())) {
        for (const TranscodeOutputEntry& output : result->outputs) own = own && isOf(output.first);
    }
    if (!own) m_world.scheduler.Fail("the report of " + entry.taskId + " has something of another task");
}

// ---- final statuses ----

void EnginePeer::OnFinal(std::uint64_t seq, const TaskStatusEntry& entry) {
    m_world.scheduler.Note("engine got final status " + Number(entry.status) + " of " + entry.taskId);
    m_uncommitted.insert(seq);
    const std::int64_t delay = m_world.random.Between(0, m_world.scenario.longestCommit);
    if (m_engine.m_failedCommits < m_world.scenario.failedCommits) {
        ++m_engine.m_failedCommits;  // the worker will send it again
        ++m_world.counts.failedCommits;
        return;
    }
    const std::size_t place = m_engine.m_disk.Write(RecordOf(entry));
    m_world.agenda.After(delay, [self = shared_from_this(), seq, place, life = m_engine.m_life] {
        if (life == self->m_engine.m_life) self->EndCommit(seq, place);
    });
}

void EnginePeer::EndCommit(std::uint64_t seq, std::size_t place) {
    m_engine.m_disk.Sync(place);
    if (!m_socket) return;
    if (m_engine.m_lostAcks < m_world.scenario.lostAcks) {
        ++m_engine.m_lostAcks;
        ++m_world.counts.lostAcks;
        return;
    }
    // A repeat answers for the frames before it: they are the same report.
    m_uncommitted.erase(m_uncommitted.begin(), m_uncommitted.upper_bound(seq));
    SendAck();
    if (m_world.scenario.repeatsAcks) SendAck();
}

std::uint64_t EnginePeer::Has() const {
    return m_uncommitted.empty() ? m_received : *m_uncommitted.begin() - 1;
}

// ---- what the engine says ----

void EnginePeer::SendFrame(std::uint64_t seq, std::uint32_t id, const std::string& body) {
    if (m_saidBye) return;
    // A receiver ignores a smaller acknowledgement than one it has seen.
    const bool isOld = m_world.scenario.reportsOldAcks && id >= TCP_WORKER_HEARTBEAT_ID;
    const std::uint64_t ack = isOld ? Has() / 2 : Has();
    m_socket->Send(link::EncodeFrameHead(seq, ack, id, body.size()) + body);
}

void EnginePeer::SendAck() {
    m_ackIsPlanned = false;
    SendFrame(0, link::kAckId, {});
}

void EnginePeer::AckSoon() {
    if (std::exchange(m_ackIsPlanned, true)) return;
    Later(m_world.random.Between(0, kLongestAckDelay), &EnginePeer::SendAck);
}

void EnginePeer::Order(const PlannedOrder& planned) {
    m_world.agenda.After(planned.delay, [self = shared_from_this(), planned] {
        if (self->m_socket) self->SendOrder(planned.id, planned.task);
    });
}

void EnginePeer::SendOrder(std::uint32_t id, const std::string& task) {
    m_world.scheduler.Note("engine sends " + Number(id) + " " + task);
    std::string body;
    if (id == TCP_TASK_ADD_ID || id == TCP_TASK_UPDATE_ID) {
        body = link::EncodeTaskText(m_world.scenario.Find(task)->Text()).value();
    } else if (id != TCP_WORKER_DESTROY_ID) {
        TaskCommand command;
        command.uuid.fill(static_cast<std::uint8_t>(m_sent + 1));
        if (m_world.random.OneIn(2)) command.taskIds = {"T1", "x"};
        body = link::EncodeTaskCommand(command);
    }
    m_orders.push_back(id);
    SendFrame(++m_sent, id, body);
}

// Whatever the worker does: after these it has to end.
void EnginePeer::GiveClosingOrders() {
    if (m_saidBye) return;
    SendOrder(m_world.random.OneIn(2) ? TCP_TASK_CANCEL_ID : TCP_TASK_FINISH_ID, {});
    if (m_world.random.OneIn(2)) SendOrder(TCP_TASK_RESUME_ID, {});
    SendOrder(TCP_WORKER_DESTROY_ID, {});
}

}  // namespace rq::sim
