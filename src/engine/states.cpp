#include "engine/states.h"

#include <iterator>
#include <vector>

namespace rq::engine {

namespace {

constexpr std::string_view kStateNames[] = {"queued",   "starting", "running",   "paused", "finishing",
                                            "finished", "failed",   "cancelled", "lost"};
static_assert(std::size(kStateNames) == std::size(kTaskStates));

struct Row {
    StateEvent event;
    std::string_view name;
    // One cell for each state, in the order of kTaskStates: a capital letter is the state that it moves to,
    // "=" stays, "-" removes the task, "." is refused.
    std::string_view cells;
};

// Q queued, S starting, R running, P paused, N finishing, F finished, X failed, C cancelled, L lost
constexpr std::string_view kLetters = "QSRPNFXCL";
static_assert(kLetters.size() == std::size(kTaskStates));

// clang-format off
constexpr Row kTable[] = {
    //                                            QSRPNFXCL
    {StateEvent::Claimed, "claimed",             "S........"},
    {StateEvent::SaysRunning, "says running",    ".R=R====="},
    {StateEvent::SaysPaused, "says paused",      ".PP======"},
    {StateEvent::SaysFinished, "says finished",  ".FFFF===="},
    {StateEvent::SaysError, "says error",        ".XXXX===="},
    {StateEvent::SaysErrorAgain, "says error, again", ".QQQ....."},
    {StateEvent::SaysCancelled, "says cancelled", ".CCCC===="},
    {StateEvent::EndsLost, "ends lost",          ".LLLL===="},
    {StateEvent::EndsLostAgain, "ends lost, again", ".QQQ....."},
    {StateEvent::EndsCancelled, "ends cancelled", "....C===="},
    {StateEvent::EndsUnsaid, "ends unsaid",      ".XXXX===="},
    {StateEvent::PassesDeadline, "passes deadline", "X====...."},
    {StateEvent::EndsUntouched, "ends untouched", ".Q..C===="},
    {StateEvent::EndsUndone, "ends undone",      ".Q......."},
    {StateEvent::ConnectsByHand, "connects by hand", ".R=======" },
    {StateEvent::Cancel, "cancel",               "CNNN====="},
    {StateEvent::Suspend, "suspend",             "=.==....."},
    {StateEvent::Resume, "resume",               "=.==....."},
    {StateEvent::Finish, "finish",               "..NN====="},
    {StateEvent::Update, "update",               "=.==....."},
    {StateEvent::Retry, "retry",                 "=====.QQQ"},
    {StateEvent::Prioritise, "priority",         "=====...."},
    {StateEvent::Delete, "delete",               ".....----"},
};
// clang-format on
static_assert(std::size(kTable) == std::size(kStateEvents));

const Row& RowOf(StateEvent event) {
    return kTable[static_cast<std::size_t>(event)];
}

Transition CellOf(const Row& row, TaskState from) {
    const char cell = row.cells[static_cast<std::size_t>(from)];
    if (cell == '.') return {Effect::Refused, from};
    if (cell == '=') return {Effect::Stays, from};
    if (cell == '-') return {Effect::Removes, from};
    return {Effect::Moves, static_cast<TaskState>(kLetters.find(cell))};
}

// Where the event does something; where it does nothing anywhere else, also where it stays.
std::vector<TaskState> StatesFor(const Row& row) {
    std::vector<TaskState> moving, staying;
    for (const TaskState state : kTaskStates) {
        const Effect effect = CellOf(row, state).effect;
        if (effect == Effect::Moves || effect == Effect::Removes) moving.push_back(state);
        if (effect == Effect::Stays) staying.push_back(state);
    }
    return moving.empty() ? staying : moving;
}

}  // namespace

Transition Next(TaskState from, StateEvent event) {
    return CellOf(RowOf(event), from);
}

std::string_view NameOf(TaskState state) {
    return kStateNames[static_cast<std::size_t>(state)];
}

std::string_view NameOf(StateEvent event) {
    return RowOf(event).name;
}

std::optional<TaskState> TaskStateOf(std::string_view name) {
    for (const TaskState state : kTaskStates) {
        if (NameOf(state) == name) return state;
    }
    return std::nullopt;
}

bool IsEnded(TaskState state) {
    return state >= TaskState::Finished;
}

bool IsActive(TaskState state) {
    return state > TaskState::Queued && state < TaskState::Finished;
}

std::string RefusalText(const std::string& id, TaskState state, StateEvent event) {
    const auto states = StatesFor(RowOf(event));
    std::string list;
    for (std::size_t i = 0; i < states.size(); ++i) {
        if (i != 0) list += i + 1 == states.size() ? " or " : ", ";
        list += NameOf(states[i]);
    }
    return id + " is " + std::string(NameOf(state)) + ": " + std::string(NameOf(event)) +
           " is for a task that is " + list;
}

std::string TransitionTable() {
    std::string text = "| |";
    for (const TaskState state : kTaskStates) text += " " + std::string(NameOf(state)) + " |";
    text += "\n|";
    for (std::size_t i = 0; i <= std::size(kTaskStates); ++i) text += " --- |";
    text += "\n";
    for (const Row& row : kTable) {
        text += "| " + std::string(row.name) + " |";
        for (const TaskState state : kTaskStates) {
            const Transition next = CellOf(row, state);
            if (next.effect == Effect::Moves) text += " " + std::string(NameOf(next.to)) + " |";
            if (next.effect == Effect::Stays) text += " = |";
            if (next.effect == Effect::Removes) text += " removed |";
            if (next.effect == Effect::Refused) text += " |";
        }
        text += "\n";
    }
    return text;
}

}  // namespace rq::engine
