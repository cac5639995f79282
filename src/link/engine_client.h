// EngineClient: the engine link's client behind IEngineCommunicate. It joins four parts: the codec, the
// session (a state machine), the transport (sockets on an I/O thread) and the handler thread.
// docs/engine-link.md, section 10, says what its callers may rely on.
//
// Threads: Initialize, Connect, Disconnect and Uninitialize belong to one thread, the owner's (never the
// handler's); SendMessage to any. The I/O thread never waits for the handler or for a sender.
#pragma once

#include <chrono>
#include <cstdint>
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
    void TellLost(const SessionClosed& closed) noexcept;
    void JournalClosed(const std::string& reason) noexcept;
    void OnIoFailure(const std::string& thrown);
    void CloseConnection(const std::string& reason);
    std::uint64_t ConnectionNumber();

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

    // What Connect waits for. Each call is an attempt; only what belongs to the newest is taken.
    Signal m_connectSignal{m_clock};
    std::uint64_t m_connectAttempt RQ_GUARDED_BY(m_connectSignal) = 0;
    std::optional<std::uint32_t> m_connectOutcome RQ_GUARDED_BY(m_connectSignal);
    std::string m_connectReason RQ_GUARDED_BY(m_connectSignal);
    // What Disconnect waits for: the connection is closed.
    Signal m_endSignal{m_clock};
    bool m_ended RQ_GUARDED_BY(m_endSignal) = true;

    std::string m_lastFailure;         // the owner's thread
    std::uint32_t m_failureCount = 0;  // of that failure in a row

    std::atomic<bool> m_settleRequested{false};
    HandlerThread m_handlerThread;
    IoThread m_io;
    LinkJournal m_journal;                     // the same
    std::shared_ptr<Connection> m_connection;  // the I/O thread; the owner's while that does not run
};

}  // namespace rq::link
