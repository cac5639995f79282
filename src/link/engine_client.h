// EngineClient: the engine link's client behind IEngineCommunicate. It joins four parts: the codec, the
// session (a state machine), the transport (sockets on an I/O thread) and the handler thread.
// docs/engine-link.md, section 10, says what its callers may rely on.
//
// Threads: Initialize, Connect, Disconnect and Uninitialize belong to one thread, the owner's (never the
// handler's); SendMessage to any. The I/O thread never waits for the handler or for a sender.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/sync.h"
#include "link/engine_communicate.h"
#include "link/final_waits.h"
#include "link/handler_thread.h"
#include "link/journal.h"
#include "link/link_log.h"
#include "link/session.h"
#include "link/spool_writer.h"
#include "link/transport.h"

namespace rq::link {

struct EngineClientOptions {
    std::string token;
    std::string attempt;
    std::string workerVersion;
    std::string journal;  // path of the journal (link/journal.h); empty: none
    SessionLimits limits;
    std::chrono::milliseconds finalWait{5'000};       // for the acknowledgement of a final status
    std::chrono::milliseconds disconnectWait{1'000};  // for what is queued and the peer's end
    std::chrono::milliseconds spoolWait{5'000};       // for the spool file at the client's end
    Clock* clock = nullptr;                           // every time and wait of the link; null: the system's
    HostLookUp lookUp;                                // of host names; empty: the system's
};

// What CreateEngineClient() uses: token, attempt and journal from RQ_ENGINE_TOKEN, RQ_ATTEMPT and
// RQ_LINK_JOURNAL.
EngineClientOptions OptionsFromEnvironment();
// For tests and programs with values of their own. Destroyed by DeleteEngineClient.
IEngineCommunicate* CreateEngineClient(const EngineClientOptions& options);

// Not virtual, its destructor: the interface's table begins with Initialize and ends with SendMessage.
class EngineClient final : public IEngineCommunicate, private Connection::Listener {
  public:
    explicit EngineClient(EngineClientOptions options);
    ~EngineClient();
    EngineClient(const EngineClient&) = delete;
    EngineClient& operator=(const EngineClient&) = delete;

    void Initialize(const EngineClientSetup* setup) override;
    std::uint32_t Connect(const EngineEndpoint* endpoint) override;
    void Disconnect() override;
    void Uninitialize() override;
    bool SendMessage(std::uint32_t sessionId, std::uint32_t id, const void* record) override;

  private:
    // The I/O thread.
    void OnConnected() override;
    void OnBytes(std::string_view bytes) override;
    void OnWritten() override;
    void OnDisconnected(std::string reason) override;
    void OnTimer() override;
    void OpenConnection(std::uint64_t attempt, const std::string& address, std::uint16_t port);
    void Settle();
    bool SettleOnce();
    void AbandonSession();
    void Carry(SessionEvent event);
    void CarryClosed(const SessionClosed& closed);
    void CarryConnectionLost(const ConnectionLost& lost);
    void CarryAttemptFailed(const AttemptFailed& failed);
    void TellInterrupted(const ConnectionLost& lost) noexcept;
    void TellAttemptFailed(const AttemptFailed& failed) noexcept;
    void TellResumed(const Resumed& resumed) noexcept;
    void MakeConnection();
    void TellLost(const SessionClosed& closed) noexcept;
    void JournalClosed(const std::string& reason) noexcept;
    void OnIoFailure(const std::string& thrown);
    void CloseConnection(const std::string& reason);
    std::uint64_t ConnectionNumber();
    std::uint32_t SessionId();

    // The owner's thread.
    std::uint32_t GivenSession();
    bool StartThreads();
    std::uint32_t AwaitConnect(const std::string& where);
    void LogFailedConnect(const std::string& line);

    // Any thread.
    void OnHanded(const Delivery& delivery);
    void RequestSettle();
    // False when Connect waits for that attempt no longer.
    bool DecideConnect(std::uint64_t attempt, std::uint32_t sessionId, std::string reason);
    Result<std::string> ShortenFinal(const EngineStateMessage& message, std::size_t size_bytes);
    bool Refused(std::uint32_t id, const std::string& problem);
    // A final status, until it is acknowledged; only where the engine has named a folder for it.
    struct Final {
        std::uint64_t seq = 0;
        std::uint64_t previous = 0;  // the status before it
        SpoolWriter::Body body;
    };
    // To be kept when it is not acknowledged in time.
    void Remember(Final status) RQ_REQUIRES(m_lock);
    // Of the acknowledgement up to that number.
    void TakeAcknowledged(std::uint64_t seq) RQ_REQUIRES(m_lock);
    // WELCOME has named the folder for it.
    void BeginSpool() RQ_REQUIRES(m_lock);
    // To the file, what no engine has acknowledged.
    void SpoolFinal() noexcept RQ_REQUIRES(m_lock);

    // One line of many that say the same.
    class Repeats {
      public:
        // How often it has come in a row when it is to be logged, else 0.
        std::uint32_t Count(const std::string& line);
        void Forget() { m_line.clear(); }

      private:
        std::string m_line;
        std::uint32_t m_count = 0;
    };

    const EngineClientOptions m_options;
    Clock& m_clock;
    EngineMessageHandler m_handler = nullptr;
    void* m_context = nullptr;
    LinkLog m_log;

    Mutex m_lock;
    std::unique_ptr<Session> m_session RQ_GUARDED_BY(m_lock);
    std::uint64_t m_connectionNumber RQ_GUARDED_BY(m_lock) = 0;  // the attempt that m_session came by
    bool m_disconnecting RQ_GUARDED_BY(m_lock) = false;
    FinalWaits m_finals RQ_GUARDED_BY(m_lock);
    // Oldest first, each once however often it is sent. The engine goes by the first one, so that is what the
    // file holds.
    std::deque<Final> m_unacknowledged RQ_GUARDED_BY(m_lock);
    std::uint64_t m_lastStatus RQ_GUARDED_BY(m_lock) = 0;  // of this session, repeats left aside
    std::string m_spoolFolder RQ_GUARDED_BY(m_lock);
    std::uint64_t m_spooled RQ_GUARDED_BY(m_lock) =
        0;  // the newest given to m_spool, until it is acknowledged
    Unanswered m_unanswered RQ_GUARDED_BY(m_lock);

    // What Connect waits for. Each call is an attempt; only what belongs to the newest is taken.
    Signal m_connectSignal{m_clock};
    std::uint64_t m_connectAttempt RQ_GUARDED_BY(m_connectSignal) = 0;
    std::optional<std::uint32_t> m_connectOutcome RQ_GUARDED_BY(m_connectSignal);
    std::string m_connectReason RQ_GUARDED_BY(m_connectSignal);
    // What Disconnect waits for: the connection is closed.
    Signal m_endSignal{m_clock};
    bool m_ended RQ_GUARDED_BY(m_endSignal) = true;

    Repeats m_failedConnects;  // the owner's thread
    Repeats m_failedAttempts;  // the I/O thread
    std::string m_address;     // the same: where the session's engine is
    std::uint16_t m_port = 0;

    std::atomic<bool> m_settleRequested{false};
    SpoolWriter m_spool;
    HandlerThread m_handlerThread;
    IoThread m_io;
    LinkJournal m_journal;                     // the same
    std::shared_ptr<Connection> m_connection;  // the I/O thread; the owner's while that does not run
};

}  // namespace rq::link
