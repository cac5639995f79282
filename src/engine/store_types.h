// What the store keeps and what its verbs take and give. Plain values. Times are microseconds since
// 1970-01-01 UTC.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/states.h"

namespace rq::engine {

// Of a worker that has not said it yet.
inline constexpr std::int32_t kUnknownType = -1;
// In a stop: of all types.
inline constexpr std::int32_t kEveryType = -2;

inline constexpr std::int32_t kStandardPriority = 50;

// What a task says that it takes of the node. 0 and none: it says nothing.
struct Demand {
    std::int64_t memory_MiB = 0;
    std::int64_t cores = 0;
    std::vector<std::string> volumes;  // their names, sorted, each once

    bool operator==(const Demand&) const = default;
    auto operator<=>(const Demand&) const = default;
};

// As the store has them: names never hold a blank.
std::string JoinVolumes(const std::vector<std::string>& volumes);
std::vector<std::string> SplitVolumes(std::string_view text);

struct NewTask {
    std::int32_t type = 0;
    std::string name;
    std::string text;
    std::string origin = "api";
    std::int32_t priority = kStandardPriority;  // 0 to 100, higher first
    std::optional<std::int64_t> notBefore_us = {};
    std::optional<std::int64_t> deadline_us = {};
    bool cancelAtDeadline = false;  // when a worker has it; a queued task fails
    Demand demand = {};
    std::string key = {};  // the client's; empty: none
};

// What became of a submission.
enum class SubmitResult {
    New,
    Repeated,  // the task that has this key has this type and text, too
    KeyTaken,  // it has not
};

// A queued task whose turn it could be.
struct Candidate {
    std::int64_t task = 0;
    std::int32_t type = 0;
    Demand demand;
    mutable bool endsSearch = false;  // set by who is asked: none behind it is looked at
};

// A task that has just got an attempt. `token` is the attempt's secret and its key for every later verb.
struct Claim {
    std::int64_t task = 0;
    std::int64_t attempt = 0;
    std::int32_t number = 0;  // of the attempt within the task, from 1
    std::int32_t type = 0;
    std::string id;
    std::string text;
    std::string token;
    std::int64_t cores = 0;  // that the task declares; of a new attempt
};

// A worker that takes one more task.
struct SharedWorker {
    std::int64_t first = 0;    // the attempt that it was started for
    std::int64_t latest = 0;   // the one that it got last
    std::string task;          // ID of the task of the latest
    bool idle = false;         // it begins the task at once
    std::uint64_t addSeq = 0;  // number of the order that will bring the task
};

// A 4009 entry with status 0, 4 or 5. `result` is JSON, empty when there is none.
struct FinalStatus {
    std::uint32_t status = 0;
    std::uint32_t detailErrorCode = 0;
    std::string detailErrorText;
    std::uint32_t errorCode = 0;
    std::string errorText;
    std::string furtherText;
    std::string result;
    bool stalled = false;  // the worker's report of a stall, whatever the task itself says later

