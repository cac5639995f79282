#include "link/engine_client.h"

#include <new>
#include <utility>

#include "base/text.h"
#include "platform/environment.h"
#include "platform/process.h"

namespace rq::link {
namespace {

// A failure that repeats is logged at first and then each time that many more have come.
constexpr std::uint32_t kLogEachFailure = 60;

// Writes that the system takes at once, before the I/O thread looks at anything else.
constexpr int kWritesInARow = 8;

// What is left of each text of a final status that would not fit into a frame.
constexpr std::size_t kShortText_bytes = std::size_t{64} * 1024;

void AddNote(std::string* text, const std::string& note) {
    if (!text->empty()) *text += "; ";
    *text += note;
}

bool CutTexts(TaskStatusEntry* entry) {
    bool isCut = false;
    for (std::string* text : {&entry->taskId, &entry->second, &entry->third, &entry->detailErrorText,
                              &entry->errorText, &entry->furtherText}) {
        if (text->size() <= kShortText_bytes) continue;
        text->resize(CutUtf8(*text, kShortText_bytes).size());
        isCut = true;
    }
    return isCut;
}

Result<std::string> EncodeShortened(EngineStateMessage message, std::size_t size_bytes, bool cutTexts) {
    for (TaskStatusEntry& entry : message.entries) {
        if (cutTexts && CutTexts(&entry))
            AddNote(&entry.furtherText,
                    "texts are cut to " + std::to_string(kShortText_bytes) + " bytes at most");
        if (!entry.result) continue;
        entry.result = nullptr;
        AddNote(&entry.furtherText, "the result is left out: the report would have " +
                                        std::to_string(size_bytes) + " bytes, and the link takes " +
                                        std::to_string(kFrameLimit_bytes));
    }
    return EncodeWorkerRecord(TCP_WORKER_STATE_ID, &message);
}

}  // namespace

EngineClientOptions OptionsFromEnvironment() {
    EngineClientOptions options;
    options.token = platform::GetEnvironment("RQ_ENGINE_TOKEN").value_or("");
    options.attempt = platform::GetEnvironment("RQ_ATTEMPT").value_or("");
    options.workerVersion = RQ_LINK_VERSION;
    options.journal = platform::GetEnvironment("RQ_LINK_JOURNAL").value_or("");
    return options;
}

IEngineCommunicate* CreateEngineClient(const EngineClientOptions& options) {
    return new EngineClient(options);
}

EngineClient::EngineClient(EngineClientOptions options)
    : m_options(std::move(options)),
      m_clock(m_options.clock != nullptr ? *m_options.clock : SystemClock()),
      m_spool(m_clock, [this](bool isProblem, const std::string& line) {
          m_log.Write(isProblem ? LogLevel::Warning : LogLevel::Info, line);
      }) {}

EngineClient::~EngineClient() {
    EngineClient::Disconnect();
    EngineClient::Uninitialize();
}

void EngineClient::Initialize(const EngineClientSetup* setup) {
    if (setup == nullptr) return;
    m_handler = setup->handler;
    m_context = setup->context;
    m_log.Open(setup->logFile);
    if (m_options.journal.empty() || m_journal.IsOpen()) return;
    const auto warn = [this](const std::string& problem) { m_log.Write(LogLevel::Warning, problem); };
    if (const std::string problem = m_journal.Open(m_options.journal, warn); !problem.empty()) warn(problem);
}

void EngineClient::Uninitialize() {
    Disconnect();
    m_handler = nullptr;
    m_context = nullptr;
    m_log.Close();
}

// ---- Connect ----

std::uint32_t EngineClient::Connect(const EngineEndpoint* endpoint) {
    if (endpoint == nullptr || endpoint->address == nullptr) return kNoSession;
    if (const std::uint32_t sessionId = GivenSession(); sessionId != kNoSession) return sessionId;
    const std::string address = endpoint->address;
    const std::uint16_t port = endpoint->port;
    if (!StartThreads()) {
        LogFailedConnect("no thread could be started for the link");
        return kNoSession;
    }
    std::uint64_t attempt = 0;
    {
        Signal::Hold hold(m_connectSignal);
        attempt = ++m_connectAttempt;
        m_connectOutcome.reset();
        m_connectSignal.Reset(hold);
    }
    m_io.Post([this, attempt, address, port] { OpenConnection(attempt, address, port); });
    return AwaitConnect(address + ":" + std::to_string(port));
}

// A session is open before DecideConnect has said whether anybody will know of it.
std::uint32_t EngineClient::GivenSession() {
    std::uint32_t open = kNoSession;
    {
        MutexLock lock(m_lock);
        if (m_session && m_session->TakesMessages()) open = m_session->SessionId();
    }
    Signal::Hold hold(m_connectSignal);
    return m_connectOutcome == open ? open : kNoSession;
}

bool EngineClient::StartThreads() {
    return m_handlerThread.Start(m_handler, m_context, [this](const Delivery& delivery) {
        OnHanded(delivery);
    }) && m_io.Start([this](const std::string& thrown) { OnIoFailure(thrown); });
}

std::uint32_t EngineClient::AwaitConnect(const std::string& where) {
    std::uint32_t sessionId = kNoSession;
    std::string reason;
    {
        // The I/O thread decides at the latest when the time for connecting has passed; the second more is
        // for the case that it cannot.
        const SteadyTime last = m_clock.Steady() + m_options.limits.connect + std::chrono::seconds(1);
        Signal::Hold hold(m_connectSignal);
        while (!m_connectOutcome && m_connectSignal.WaitUntil(hold, last)) {
        }
        if (!m_connectOutcome) {
            m_connectOutcome = kNoSession;
            m_connectReason = "no outcome in time";
        }
        sessionId = *m_connectOutcome;
        reason = m_connectReason;
    }
    if (sessionId == kNoSession) {
        LogFailedConnect("connect to " + where + " failed: " + reason);
        return kNoSession;
    }
    m_failedConnects.Forget();
    m_log.Write(LogLevel::Info, "connected to " + where + ", session " + std::to_string(sessionId));
    return sessionId;
}

void EngineClient::LogFailedConnect(const std::string& line) {
    if (const std::uint32_t count = m_failedConnects.Count(line); count > 0)
        m_log.Write(LogLevel::Warning, line + (count > 1 ? ", attempt " + std::to_string(count) : ""));
}

std::uint32_t EngineClient::Repeats::Count(const std::string& line) {
    if (line != m_line) {
        m_line = line;
        m_count = 0;
    }
    return m_count++ % kLogEachFailure == 0 ? m_count : 0;
}

bool EngineClient::DecideConnect(std::uint64_t attempt, std::uint32_t sessionId, std::string reason) {
    Signal::Hold hold(m_connectSignal);
    if (m_connectOutcome || attempt != m_connectAttempt) return false;
    m_connectOutcome = sessionId;
    m_connectReason = std::move(reason);
    m_connectSignal.Notify(hold);
    return true;
}

// ---- the I/O thread ----

// Sessions begin and end on this thread only, so that nothing of one reaches the next.
void EngineClient::OpenConnection(std::uint64_t attempt, const std::string& address, std::uint16_t port) {
    {
        Signal::Hold hold(m_endSignal);
        m_ended = false;
        m_endSignal.Reset(hold);
    }
    {
        // From here on a failure is one of this attempt, and of no session yet.
        MutexLock lock(m_lock);
        m_session.reset();
        m_unacknowledged.clear();
        m_lastStatus = 0;
        m_connectionNumber = attempt;
    }
    CloseConnection("a new attempt to connect");
    Hello hello;
    hello.token = m_options.token;
    hello.attempt = m_options.attempt;
    hello.processId = platform::CurrentProcessId();
    hello.workerVersion = m_options.workerVersion;
    {
        MutexLock lock(m_lock);
        m_session = std::make_unique<Session>(hello, m_options.limits, m_clock.Steady(), m_log.IsDebug());
    }
    m_address = address;
    m_port = port;
    MakeConnection();
    m_connection->Open(m_address, m_port);
    Settle();
}

void EngineClient::MakeConnection() {
    Connection::Listener* listener = this;  // a private base: converted here
    m_connection = std::make_shared<Connection>(m_io.Io(), listener, m_options.lookUp);
}

void EngineClient::OnConnected() {
    m_journal.Connected(m_options.workerVersion);
    {
        MutexLock lock(m_lock);
        if (m_session) m_session->OnConnected(m_clock.Steady());
    }
    Settle();
}

void EngineClient::OnBytes(std::string_view bytes) {
    m_journal.Received(bytes);
    {
        MutexLock lock(m_lock);
        if (m_session) m_session->OnBytes(bytes, m_clock.Steady());
    }
    Settle();
}

void EngineClient::OnWritten() {
    {
        MutexLock lock(m_lock);
        if (m_session) m_session->OnWritten(m_clock.Steady());
    }
    Settle();
}

void EngineClient::OnDisconnected(std::string reason) {
    {
        MutexLock lock(m_lock);
        if (m_session) m_session->OnDisconnected(std::move(reason), m_clock.Steady());
    }
    Settle();
}

// What the thread was about to do is not known to be done, an order perhaps not handed on: the session ends
// and is not resumed. It may have been closed before, with its end not carried out to the last.
void EngineClient::OnIoFailure(const std::string& thrown) {
    const std::string reason = "an exception on the I/O thread: " + thrown;
    m_log.Write(LogLevel::Warning, "the I/O thread caught: " + thrown);
    {
        MutexLock lock(m_lock);
        if (m_session) m_session->Fail(reason);
    }
    Settle();
    {
        Signal::Hold hold(m_endSignal);
        if (m_ended) return;
    }
    CarryClosed({true, reason});
}

void EngineClient::OnTimer() {
    {
        MutexLock lock(m_lock);
        if (m_session) m_session->OnTime(m_clock.Steady());
    }
    Settle();
}

// Carries out what the session wants after anything has happened to it. After some writes what has arrived
// meanwhile, and the deadlines, have their turn: senders may be as quick as the system takes their messages.
void EngineClient::Settle() {
    for (int writes = 0; writes < kWritesInARow; ++writes)
        if (!SettleOnce()) return;
    RequestSettle();
}

// True when something was written at once: what follows from that is to be seen to.
bool EngineClient::SettleOnce() {
    std::vector<SessionEvent> events;
    std::string output;
    std::optional<SteadyTime> deadline;
    {
        MutexLock lock(m_lock);
        if (!m_session) return false;
        TakeAcknowledged(m_session->AcknowledgedByPeer());
        output = m_session->TakeOutput(m_clock.Steady());
        events = m_session->TakeEvents();
        deadline = m_session->Deadline();
    }
    for (SessionEvent& event : events) {
        const auto* welcomed = std::get_if<Welcomed>(&event);
        if (welcomed == nullptr) {
            Carry(std::move(event));
            continue;
        }
        m_handlerThread.ReserveLoss(
            {ConnectionNumber(), welcomed->sessionId, 0, TCP_SERVER_DISCONNECT_ID, ServerLost{}});
        {
            MutexLock lock(m_lock);
            BeginSpool();
        }
        if (!DecideConnect(ConnectionNumber(), welcomed->sessionId, {})) {
            AbandonSession();
            return false;
        }
    }
    if (!m_connection) return false;  // closed, perhaps by one of the events
    if (!output.empty()) {
        m_journal.Sent(output);
        if (m_connection->Write(std::move(output))) {
            MutexLock lock(m_lock);
            m_session->OnWritten(m_clock.Steady());
            return true;
        }
    }
    m_connection->SetTimer(deadline, m_clock.Steady());
    return false;
}

// The engine's answer came after Connect had given up: nobody knows of the session, so that it cannot be lost
// either, and what came behind the answer is not handed on: orders, or the engine's own end of the session.
void EngineClient::AbandonSession() {
    const std::string reason = "the engine's answer came too late";
    m_handlerThread.ForgetLoss();
    {
        MutexLock lock(m_lock);
        m_session->Abandon(reason);
        m_session->TakeEvents();
    }
    CarryClosed({false, reason});
}

void EngineClient::Carry(SessionEvent event) {
    if (const auto* note = std::get_if<LogNote>(&event)) {
        m_log.Write(note->level, note->text);
    } else if (auto* order = std::get_if<OrderArrived>(&event)) {
        Delivery delivery;
        {
            MutexLock lock(m_lock);
            delivery = {m_connectionNumber, m_session->SessionId(), order->seq, order->id,
                        std::move(order->order)};
        }
        m_handlerThread.Push(std::move(delivery));
    } else if (std::holds_alternative<ByeWritten>(event)) {
        if (m_connection) m_connection->ShutdownSend();
    } else if (const auto* lost = std::get_if<ConnectionLost>(&event)) {
        CarryConnectionLost(*lost);
    } else if (std::holds_alternative<ConnectAgain>(event)) {
        m_connection->Open(m_address, m_port);
    } else if (const auto* failed = std::get_if<AttemptFailed>(&event)) {
        CarryAttemptFailed(*failed);
    } else if (const auto* resumed = std::get_if<Resumed>(&event)) {
        {
            MutexLock lock(m_lock);
            if (m_session->SpoolFolder() != m_spoolFolder) BeginSpool();
        }
        TellResumed(*resumed);
    } else {
        CarryClosed(std::get<SessionClosed>(event));
    }
}

// Each step may be carried out again after one behind it has failed.
void EngineClient::CarryClosed(const SessionClosed& closed) {
    TellLost(closed);
    CloseConnection(closed.reason);
    bool isLost = false;
    {
        MutexLock lock(m_lock);
        if (closed.wasOpen) SpoolFinal();
        m_finals.FailAll();
        isLost = closed.wasOpen && !m_disconnecting;
    }
    if (isLost) m_handlerThread.PushLoss();
    DecideConnect(ConnectionNumber(), kNoSession, closed.reason);
    Signal::Hold hold(m_endSignal);
    m_ended = true;
    m_endSignal.Notify(hold);
}

// A line that cannot be written keeps nothing back; the same below.
void EngineClient::TellLost(const SessionClosed& closed) noexcept try {
    std::uint32_t lost = kNoSession;
    {
        MutexLock lock(m_lock);
        if (closed.wasOpen && !m_disconnecting && m_session) lost = m_session->SessionId();
    }
    if (lost != kNoSession && m_handlerThread.HasLoss())
        m_log.Write(LogLevel::Warning, "session " + std::to_string(lost) + " lost: " + closed.reason);
} catch (...) {
}

void EngineClient::JournalClosed(const std::string& reason) noexcept try {
    m_journal.Closed(reason);
} catch (...) {
}

std::uint64_t EngineClient::ConnectionNumber() {
    MutexLock lock(m_lock);
    return m_connectionNumber;
}

std::uint32_t EngineClient::SessionId() {
    MutexLock lock(m_lock);
    return m_session ? m_session->SessionId() : kNoSession;
}

void EngineClient::CloseConnection(const std::string& reason) {
    JournalClosed(reason);
    if (!m_connection) return;
    m_connection->Close();
    m_connection.reset();
}

// ---- sending ----

bool EngineClient::SendMessage(std::uint32_t sessionId, std::uint32_t id, const void* record) {
    if (sessionId == kNoSession)
        return Refused(id, "there is no session (" + std::to_string(kNoSession) + ")");
    Result<std::string> body = EncodeWorkerRecord(id, record);
    if (!body) return Refused(id, body.error().message);
    const bool isFinal =
        id == TCP_WORKER_STATE_ID && IsFinalState(*static_cast<const EngineStateMessage*>(record));
    if (isFinal && !BodyFits(body->size())) {
        body = ShortenFinal(*static_cast<const EngineStateMessage*>(record), body->size());
        if (!body) return Refused(id, body.error().message);
    }

    FinalWait wait(m_clock);
    std::string problem;
    std::string unmarked;
    if (isFinal && static_cast<const EngineStateMessage*>(record)->entries.back().status != kTaskCancelled)
        unmarked = *body;
    {
        MutexLock lock(m_lock);
        std::uint64_t seq = 0;
        const bool isRepeat = !unmarked.empty() && m_unanswered.Has(unmarked);
        if (isRepeat && BodyFits(body->size() + kRepeatMark_bytes)) MarkRepeat(*body);
        SpoolWriter::Body copy;
        if (m_session && m_session->SessionId() == sessionId) {
            if (isFinal && !m_session->SpoolFolder().empty())
                copy = std::make_shared<const std::string>(*body);
            seq = m_session->Queue(id, std::move(*body), &problem);
        } else {
            problem = "session " + std::to_string(sessionId) + " is not the open one";
        }
        if (seq != 0 && isFinal) m_finals.Add(seq, &wait);
        const std::uint64_t previous = m_lastStatus;
        if (seq != 0 && id == TCP_WORKER_STATE_ID && !isRepeat) m_lastStatus = seq;
        if (seq != 0 && copy) {
            Remember({seq, previous, std::move(copy)});
            if (m_session->CurrentState() == Session::State::Interrupted) SpoolFinal();
        }
    }
    if (!problem.empty()) return Refused(id, problem);
    RequestSettle();
    if (!isFinal) return true;

    const bool acknowledged = wait.Await(m_clock.Steady() + m_options.finalWait);
    MutexLock lock(m_lock);
    m_finals.Remove(&wait);
    if (!acknowledged) SpoolFinal();
    if (!unmarked.empty()) m_unanswered.Note(unmarked, acknowledged);
    return acknowledged;
}

// A status that can never be sent would be repeated for ever: it goes without its result, and if that is not
// enough, with short texts.
Result<std::string> EngineClient::ShortenFinal(const EngineStateMessage& message, std::size_t size_bytes) {
    const std::string would =
        ": " + IdText(TCP_WORKER_STATE_ID) + " would have " + std::to_string(size_bytes) + " bytes";
    Result<std::string> body = EncodeShortened(message, size_bytes, false);
    if (body && BodyFits(body->size())) {
        m_log.Write(LogLevel::Warning, "a final status goes without its result" + would);
        return body;
    }
    m_log.Write(LogLevel::Warning, "a final status goes with texts cut short and without a result" + would);
    return EncodeShortened(message, size_bytes, true);
}

bool EngineClient::Refused(std::uint32_t id, const std::string& problem) {
    m_log.Write(LogLevel::Warning, IdText(id) + " not sent: " + problem);
    return false;
}

void EngineClient::RequestSettle() {
    if (m_settleRequested.exchange(true)) return;
    try {
        m_io.Post([this] {
            m_settleRequested = false;
            Settle();
        });
    } catch (const std::bad_alloc&) {
        // What waits goes with whatever happens next on the connection, at the latest with the next ping.
        m_settleRequested = false;
    }
}

void EngineClient::OnHanded(const Delivery& delivery) {
    if (delivery.seq == 0) return;
    {
        MutexLock lock(m_lock);
        if (!m_session || delivery.connection != m_connectionNumber) return;
        m_session->MarkHanded(delivery.seq);
    }
    RequestSettle();
}

// ---- Disconnect ----

void EngineClient::Disconnect() {
    if (m_handlerThread.IsThisThread()) {
        m_log.Write(LogLevel::Warning, "Disconnect from the message handler: not done");
        return;
    }
    if (!m_io.IsRunning()) return;
    m_handlerThread.Refuse();
    std::uint32_t sessionId = kNoSession;
    {
        MutexLock lock(m_lock);
        m_disconnecting = true;
        if (m_session && m_session->TakesMessages()) sessionId = m_session->SessionId();
        if (m_session) m_session->End();
    }
    RequestSettle();
    {
        Signal::Hold hold(m_endSignal);
        const SteadyTime deadline = m_clock.Steady() + m_options.disconnectWait;
        while (!m_ended)
            if (!m_endSignal.WaitUntil(hold, deadline)) break;
    }
    m_io.Stop();
    CloseConnection("the engine did not close in time");
    {
        MutexLock lock(m_lock);
        m_session.reset();
        m_finals.FailAll();
        m_disconnecting = false;
    }
    m_handlerThread.Stop();
    m_spool.Finish(m_options.spoolWait);
    if (sessionId != kNoSession)
        m_log.Write(LogLevel::Info, "disconnected, session " + std::to_string(sessionId));
}

}  // namespace rq::link

namespace rq {

IEngineCommunicate* CreateEngineClient() {
    return new link::EngineClient(link::OptionsFromEnvironment());
}

void DeleteEngineClient(IEngineCommunicate** client) {
    if (client == nullptr || *client == nullptr) return;
    delete static_cast<link::EngineClient*>(*client);
    *client = nullptr;
}

}  // namespace rq
