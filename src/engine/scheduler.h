// Scheduler: takes tasks from the store, has workers started for them, listens to their sessions, and sees
// every attempt to its end. Workers are known by the attempt's token in their HELLO and from then on by their
// session; never by a task ID in a text.
//
// An attempt is over when its process has ended (one that was started by hand: when its session has ended).
// Until then one deadline is in force at any time: to connect, to end after a cancel, to end after the final
// status, to end after its connection broke. When it passes, the process tree is ended.
//
// Everything runs on the I/O thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "engine/engine_log.h"
#include "engine/launcher.h"
#include "engine/session.h"
#include "engine/settings.h"
#include "engine/stage_check.h"
#include "engine/store.h"
#include "engine/worker_traces.h"

namespace rq::engine {

class Scheduler final : public SessionHost {
  public:
    Scheduler(boost::asio::io_context& io, Store& store, Launcher& launcher, const EngineSettings& settings,
              std::string linkToken, EngineLog& log);
    ~Scheduler() override;

    // Starts waiting tasks while there is room. Call it after a submission.
    void Pump();
    void SetLinkPort(std::uint16_t port) { m_linkPort = port; }
    Result<CancelOutcome> Cancel(std::int64_t task, const std::string& by);
    // Cancels what runs, waits for it for a bounded time, ends what remains; then calls `done` once. Nothing
    // is started any more.
    void BeginEnd(std::function<void()> done);

    bool Ending() const { return m_ending; }
    std::size_t Workers() const { return m_runs.size(); }
    unsigned MaxWorkers() const { return m_maxWorkers; }
    // Types whose tasks wait because the stage lacks something, and why.
    const std::map<std::int32_t, std::string>& Held() const { return m_held; }

    std::variant<link::Welcome, link::Refuse> Admit(const link::Hello& hello,
                                                    const std::shared_ptr<Session>& session) override;
    bool OnRecord(Session& session, std::uint32_t id, const link::WorkerRecord& record) override;
    void OnSessionEnd(Session& session, const std::string& why) override;
    void OnLinkTrouble(const std::string& what) override;

  private:
    struct Run {
        Claim claim;
        bool external = false;
        bool connected = false;  // has been, at least
        bool final = false;      // a final status is committed
        bool cancelSent = false;
        bool exitNoted = false;
        std::shared_ptr<Session> session;
        std::string reportedTask;
        std::string killReason;  // why we ended it
        WorkerLife life;         // of a worker that we started
        std::optional<WorkerExit> exit;
        boost::asio::steady_timer timer;
        unsigned timerUse = 0;

        explicit Run(boost::asio::io_context& io) : timer(io) {}
    };

    // Whether the stage has what a worker of the type needs; notes and tells when that changes.
    bool MayStart(std::int32_t type);
    void PumpAgainAfter(std::chrono::milliseconds pause);
    void StartWorker(Claim claim);
    Run* Find(const std::string& token);
    Run* FindSession(std::uint32_t session);
    Run* FindTask(std::int64_t task);
    std::uint32_t NewSessionId();
    link::Welcome Welcome(Run& run, const link::Hello& hello, const std::shared_ptr<Session>& session);

    bool TakeRecord(Run& run, std::uint32_t id, const link::WorkerRecord& record);
    void TakeProgress(Run& run, const EngineProgressMessage& message);
    bool TakeState(Run& run, const EngineStateMessage& message);
    bool TakeFinal(Run& run, const TaskStatusEntry& entry);

    void SendCancel(Run& run);
    void SendCommand(Run& run, std::uint32_t id, const std::string& text);
    // The order that ends a worker after its final status.
    void SendEnd(Run& run);
    void Kill(Run& run, const std::string& reason);
    void OnExit(const std::string& token, const WorkerExit& exit);
    // The attempt is over: says how it ended and lets it go.
    void Settle(Run& run);
    std::string HowItEnded(const Run& run) const;
    // What its log and crash report say of a worker that ended without a final status.
    std::string WhatItLeft(const Run& run) const;
    void FinishEnd();

    // Replaces the deadline of the run.
    void Arm(Run& run, std::chrono::milliseconds after, std::function<void(Run&)> then);
    void Disarm(Run& run);
    // Logs a store failure that nobody else can be told of.
    void Report(const Result<void>& result, const char* what);

    boost::asio::io_context& m_io;
    Store& m_store;
    Launcher& m_launcher;
    const EngineSettings& m_settings;
    const std::string m_linkToken;
    EngineLog& m_log;
    const unsigned m_maxWorkers;
    const StageCheck m_stage;
    std::map<std::int32_t, std::string> m_held;
    std::uint16_t m_linkPort = 0;
    std::uint32_t m_lastSession = 0;
    std::map<std::string, std::unique_ptr<Run>> m_runs;  // by the attempt's token
    std::map<std::uint32_t, std::string> m_sessions;     // the token of each
    boost::asio::steady_timer m_retry;                   // after a store failure, and for held tasks
    bool m_ending = false;
    std::function<void()> m_onEnded;
    boost::asio::steady_timer m_endTimer;
};

}  // namespace rq::engine
