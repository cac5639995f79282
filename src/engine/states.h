// The states of a task and of its attempts, and the one table that says which order, message or event moves
// them. Store, scheduler and API all go by it; docs/engine.md shows it, and a test compares the two. Pure
// functions; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace rq::engine {

// An attempt is never queued.
enum class TaskState {
    Queued,
    Starting,
    Running,
    Paused,
    Finishing,  // its worker was told to stop, by finish or cancel
    Finished,
    Failed,
    Cancelled,
    Lost,  // nobody can say how its work ended
};
using AttemptState = TaskState;

inline constexpr TaskState kTaskStates[] = {TaskState::Queued, TaskState::Starting,  TaskState::Running,
                                            TaskState::Paused, TaskState::Finishing, TaskState::Finished,
                                            TaskState::Failed, TaskState::Cancelled, TaskState::Lost};

// What can happen to a task. Of the first group the engine learns or decides it, the second is ordered.
enum class StateEvent {
    Claimed,         // a new attempt is made
    SaysRunning,     // 4009 with status 3, or 4007
    SaysPaused,      // 4005
    SaysFinished,    // final status 0
    SaysError,       // final status 4
    SaysErrorAgain,  // the same, and the policy grants another attempt
    SaysCancelled,   // final status 5
    EndsLost,        // the worker is gone without a final status
    EndsLostAgain,   // the same, and the policy grants another attempt
    EndsCancelled,   // the same after a cancel
    EndsUnsaid,      // the worker ended in good order, and has not said how its task ended
    PassesDeadline,  // its deadline is over
    EndsUntouched,   // the worker that had it in its list has certainly not begun it
    EndsUndone,      // its own worker is gone, or never was, before it did anything
    ConnectsByHand,  // a worker that was started by hand: its connection
    Cancel,
    Suspend,
    Resume,
    Finish,
    Update,
    Retry,
    Prioritise,
    Delete,
};

inline constexpr StateEvent kStateEvents[] = {
    StateEvent::Claimed,       StateEvent::SaysRunning, StateEvent::SaysPaused,
    StateEvent::SaysFinished,  StateEvent::SaysError,   StateEvent::SaysErrorAgain,
    StateEvent::SaysCancelled, StateEvent::EndsLost,    StateEvent::EndsLostAgain,
    StateEvent::EndsCancelled, StateEvent::EndsUnsaid,  StateEvent::PassesDeadline,
    StateEvent::EndsUntouched, StateEvent::EndsUndone,  StateEvent::ConnectsByHand,
    StateEvent::Cancel,        StateEvent::Suspend,     StateEvent::Resume,
    StateEvent::Finish,        StateEvent::Update,      StateEvent::Retry,
    StateEvent::Prioritise,    StateEvent::Delete};

enum class Effect {
    Moves,
    Stays,    // taken, and the state is the same afterwards
    Removes,  // the task is gone
    Refused,
};

struct Transition {
    Effect effect = Effect::Refused;
    TaskState to = TaskState::Queued;  // of Moves; the state as it was of the others
};

Transition Next(TaskState from, StateEvent event);

std::string_view NameOf(TaskState state);   // "queued", ...
std::string_view NameOf(StateEvent event);  // "cancel", "says finished", ...
std::optional<TaskState> TaskStateOf(std::string_view name);
// Finished, failed, cancelled or lost.
bool IsEnded(TaskState state);
// A worker has it: starting, running, paused or finishing.
bool IsActive(TaskState state);

// "t12 is queued: finish is for a task that is running or paused"
std::string RefusalText(const std::string& id, TaskState state, StateEvent event);

// The whole table as Markdown, as docs/engine.md has it.
std::string TransitionTable();

}  // namespace rq::engine
