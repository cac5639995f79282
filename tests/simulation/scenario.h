// Scenario: everything that a seed decides before its schedule begins: the worker's type and parameters, the
// tasks and what the plug-in does with them, what the engine orders and when, and what goes wrong. Plain
// values; times are nanoseconds of fake time.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "simulation/scheduler.h"

namespace rq::sim {

// One step of a perform call.
struct PluginStep {
    enum class Kind { Sleep, WaitForStop, Progress, SignOfLife, Result, Error };
    Kind kind = Kind::Sleep;
    std::int64_t a = 0;  // ms; done; seconds
    std::int64_t b = 0;  // total
};

struct TaskPlan {
    std::string id;
    std::int32_t analyseResult = 0;
    bool hasId = true;
    bool isDeaf = false;  // never looks at the stop flag
    bool throws = false;
    std::uint32_t endStatus = 0;
    std::vector<PluginStep> steps;

    std::string Text() const { return "<task><id>" + id + "</id></task>"; }
};

struct PlannedOrder {
    std::int64_t delay = 0;  // after the notice, or after the welcome
    std::uint32_t id = 0;
    bool isEarly = false;  // does not wait for the notice
    std::string task;      // of 4015 and 4017
};

// How the engine answers the connections, one after the other; later ones are welcomed.
enum class Handshake { Welcome, Refuse, Late, Mute, Close, NoSession, Hangs };

enum class Trouble { None, CutToWorker, CutToEngine, Reset, Silence, Bye, Crash, StuckWrite };

struct Scenario {
    std::int32_t type = 1;
    std::int32_t heartbeat_s = 60;
    std::int32_t report_s = 5;
    std::int32_t patrol_s = 60;
    std::int32_t pluginInitResult = 0;
    std::vector<TaskPlan> tasks;  // the first is the command line's
    std::vector<PlannedOrder> orders;
    std::int64_t closing = 0;  // when the engine sends what surely ends the worker

    std::int64_t engineUp = 0;
    std::vector<Handshake> handshakes;
    std::uint32_t ping_ms = 15'000;
    std::uint32_t silence_ms = 60'000;
    std::int64_t longestDelay = 0;  // of bytes on the network
    std::int64_t longestCommit = 0;
    int lostAcks = 0;       // acknowledgements of final statuses that the engine holds back
    int failedCommits = 0;  // that come before one succeeds
    bool repeatsAcks = false;
    bool reportsOldAcks = false;

    Trouble trouble = Trouble::None;
    std::int64_t troubleAt = 0;        // after the welcome; bytes for the two cuts
    std::int64_t engineBackAfter = 0;  // of a crash

    Strategy strategy;

    bool IsPackage() const { return type == 14 || type == 23; }
    const TaskPlan* Find(const std::string& id) const;
};

Scenario MakeScenario(std::uint64_t seed);
// One line for the trace.
std::string Describe(const Scenario& scenario);

}  // namespace rq::sim
