// Scheduler: takes tasks from the store, has workers started for them, listens to their sessions, and sees
// every attempt to its end. Workers are known by the attempt's token in their HELLO and from then on by their
// session; never by a task ID in a text.
//
// An attempt is over when its process has ended (one that was started by hand: when its session has ended).
// Until then one deadline is in force at any time: to connect, to end after a cancel, to end after the final
// status, to end after its connection broke. When it passes, the process tree is ended. Beside it run the
// watch over heartbeats and, while a session is interrupted, the wait for its worker to resume it.
//
// Attempts outlive the engine: one that ends leaves its workers, and the next one takes them over.
//
// Everything runs on the I/O thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/clock.h"
#include "engine/admission.h"
#include "engine/engine_log.h"
#include "engine/launcher.h"
#include "engine/package_turn.h"
#include "engine/session.h"
#include "engine/settings.h"
#include "engine/spool.h"
#include "engine/stage_check.h"
#include "engine/store.h"
#include "engine/volume_watch.h"
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
    // Any of the orders; `text` goes with Update, a whole number with
    // Prioritise. What the task's state does not allow is refused.
    Result<OrderOutcome> Order(std::int64_t task, StateEvent order, const std::string& by,
                               const std::string& text = {});
    // No task (of this type, or of any with kEveryType) is started until GoOn. False: nothing changed.
    Result<bool> Drain(std::int32_t type, const std::string& by);
    Result<bool> GoOn(std::int32_t type);
    // Volumes by name; refuses what could never start here.
    std::optional<FieldError> Accept(NewTask& task) const { return m_admission.Accept(task); }
    NodeFacts GetNodeFacts();
    HeldByRule CountHeld();
    // In the order in which they would have to pass; empty for a task that is not queued.
    std::vector<WaitReason> WhyWaits(const TaskRow& task);
    // Before the engine serves anybody: those that an earlier run left open. Call Pump after it.
    Result<void> TakeOver(const std::vector<OpenAttempt>& attempts);
    // Cancels what runs, waits for it for a bounded time, ends what remains; then calls `done` once. Nothing
    // is started any more.
    void BeginEnd(std::function<void()> done);
    // Lets every worker and connection go as it is. How many workers wait for the next engine.
    std::size_t Leave();

    bool Ending() const { return m_ending; }
    std::size_t Workers() const { return m_runs.size(); }
    unsigned MaxWorkers() const { return m_maxWorkers; }
    // Of the files of workers that run.
    std::set<std::string> RunningNames() const;
    // Types whose tasks wait because the stage lacks something, and why.
    const std::map<std::int32_t, std::string>& Held() const { return m_held; }

    std::variant<link::Welcome, link::Refuse> Admit(const link::Hello& hello,
                                                    const std::shared_ptr<Session>& session) override;
    bool OnRecord(Session& session, std::uint32_t id, const link::WorkerRecord& record) override;
    void OnOtherFrame(Session& session) override;
    // Not before what is committed is on the disk.
    bool MayWrite(const std::shared_ptr<Session>& session) override;
    void OnSessionEnd(Session& session, const std::string& why) override;
    void OnLinkTrouble(const std::string& what) override;

  private:
    struct Run {
        Claim claim;         // of a package worker: the task in hand, or the last one
        std::string worker;  // the token that its process has: that of its first attempt
        bool external = false;
        bool connected = false;  // has been, at least
        bool performs = false;   // has said so, with status 3
        bool final = false;      // a final status is committed
        bool cancelSent = false;
        bool pauseSent = false;   // and neither answered nor taken back
        bool resumeSent = false;  // the same
        bool saidBye = false;
        std::uint64_t has = 0;  // of the worker's numbers, when its session had ended
        bool exitNoted = false;
        bool isUndone = false;  // it never had a process
        int spoolTries = 0;
        std::optional<std::uint32_t> lastStatus;
        std::shared_ptr<Session> session;
        std::uint32_t sessionId = 0;        // of the session, interrupted or not; 0: none
        bool resumable = false;             // that was promised to the worker
        std::optional<SessionMemory> away;  // while it is interrupted
        boost::asio::steady_timer awayTimer;
        std::optional<SteadyTime> resumedAt;  // the newest connection that continued the session
        std::uint64_t resumedHas = 0;         // what was here then of the worker's
        std::uint64_t resumedAcked = 0;       // and at the worker of ours
        bool isInVain = false;                // the newest loss: nothing had got through
        SteadyTime lostAt;                    // the newest that was not in vain
        std::uint64_t processId = 0;          // of a worker that was started by hand
        std::string processMark;              // the same; empty: it cannot be watched
        std::string reportedTask;
        std::string killReason;  // why we ended it
        WorkerLife life;         // of a worker that we started
        std::optional<WorkerExit> exit;
        boost::asio::steady_timer timer;
        unsigned timerUse = 0;
        std::chrono::milliseconds beatLimit{0};  // 0: not watched
        SteadyTime lastRecord;
        boost::asio::steady_timer beat;
        // Orders that are not answered yet, and whose. Answers come in the order of the orders.
        struct Asked {
            std::uint32_t replyId = 0;
            std::string token;
        };
        std::deque<Asked> asked;

        // Of a package worker.
        std::int64_t first = 0;          // its first attempt
        std::int64_t firstTask = 0;      // and whose that is
        std::optional<Claim> next;       // in its list, behind the one in hand
        bool nextCancelled = false;      // told to stop when its turn comes
        std::vector<OpenAttempt> added;  // by an earlier run of the engine: their orders may not have arrived
        std::string earlier;             // the attempt before the one in hand
        PackageTurn turn;
        bool heard = false;    // Hear
        bool told = false;     // to stop: it gets no further task
        bool stalled = false;  // it begins no further task
        bool unsure = false;   // it may have begun more than it said
        bool heldBack =
            false;            // it waited for an acknowledgement that it never got: it has begun nothing more
        bool paused = false;  // the latest of suspend and resume was suspend
        bool disturbed = false;  // the one in hand may have got an order to stop that was for the one before

        explicit Run(boost::asio::io_context& io) : awayTimer(io), timer(io), beat(io) {}
    };

    struct Turn {
        std::optional<Claim> claim;
        Run* place = nullptr;  // the package worker that takes it; null: one of its own
        bool blocked = false;  // no claim: the task whose turn it is lacks a slot alone
    };
    Result<Usage> TakenNow();
    // The same as a start sees it: a limit of workers does not count for types whose next task goes to a
    // worker that is there.
    Usage TakenForStart(Usage usage);
    Result<Turn> ClaimNext(const std::vector<TypeStop>& stops, bool slotFree);
    // Takes over what the looks at the volumes found, now and at intervals.
    void WatchVolumes();
    // What the node's limits have against a queued task.
    void AddLimits(const TaskRow& task, std::vector<WaitReason>& reasons);
    // Whether the stage has what a worker of the type needs; notes and tells when that changes.
    bool MayStart(std::int32_t type);
    void PumpAgainAfter(std::chrono::milliseconds pause);
    void PumpLater(const Error& problem);
    void StartWorker(Claim claim);
    // One that is ended since it did not may count as never begun.
    void AwaitConnection(Run& run, bool undone = false);
    Run* Find(const std::string& token);
    Run* FindSession(std::uint32_t session);
    Run* FindTask(std::int64_t task);
    std::uint32_t NewSessionId();
    // Refused when the store cannot keep it: a worker of which no later engine knows must not begin.
    std::variant<link::Welcome, link::Refuse> Welcome(Run& run, const link::Hello& hello,
                                                      const std::shared_ptr<Session>& session);

    // ---- scheduler_resume.cpp ----
    std::variant<link::Welcome, link::Refuse> AdmitResumed(const link::Hello& hello,
                                                           const std::shared_ptr<Session>& session);
    link::Welcome WelcomeFor(const Run& run) const;
    // Whether an order given now reaches the worker, at once or when it is back.
    // An order that ends it is kept whatever waits for it already.
    static bool IsReachable(const Run& run, bool toEnd = false);
    void Give(Run& run, std::uint32_t id, const link::Order& order);
    // The connection broke, and may be followed by another one.
    void Interrupt(Run& run, SessionMemory memory, const std::string& why, bool isAtFault);
    // Whether the window begins anew with this loss, or goes on, since nothing has got through.
    void NoteLoss(Run& run, const SessionMemory& memory, bool isAtFault);
    // The worker had its time to come back.
    void GiveUp(Run& run, const std::string& why);
    void AwaitResumption(Run& run, const std::string& why);
    void TakeOver(const OpenAttempt& attempt, std::vector<std::string>& gone);
    // `attempt` is the one that its worker was started for.
    void AwaitTakenOver(Run& run, const OpenAttempt& attempt, const OpenAttempt& inHand);
    void GiveStanding(Run& run, const OpenAttempt& attempt);
    // Of an attempt whose process the last engine did not live to record.
    void SearchStarted(Run& run);
    // The same when it is there: its start is recorded now.
    void NoteFound(Run& run);
    // What the worker left in the spool counts. False: it could not be committed.
    bool TakeSpool(Run& run);
    // What the file said is on the disk.
    bool MayRemoveSpool();
    // Of attempts that have ended already.
    void SweepSpool();

    bool TakeRecord(Run& run, std::uint32_t id, const link::WorkerRecord& record, bool repeated);
    void TakeProgress(Run& run, const EngineProgressMessage& message);
    bool TakeState(Run& run, const EngineStateMessage& message, bool repeated);
    bool TakeFinal(Run& run, const TaskStatusEntry& entry);

    // ---- package workers (scheduler_package.cpp, scheduler_package_end.cpp) ----
    static bool IsPackage(const Run& run);
    // It waits for a task.
    static bool IsKept(const Run& run);
    bool TakesTasks(const Run& run) const;
    // For a task in its list, behind the one in hand.
    static bool HasRoomBehind(const Run& run);
    // The worker that gets the next task of the type: one that waits, or while no slot is free one that
    // works.
    Run* PlaceFor(std::int32_t type, bool slotFree);
    bool AnyPlace() const;
    bool AnyKept() const;
    // A task of another type is next: a worker that waits gives its slot away.
    void MakeRoom();
    static SharedWorker Shared(const Run& run);
    void Feed(Run& run, Claim claim);
    void TurnToNext(Run& run);
    // Its work loop runs: from now on it can be given orders.
    void Hear(Run& run);
    bool TakePackageState(Run& run, const TaskStatusEntry& entry, bool repeated);
    bool TakeFurtherFinal(Run& run, const std::string& token, const TaskStatusEntry& entry);
    void NoteStall(Run& run);
    bool EndPackageTask(Run& run, const TaskStatusEntry& entry, bool final);
    void AfterPackageTask(Run& run, bool cancelNext);
    void Rest(Run& run);
    static std::string DisturbedText();
    // The worker in whose list the task waits.
    Run* FindListed(std::int64_t task);
    // What becomes of a worker's tasks that it had not begun, as far as it said.
    Result<void> SettlePackage(Run& run);
    Result<void> SettleUnbegun(Run& run, const std::string& token);
    bool TakePackageSpool(Run& run, const link::SpooledStatus& status);
    static std::string WhyEnded(const Run& run);
    // Of an earlier run of the engine.
    // `inHand` becomes the attempt that the worker has in hand, or the last one.
    void TakeOverPackage(Run& run, OpenAttempt& inHand);
    // Before the session goes on: orders for tasks that the worker has not got are given again.
    Result<void> AddAgain(Run& run, SessionMemory& memory, std::uint64_t received);
    // It is told to stop.
    void NoteTold(Run& run);

    static FinalStatus FinalOf(const TaskStatusEntry& entry);
    void TakeReply(Run& run, std::uint32_t id, const TaskCommandReply& reply);
    // A worker whose attempt has ended: it is heard and told to stop.
    std::variant<link::Welcome, link::Refuse> AdmitTwin(const link::Hello& hello,
                                                        const std::shared_ptr<Session>& session);
    // It was told to stop.
    void StopTwin(std::uint32_t session);
    // And did not.
    void EndTwin(std::uint32_t session);
    bool TakeTwinRecord(const std::string& token, const link::WorkerRecord& record);

    Result<OrderOutcome> Cancel(std::int64_t task, const std::string& by);
    Result<OrderOutcome> Suspend(std::int64_t task, const std::string& by);
    Result<OrderOutcome> Resume(std::int64_t task, const std::string& by);
    Result<OrderOutcome> FinishTask(std::int64_t task, const std::string& by);
    Result<OrderOutcome> Update(std::int64_t task, const std::string& by, const std::string& text);
    Result<OrderOutcome> Delete(std::int64_t task);
    // The worker that an order can be sent to; null when there is none.
    Run* Listening(std::int64_t task, bool toEnd = false);
    std::set<std::int64_t> BusyTasks() const;
    // Whether no stop keeps the type from being started.
    bool IsReleased(std::int32_t type, const std::vector<TypeStop>& stops) const;
    // Pumps again when the first waiting task, deadline or stopped type is due.
    void WakeWhenDue();
    // Fails and cancels what is late.
    void PassDeadlines();
    void LogStops(const std::vector<TypeStop>& stops);

    // How long a worker may say nothing.
    std::chrono::milliseconds BeatLimit() const;
    void SendCancel(Run& run);
    void SendFinish(Run& run);
    void SendCommand(Run& run, std::uint32_t id, const std::string& text);
    // The order that ends a worker after its final status.
    void SendEnd(Run& run);
    // `rule` is the verdict in a word.
    void Kill(Run& run, const std::string& rule, const std::string& reason);
    void KillTree(Run& run, const std::string& rule, const std::string& reason);
    void WatchHeartbeat(Run& run);
    void OnExit(const std::string& token, const WorkerExit& exit);
    // The attempt is over: says how it ended and lets it go.
    void Settle(Run& run);
    std::string HowItEnded(const Run& run) const;
    // What its log and crash report say of a worker that ended without a final status.
    std::string WhatItLeft(const Run& run) const;
    // It closed its session and ended as it should, and did not say how its task ended.
    static bool EndedUnsaid(const Run& run);
    // It never had an engine, and ended while none looked: it has done nothing.
    static bool IsUndone(const Run& run);
    void FinishEnd();

    // Its session has ended, and is not resumed.
    void AwaitEnd(Run& run, const std::string& why);
    // Replaces the deadline of the run.
    void Arm(Run& run, std::chrono::milliseconds after, std::function<void(Run&)> then);
    void Disarm(Run& run);
    // What the records of this turn have committed is synced; then it may be told.
    void SyncStore();
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
    Spool m_spool;
    Admission m_admission;
    const VolumeWatch m_volumeWatch;
    VolumeStates m_volumes;  // as the limits go by them
    boost::asio::steady_timer m_volumeTimer;
    std::map<std::int32_t, std::string> m_held;
    std::uint16_t m_linkPort = 0;
    std::uint32_t m_lastSession = 0;
    std::map<std::string, std::unique_ptr<Run>> m_runs;  // by the attempt's token
    std::map<std::uint32_t, std::string> m_sessions;     // the token of each
    struct Twin {
        std::string token;
        std::shared_ptr<Session> session;
        std::uint64_t processId = 0;  // as it says
        std::unique_ptr<boost::asio::steady_timer> timer;
    };
    std::map<std::uint32_t, Twin> m_twins;           // by session
    std::vector<std::shared_ptr<Session>> m_unsaid;  // sessions that wait for a sync
    boost::asio::steady_timer m_syncTimer;           // after one that failed
    std::set<std::int32_t> m_loggedStops;
    boost::asio::steady_timer m_retry;  // after a store failure, and for held tasks
    boost::asio::steady_timer m_wake;   // for what is due
    bool m_ending = false;
    bool m_left = false;  // nobody's any more: its attempts are the next engine's
    std::function<void()> m_onEnded;
    boost::asio::steady_timer m_endTimer;
};

}  // namespace rq::engine