    bool operator==(const FinalStatus&) const = default;
};

enum class FinishOutcome { Committed, Repeat, Late };

// What an order to a task did.
struct OrderOutcome {
    bool refused = false;                 // by the task's state; the message says which
    bool ending = false;                  // the engine is ending, and has handed its tasks on
    bool changed = false;                 // false: nothing was left to do
    bool send = false;                    // the task's worker is to be told
    std::string result;                   // a word for programs
    std::string message;                  // a sentence for people
    TaskState state = TaskState::Queued;  // afterwards
};

// Why a queued task is not started now. The rules are in docs/api.md.
struct WaitReason {
    std::string rule;
    std::string text;
    std::optional<std::int64_t> until_us = {};  // when it ends, if that is known
    std::optional<std::int64_t> limit = {}, present = {};
    std::string unit = {};
};

// Queued tasks that are alike in everything that limits look at.
struct QueuedGroup {
    std::int32_t type = 0;
    Demand demand;
    bool suspended = false;
    bool waits = false;  // for its time
    bool again = false;  // for that of another attempt
    std::int64_t tasks = 0;
};

// How fast finished tasks of a type were, the latest ones.
struct TypePace {
    std::int64_t tasks = 0;
    double speed = 0;  // in the unit of the type
};

// Tasks of this type are not started: after too many failures in a row, or by order.
struct TypeStop {
    std::int32_t type = 0;  // or kEveryType
    std::int64_t failures = 0;
    std::int64_t since_us = 0;
    std::optional<std::int64_t> until_us;  // then one task is tried; nothing: until the order to go on
    std::string reason;
};

// How a worker's process ended: the signal's number, or the exit code, which on Windows is also that of an
// unhandled exception or a kill (from 0xC0000000).
struct WorkerExit {
    bool signalled = false;
    std::int64_t code = 0;
    bool isKnown = true;  // false: it has ended, and nobody can say how
};

struct TaskRow {
    std::int64_t key = 0;
    std::string id;
    std::int32_t type = 0;
    std::string name;
    std::string origin;
    TaskState state = TaskState::Queued;
    std::optional<std::string> reason;
    std::int64_t created_us = 0;
    std::optional<std::int64_t> started_us;
    std::optional<std::int64_t> finished_us;
    std::optional<std::int64_t> cancelRequested_us;
    std::optional<std::int64_t> notBefore_us;  // of a queued task that waits for its first or next attempt
    std::optional<std::int64_t> suspended_us;  // of a queued task that was suspended
    std::int32_t priority = kStandardPriority;
    std::optional<std::int64_t> deadline_us;
    bool cancelAtDeadline = false;
    Demand demand;
    std::string clientKey;
    std::int64_t attempts = 0;
    // Of the latest attempt.
    double percent = 0;
    double speed = 0;
    double averageSpeed = 0;
    std::optional<std::int64_t> status;
};

struct Submitted {
    SubmitResult result = SubmitResult::New;
    TaskRow row;  // of the task that has the key now
};

// What a progress report says; finite numbers.
struct ProgressFigures {
    double percent = 0;       // 0 to 100
    double speed = 0;         // in the unit of the type
    double averageSpeed = 0;  // units (frames of a transcode) a second; 0 for types that tell none
};

struct AttemptRow {
    std::int64_t key = 0;
    std::int32_t number = 0;
    AttemptState state = AttemptState::Starting;
    std::optional<std::int64_t> session;
    std::optional<std::int64_t> processId;
    std::string workerVersion;
    std::string workerGuid;
    std::string reportedTask;
    std::int64_t created_us = 0;
    std::optional<std::int64_t> connected_us;
    std::optional<std::int64_t> started_us;
    std::optional<std::int64_t> finished_us;
    std::optional<std::int64_t> lastSeen_us;
    std::optional<std::int64_t> exited_us;
    std::optional<std::int64_t> exitCode;
    std::optional<std::int64_t> exitSignal;
    double percent = 0;
    double speed = 0;
    double averageSpeed = 0;
    std::optional<std::int64_t> status;
    std::int64_t detailErrorCode = 0;
    std::string detailErrorText;
    std::int64_t errorCode = 0;
    std::string errorText;
    std::string furtherText;
    std::optional<std::string> reason;
    std::string output;
    std::optional<std::string> sharedTask;      // whose attempt the worker was started for, when not this one
    std::optional<std::int64_t> sharedAttempt;  // the number of that attempt
    // Found when somebody asks for them, not stored.
    std::string log;
    std::string crashReport;
};

// An attempt whose worker may still be there, as an engine finds it that starts.
struct OpenAttempt {
    Claim claim;  // without the text
    AttemptState state = AttemptState::Starting;
    bool external = false;
    bool cancelRequested = false;
    bool started = false;  // its worker has said that the task runs
    std::optional<std::uint32_t> session;
    std::optional<std::uint64_t> processId;
    std::string processMark;
    std::string output;  // file; the others of the worker are named after it
    std::string reportedTask;
    std::int64_t created_us = 0;
    std::uint64_t workerSeq = 0;  // highest of the worker's numbers that the store has
    std::uint32_t asked = 0;      // 4004 or 4006, not answered; 0: neither
    bool textAsked = false;       // 4015, not answered
    std::int64_t silence_ms = 0;  // after which its worker is ended; 0: not known
    bool saidBye = false;         // the worker has closed its session
    std::optional<WorkerExit> exit;
    // Of a package worker's.
    bool reached = false;                 // the worker may have begun it
    bool stalled = false;                 // ended by the worker's stall report
    std::optional<std::uint64_t> addSeq;  // number of the order that brought it
    std::optional<std::int64_t> told;     // of the first: the attempt for which the worker was told to stop
};

// A process that an engine started.
struct KnownProcess {
    std::uint64_t id = 0;
    std::string mark;  // platform::ProcessMark
};

struct EventRow {
    std::int64_t key = 0;
    std::int64_t time_us = 0;
    std::optional<std::int64_t> attemptNumber;
    std::string kind;
    std::string json;  // an object
};

// A task with everything that belongs to it.
struct TaskDetails {
    TaskRow task;
    std::string text;
    std::int64_t lastEvent = 0;
    std::optional<std::string> result;  // JSON
    std::vector<AttemptRow> attempts;   // oldest first
};

struct TaskQuery {
    std::vector<TaskState> states;           // empty: all
    std::optional<std::int64_t> before_key;  // only older ones
    std::int64_t limit = 100;
};

}  // namespace rq::engine
