// The store: tasks, attempts, results and events in one SQLite file, behind verbs. Every verb is one
// transaction that changes the rows and adds the events that tell of it, so that both are always there
// together. From Claim on, verbs are keyed by the attempt's token: only the holder of an attempt can report
// for it.
//
// One thread at a time (the engine's I/O thread). The listener is called on it after a commit that added
// events. Reports of progress, heartbeats and the like are committed without a sync. What verbs of the
// attempts and Claim commit is on the disk after the next Sync, which has to come before anybody is told of
// it; everything else is when the verb returns.
#pragma once

#include <functional>
#include <memory>
#include <set>

#include "base/result.h"
#include "engine/metrics.h"
#include "engine/retry.h"
#include "engine/sqlite.h"
#include "engine/store_file.h"
#include "engine/store_types.h"

namespace rq::engine {

// Newest schema that this program knows.
inline constexpr int kSchemaVersion = 10;

class Store {
  public:
    using Now = std::function<std::int64_t()>;           // microseconds since 1970-01-01 UTC
    using Listener = std::function<void(std::int64_t)>;  // key of the task that got events

    static Result<std::unique_ptr<Store>> Open(const std::string& path, Now now = SystemNow(),
                                               Durability durability = Durability::Power);
    static Now SystemNow();

    void SetListener(Listener listener) { m_listener = std::move(listener); }
    // Whether something waits for Sync; the function is called when it begins to.
    bool Owes() const { return m_database->Owes(); }
    void SetOnOwed(std::function<void()> onOwed) { m_database->SetOnOwed(std::move(onOwed)); }
    Result<void> Sync() { return m_database->Sync(); }
    // When a task gets another attempt, and a type is stopped. Without them neither ever happens.
    void SetRetryRules(RetryRules rules) { m_rules = std::move(rules); }

    // ---- tasks ----
    Result<TaskRow> Submit(const NewTask& task);
    // All of them or none, with one sync.
    Result<std::vector<Submitted>> SubmitAll(const std::vector<NewTask>& tasks);
    // The queued task whose turn it is gets an attempt and is starting: the first that may start, by priority
    // and age, unless it waits for its time, is suspended or is one of `busy`. Nothing when there is none.
    using MayStart = std::function<bool(const Candidate& candidate)>;
    // `joins` names the worker that takes the task, if one that is there already does. Then the claim need
    // not be on the disk (`sync`) before that worker's task in hand has ended.
    using Joins = std::function<std::optional<SharedWorker>()>;
    Result<std::optional<Claim>> ClaimNext(const MayStart& mayStart = {},
                                           const std::set<std::int64_t>& busy = {}, const Joins& joins = {},
                                           Transaction::Sync sync = Transaction::Sync::Shared);
    // When the first of the queued tasks that wait for their time may start, or the next deadline passes.
    Result<std::optional<std::int64_t>> NextDue();
    // What the tasks that have a worker, and these others, say that they take together.
    Result<Demand> Taken(const std::set<std::int64_t>& others);
    Result<std::vector<QueuedGroup>> QueuedGroups();
    // How many queued tasks have their turn before this one.
    Result<std::int64_t> Ahead(const TaskRow& task);
    Result<TypePace> PaceOf(std::int32_t type);
    // The latest events of a task but those of its progress, oldest first; and those of its latest attempt's.
    Result<std::vector<EventRow>> Milestones(std::int64_t task, std::int64_t limit);
    Result<std::vector<EventRow>> ProgressOf(std::int64_t task, std::int64_t limit);
    // Queued tasks whose deadline is over fail; of others that is noted. The keys of those that are to be
    // cancelled now.
    Result<std::vector<std::int64_t>> PassDeadlines();
    std::int64_t NowTime() const { return m_now(); }
    // A worker that was started by hand: a new task, starting, with an attempt.
    // Its type is kUnknownType until TypeSeen tells.
    Result<Claim> AdoptExternal(const std::string& name);

    // ---- orders; each is refused when the table of states (states.h) says so ----
    // Queued: cancelled at once. Starting, running, paused: finishing, and the caller sends the order.
    Result<OrderOutcome> Cancel(std::int64_t task, const std::string& by, const std::string& reason);
    // A queued task is not started until Resume; of a running or paused one only the caller can do it.
    // `resuming`: the worker of a paused one has just been told to go on.
    Result<OrderOutcome> Suspend(std::int64_t task, const std::string& by, bool resuming = false);
    Result<OrderOutcome> Resume(std::int64_t task, const std::string& by);
    // Finishing; the caller sends the order.
    Result<OrderOutcome> FinishTask(std::int64_t task, const std::string& by);
    // Another text, for this attempt (the caller sends it) and for every later one.
    // `toWorker`: a worker that has the task is told; else the text is for a further attempt.
    Result<OrderOutcome> Update(std::int64_t task, const std::string& by, const std::string& text,
                                bool toWorker = true);
    // An ended task is queued again, with as many attempts as a new one.
    Result<OrderOutcome> Retry(std::int64_t task, const std::string& by);
    Result<OrderOutcome> SetPriority(std::int64_t task, const std::string& by, std::int32_t priority);
    // An ended task is removed with everything that belongs to it. `outputs` gets the names of its files.
    Result<OrderOutcome> Delete(std::int64_t task, std::vector<std::string>& outputs);
    // Whether a task with this key was there and has been deleted.
    Result<bool> WasDeleted(std::int64_t task);

