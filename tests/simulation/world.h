// World: everything of one schedule, and the worker that lives in it. One at a time.
#pragma once

#include <cstdint>

#include "simulation/agenda.h"
#include "simulation/engine.h"
#include "simulation/network.h"
#include "simulation/plugin.h"
#include "simulation/scenario.h"
#include "simulation/scheduler.h"
#include "simulation/watch.h"

namespace rq::sim {

// What happened over all schedules, to see that the hard cases came.
struct Counts {
    std::uint64_t schedules = 0;
    std::uint64_t steps = 0;
    std::uint64_t threads = 0;
    std::int64_t time = 0;  // fake
    std::uint64_t sends = 0;
    std::uint64_t progress = 0;
    std::uint64_t heartbeats = 0;
    std::uint64_t orders = 0;
    std::uint64_t finalsAccepted = 0;
    std::uint64_t finalsRetried = 0;
    std::uint64_t losses = 0;  // 12306
    std::uint64_t stalls = 0;  // closed by the patrol
    std::uint64_t crashes = 0;
    std::uint64_t lostAcks = 0;
    std::uint64_t failedCommits = 0;
};

struct World {
    World(std::uint64_t seed, Trace& trace, Counts& all);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // The whole schedule; ends the process when something is violated.
    void Run();

    Counts& counts;
    const Scenario scenario;
    Random random;
    Scheduler scheduler;
    Agenda agenda;
    Network network;
    Engine engine;
    Plugin plugin;
    Watch watch;

  private:
    void LiveOneWorker();
};

// The one that runs.
World& ActiveWorld();

}  // namespace rq::sim
