#include "engine/states.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <vector>

#include "kit/files.h"

namespace rq::engine {
namespace {

using enum TaskState;
using States = std::set<TaskState>;

constexpr TaskState kEnded[] = {Finished, Failed, Cancelled, Lost};

// What each event may do, said a second time and in another form: by its target, with where it comes from.
struct Expected {
    std::map<TaskState, States> moves;  // target: from
    States stays;
    States removes;
};

const States kAllEnded(std::begin(kEnded), std::end(kEnded));

States With(States states, const States& more) {
    states.insert(more.begin(), more.end());
    return states;
}

const std::map<StateEvent, Expected>& Expectations() {
    const States working = {Starting, Running, Paused, Finishing};
    const States untold = {Starting, Running, Paused};
    static const std::map<StateEvent, Expected> all = {
        {StateEvent::Claimed, {{{Starting, {Queued}}}, {}, {}}},
        {StateEvent::SaysRunning,
         {{{Running, {Starting, Paused}}}, With(kAllEnded, {Running, Finishing}), {}}},
        {StateEvent::SaysPaused, {{{Paused, {Starting, Running}}}, With(kAllEnded, {Paused, Finishing}), {}}},
        {StateEvent::SaysFinished, {{{Finished, working}}, kAllEnded, {}}},
        {StateEvent::SaysError, {{{Failed, working}}, kAllEnded, {}}},
        {StateEvent::SaysErrorAgain, {{{Queued, untold}}, {}, {}}},
        {StateEvent::SaysCancelled, {{{Cancelled, working}}, kAllEnded, {}}},
        {StateEvent::EndsLost, {{{Lost, working}}, kAllEnded, {}}},
        {StateEvent::EndsLostAgain, {{{Queued, untold}}, {}, {}}},
        {StateEvent::EndsCancelled, {{{Cancelled, {Finishing}}}, kAllEnded, {}}},
        {StateEvent::EndsUnsaid, {{{Failed, working}}, kAllEnded, {}}},
        {StateEvent::PassesDeadline, {{{Failed, {Queued}}}, working, {}}},
        {StateEvent::EndsUntouched, {{{Queued, {Starting}}, {Cancelled, {Finishing}}}, kAllEnded, {}}},
        {StateEvent::EndsUndone, {{{Queued, {Starting}}}, {}, {}}},
        {StateEvent::ConnectsByHand,
         {{{Running, {Starting}}}, With(kAllEnded, {Running, Paused, Finishing}), {}}},
        {StateEvent::Cancel,
         {{{Cancelled, {Queued}}, {Finishing, {Starting, Running, Paused}}},
          With(kAllEnded, {Finishing}),
          {}}},
        {StateEvent::Suspend, {{}, {Queued, Running, Paused}, {}}},
        {StateEvent::Resume, {{}, {Queued, Running, Paused}, {}}},
        {StateEvent::Finish, {{{Finishing, {Running, Paused}}}, With(kAllEnded, {Finishing}), {}}},
        {StateEvent::Update, {{}, {Queued, Running, Paused}, {}}},
        {StateEvent::Retry, {{{Queued, {Failed, Cancelled, Lost}}}, With(working, {Queued}), {}}},
        {StateEvent::Prioritise, {{}, With(working, {Queued}), {}}},
        {StateEvent::Delete, {{}, {}, kAllEnded}},
    };
    return all;
}

Transition Wanted(TaskState from, const Expected& expected) {
    for (const auto& [to, sources] : expected.moves) {
        if (sources.contains(from)) return {Effect::Moves, to};
    }
    if (expected.stays.contains(from)) return {Effect::Stays, from};
    if (expected.removes.contains(from)) return {Effect::Removes, from};
    return {Effect::Refused, from};
}

TEST(States, EveryPairOfStateAndEventDoesWhatItShould) {
    int pairs = 0;
    for (const StateEvent event : kStateEvents) {
        for (const TaskState from : kTaskStates) {
            const Transition wanted = Wanted(from, Expectations().at(event));
            const Transition next = Next(from, event);
            EXPECT_EQ(static_cast<int>(next.effect), static_cast<int>(wanted.effect))
                << NameOf(from) << ", " << NameOf(event);
            EXPECT_EQ(NameOf(next.to), NameOf(wanted.to)) << NameOf(from) << ", " << NameOf(event);
            ++pairs;
        }
    }
    EXPECT_EQ(pairs, 23 * 9);
}

TEST(States, AFinalStatusOrALossDecidesOnce) {
    for (const StateEvent event : kStateEvents) {
        if (event >= StateEvent::Cancel) continue;
        for (const TaskState ended : kEnded)
            EXPECT_NE(Next(ended, event).effect, Effect::Moves) << NameOf(ended) << ", " << NameOf(event);
    }
}

TEST(States, EveryRefusalNamesTheStateAndTheOrder) {
    int refusals = 0;
    for (const StateEvent event : kStateEvents) {
        for (const TaskState from : kTaskStates) {
            if (Next(from, event).effect != Effect::Refused) continue;
            const std::string text = RefusalText("t12", from, event);
            EXPECT_EQ(text.find("t12 is " + std::string(NameOf(from)) + ": " + std::string(NameOf(event))),
                      0u)
                << text;
            ++refusals;
        }
    }
    EXPECT_GT(refusals, 40);
    EXPECT_EQ(RefusalText("t12", Queued, StateEvent::Finish),
              "t12 is queued: finish is for a task that is running or paused");
    EXPECT_EQ(RefusalText("t1", Running, StateEvent::Delete),
              "t1 is running: delete is for a task that is finished, failed, cancelled or lost");
    EXPECT_EQ(RefusalText("t1", Starting, StateEvent::Suspend),
              "t1 is starting: suspend is for a task that is queued, running or paused");
}

TEST(States, NamesGoThereAndBack) {
    for (const TaskState state : kTaskStates) {
        EXPECT_EQ(TaskStateOf(NameOf(state)), state);
        EXPECT_FALSE(IsEnded(state) && IsActive(state));
    }
    EXPECT_FALSE(TaskStateOf("gone"));
    EXPECT_FALSE(IsActive(Queued));
    EXPECT_FALSE(IsEnded(Queued));
}

TEST(States, TheDocumentShowsTheSameTable) {
    const std::string document = kit::ReadText(std::filesystem::path(RQ_SOURCE_DIR) / "docs" / "engine.md");
    EXPECT_NE(document.find(TransitionTable()), std::string::npos) << TransitionTable();
}

}  // namespace
}  // namespace rq::engine