    // ---- types that are not started ----
    // By order, until Unstop. False: nothing changed.
    Result<bool> Stop(std::int32_t type, const std::string& reason);
    Result<bool> Unstop(std::int32_t type);
    Result<std::vector<TypeStop>> Stops();

    // ---- the attempt that holds the token ----
    // `mark` tells the process from a later one with its id. `silence_ms`: as OpenAttempt's.
    Result<void> WorkerStarted(const std::string& token, std::uint64_t processId, const std::string& output,
                               const std::string& mark = {}, std::int64_t silence_ms = 0);
    Result<void> Connected(const std::string& token, std::uint32_t session, std::uint64_t processId,
                           const std::string& version, const std::string& mark = {});
    Result<void> Notice(const std::string& token, const std::string& taskId, const std::string& guid);
    Result<void> Status(const std::string& token, std::uint32_t status);
    // The answer to an order; `json` is the event's data.
    Result<void> Reply(const std::string& token, std::uint32_t id, const std::string& json);
    Result<void> TypeSeen(const std::string& token, std::int32_t type);
    Result<void> Progress(const std::string& token, const ProgressFigures& figures);
    Result<void> Seen(const std::string& token);
    // An event of the attempt that changes nothing else; `json` is an object.
    Result<void> Note(const std::string& token, const std::string& kind, const std::string& json);
    // The session has ended. `worker`: the token of the attempt that the worker was started for.
    Result<void> Disconnected(const std::string& token, const std::string& worker, const std::string& reason,
                              bool saidBye);
    // The first final status decides; the same again is a Repeat, another one is Late and changes nothing.
    // `next`: the attempt that the worker may begin as soon as this status is acknowledged, if any.
    Result<FinishOutcome> Finish(const std::string& token, const FinalStatus& final,
                                 const std::string& next = {});
    // The attempt ends without a final status: the task is cancelled when that was asked for; else it is
    // queued again or lost, by its type's policy. Does nothing when the attempt has ended.
    Result<void> Lost(const std::string& token, const std::string& reason);
    // The same of a worker that is gone, or was never there, before it did anything: the task is queued
    // again, and the attempt is not counted among those that it may have, nor its end as one of the type's
    // failures.
    Result<void> Undone(const std::string& token, const std::string& reason);
    // The same of a worker that ended in good order: the task is cancelled or failed.
    Result<void> Unsaid(const std::string& token, const std::string& reason, const std::string& next = {});
    // The worker has begun the task: it is running. `taskId` is what it calls it.
    Result<void> Begun(const std::string& token, const std::string& taskId);
    // The worker that had the task in its list has certainly not begun it. The task is queued again, and has
    // spent no attempt; or it is cancelled, when that was asked for.
    Result<void> PutBack(const std::string& token, const std::string& reason);
    // Of the attempts that share the worker, oldest first: the last one that has ended, and those that have
    // not.
    Result<std::vector<OpenAttempt>> OpenOfWorker(std::int64_t first);
    // Whether further attempts had the worker of the one with this token.
    Result<bool> IsShared(const std::string& token);
    // The order that brings the attempt's text gets another number, since the worker has not got it.
    Result<void> AddedAgain(const std::string& token, std::uint64_t seq);
    // The worker with this token is told to stop, for this attempt; the first time counts.
    Result<void> Told(const std::string& worker, std::int64_t attempt);
    // Of all attempts that shared the worker, when `first` is the one that it was started for.
    Result<void> Exited(const std::string& token, const WorkerExit& exit, std::int64_t first = 0);

    // Between the two, the first verb of this attempt, or of one that shares its worker, also keeps that the
    // worker's frames up to `seq` are here; EndRecord does it when there was none. 0: nothing is kept.
    void BeginRecord(const std::string& token, std::uint64_t seq);
    Result<void> EndRecord();

    // ---- attempts that outlive a connection, or the engine ----
    // Events of this kind are added as long as there are not too many of them.
    Result<void> Interrupted(const std::string& token, const std::string& reason);
    Result<void> Resumed(const std::string& token, std::uint64_t processId);
    // Nothing of the attempt is left to wait for.
    Result<void> Closed(const std::string& token);
    // Those that are not closed, oldest first.
    Result<std::vector<OpenAttempt>> OpenAttempts();
    // The process of the attempt's worker, or of the one that it shared; nothing when it was started by hand,
    // or is not known.
    Result<std::optional<KnownProcess>> ProcessOf(const std::string& token);
    // Whether there is an attempt with this token.
    Result<bool> Knows(const std::string& token);
    // The port on which workers were told to find the engine; 0: never.
    Result<std::uint16_t> LinkPort();
    Result<void> RememberLinkPort(std::uint16_t port);

    // ---- reading ----
    Result<std::optional<TaskRow>> Task(std::int64_t task);
    Result<std::optional<TaskDetails>> Details(std::int64_t task);
    Result<std::vector<TaskRow>> Tasks(const TaskQuery& query);
    Result<std::vector<EventRow>> Events(std::int64_t task, std::int64_t after, std::int64_t limit);
    // How many tasks are in each state, in the order of kTaskStates.
    Result<std::vector<std::int64_t>> CountByState();

    // ---- for those who look after the node ----
    Result<StoreCensus> Census();
    // Of tasks that ended before then, and of the oldest ended tasks while there are more than `most` (0: any
    // number), at most `limit` events are removed; the tasks stay. The number of them.
    Result<std::int64_t> DropEvents(std::int64_t before_us, std::int64_t most, std::int64_t limit);
    // A copy of the whole store, made step by step while it is used.
    Result<std::unique_ptr<StoreCopy>> BeginCopy(const std::string& path);

  private:
    // The attempt that a verb is about, as it stands when the verb begins.
    struct Holder {
        std::int64_t attempt = 0;
        std::int64_t task = 0;
        AttemptState state = AttemptState::Starting;
        TaskState taskState = TaskState::Starting;
        double percent = 0;
        bool cancelRequested = false;
        std::int32_t type = 0;
        std::string id;
        bool external = false;
        bool connected = false;
        std::int64_t interruptions = 0;
        std::int64_t made = 0;  // attempts since the submission or the latest retry order
    };
    // A task as an order finds it.
    struct Ordered {
        std::string id;
        TaskState state = TaskState::Queued;
        std::optional<std::int64_t> attempt;
        std::optional<std::int64_t> cancelled_us;
        std::optional<std::int64_t> suspended_us;
        bool external = false;
        std::string text;
        std::int32_t priority = kStandardPriority;
        std::optional<std::int64_t> deadline_us;
    };

    Store(std::unique_ptr<Database> database, Now now);

    std::optional<Holder> Find(const std::string& token);
    // Runs `change(holder)` in a transaction, then tells the listener.
    template <class Change>
    Result<void> ForHolder(const std::string& token, Transaction::Sync sync, Change change);
    TaskRow Insert(const NewTask& task);
    // The task that has this key already, and whether it is the same.
    std::optional<Submitted> FindKey(const NewTask& task);
    Claim NewAttempt(std::int64_t task);
    void AddEvent(std::int64_t task, std::optional<std::int64_t> attempt, std::string_view kind,
                  const std::string& json);
    void SetTaskState(std::int64_t task, std::optional<std::int64_t> attempt, TaskState state,
                      const std::optional<std::string>& reason);
    void SetAttemptState(std::int64_t attempt, AttemptState state);
    // The attempt is one more of the worker's.
    void Join(const Claim& claim, const SharedWorker& worker);
    // From now on nobody can say that its worker has not begun the attempt.
    void SetReached(const std::string& token);
    // The state that follows from what the worker reports.
    void Report(const Holder& holder, StateEvent event);
    void WriteFinal(const Holder& holder, const FinalStatus& final);
    void LoseAttempt(const Holder& holder, StateEvent event, const std::string& reason);
    static bool MayRepeat(const Holder& holder);
    // Of one that may not.
    static std::string WhyOnce(const Holder& holder);
    void EndAttempt(const Holder& holder, StateEvent event, const std::optional<std::string>& reason,
                    const RetryDecision& decision);
    // Whether it was made to try a type that is stopped.
    bool IsTrial(const Holder& holder);
    // Counts what the end says of the type, and stops or releases the type.
    void CountForStop(const Holder& holder, StateEvent event, const RetryDecision& decision,
                      const std::string& reason);
    // Runs `change(ordered, outcome)` in a transaction unless the table refuses the event.
    template <class Change>
    Result<OrderOutcome> ForOrder(std::int64_t task, StateEvent event, Change change);
    void SetFinishing(std::int64_t task, const Ordered& ordered);
    void SetAsked(const Ordered& ordered, std::uint32_t id);
    // In a verb of the attempt: keeps the number of the record that is being taken, if any.
    // It is kept with the attempt that the worker was started for.
    void KeepNumber(std::int64_t attempt);
    bool SameFinal(std::int64_t attempt, const FinalStatus& final);
    void FillAttempts(TaskDetails& details);
    Result<void> Commit(Transaction& transaction, std::int64_t task);
    // A failure of the statements that were run outside a transaction.
    Result<void> Checked();

    std::unique_ptr<Database> m_database;
    Now m_now;
    Listener m_listener;
    RetryRules m_rules = RetryRules::Never();
    std::string m_recordToken;
    std::uint64_t m_recordSeq = 0;  // 0: none, or kept already
};

// Brings the file to this version; refuses a newer one. Part of Store::Open, apart for its tests, which also
// make stores of earlier versions.
Result<void> MigrateSchema(Database& database, int to = kSchemaVersion);

}  // namespace rq::engine
