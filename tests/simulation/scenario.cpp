#include "simulation/scenario.h"

#include "records/engine_messages.h"

namespace rq::sim {
namespace {

constexpr std::int64_t kTotal = 1000;

std::int64_t SomeDelay(Random& random) {
    switch (random.Below(4)) {
        case 0:
            return 0;
        case 1:
            return random.Between(0, 5 * kMillisecond);
        case 2:
            return random.Between(0, 2 * kSecond);
        default:
            return random.Between(0, 30 * kSecond);
    }
}

PluginStep MakeStep(Random& random, std::int64_t& done) {
    using Kind = PluginStep::Kind;
    switch (random.Below(12)) {
        case 0:
            return {Kind::SignOfLife, random.Between(0, 30), 0};
        case 1:
            return {Kind::Result, 0, 0};
        case 2:
            return {Kind::Error, random.Between(1, 9), 0};
        case 3:
        case 4:
            return {Kind::WaitForStop, random.Between(0, 4'000), 0};
        case 5:
            return {Kind::Sleep, random.Between(0, 12'000), 0};
        case 6:
        case 7:
            return {Kind::Sleep, random.Between(0, 700), 0};
        default:
            // Sometimes more than there is, sometimes back.
            done += random.OneIn(10) ? -20 : random.Between(0, 250);
            if (done < 0) done = 0;
            return {Kind::Progress, done, kTotal};
    }
}

TaskPlan MakeTask(Random& random, int number) {
    TaskPlan plan;
    plan.id = "T" + std::to_string(number);
    if (random.OneIn(20)) {
        plan.analyseResult = 17;
        plan.hasId = !random.OneIn(2);
    }
    plan.isDeaf = random.OneIn(5);
    plan.throws = random.OneIn(25);
    plan.endStatus = random.Of<std::uint32_t>({0, 0, 0, 0, 0, 4, 4, 5, 1, 3});
    std::int64_t done = 0;
    const std::int64_t steps = random.OneIn(8) ? 0 : random.Between(1, 30);
    for (std::int64_t i = 0; i < steps; ++i) plan.steps.push_back(MakeStep(random, done));
    // Long enough to be found stalled.
    if (random.OneIn(7)) plan.steps.push_back({PluginStep::Kind::WaitForStop, 90'000, 0});
    return plan;
}

void MakeOrders(Random& random, Scenario& scenario) {
    const std::uint64_t count = random.OneIn(3) ? 0 : random.Below(7);
    for (std::uint64_t i = 0; i < count; ++i) {
        PlannedOrder order;
        order.delay = SomeDelay(random);
        order.isEarly = random.OneIn(12);
        order.id = random.Of<std::uint32_t>(
            {TCP_TASK_SUSPEND_ID, TCP_TASK_SUSPEND_ID, TCP_TASK_RESUME_ID, TCP_TASK_RESUME_ID,
             TCP_TASK_UPDATE_ID, TCP_TASK_CANCEL_ID, TCP_TASK_FINISH_ID, TCP_WORKER_DESTROY_ID,
             TCP_SERVER_DISCONNECT_ID, 4018, TCP_TASK_UPDATE_ID, TCP_TASK_SUSPEND_ID});
        if (order.id == TCP_TASK_UPDATE_ID) order.task = scenario.tasks.front().id;
        scenario.orders.push_back(order);
    }
    for (std::size_t i = 1; i < scenario.tasks.size(); ++i)
        scenario.orders.push_back({SomeDelay(random), TCP_TASK_ADD_ID, false, scenario.tasks[i].id});
}

void MakeTrouble(Random& random, Scenario& scenario) {
    if (!random.OneIn(3)) return;
    scenario.trouble =
        random.Of({Trouble::CutToWorker, Trouble::CutToEngine, Trouble::Reset, Trouble::Silence, Trouble::Bye,
                   Trouble::Crash, Trouble::Crash, Trouble::StuckWrite});
    const bool isCut = scenario.trouble == Trouble::CutToWorker || scenario.trouble == Trouble::CutToEngine;
    scenario.troubleAt = isCut ? random.Between(0, 1'200) : SomeDelay(random);
    scenario.engineBackAfter = random.Between(0, 3 * kSecond);
}

Strategy MakeStrategy(Random& random) {
    Strategy strategy;
    strategy.preemptOneIn = random.Of<std::uint64_t>({0, 2, 8, 8, 32, 32, 128});
    strategy.byPriority = random.OneIn(3);
    strategy.stallOneIn = random.Of<std::uint64_t>({0, 0, 64, 512});
    strategy.longestStall_ns = random.Of<std::int64_t>({kMillisecond, 50 * kMillisecond});
    strategy.spuriousOneIn = random.Of<std::uint64_t>({0, 0, 64, 512});
    return strategy;
}

}  // namespace

const TaskPlan* Scenario::Find(const std::string& id) const {
    for (const TaskPlan& task : tasks) {
        if (task.id == id) return &task;
    }
    return nullptr;
}

Scenario MakeScenario(std::uint64_t seed) {
    Random random(seed ^ 0x5CE7A210ull);
    Scenario scenario;
    scenario.type = random.Of({1, 1, 14, 23});
    scenario.heartbeat_s = random.Of({1, 7, 30, 59, 60, 60, 61, 3600});
    scenario.report_s = random.Of({1, 1, 2, 5});
    scenario.patrol_s = random.Of({0, 3, 10, 60, 60, 60});
    scenario.pluginInitResult = random.OneIn(60) ? 5 : 0;
    const std::uint64_t tasks = scenario.IsPackage() ? 1 + random.Below(4) : 1 + (random.OneIn(10) ? 1 : 0);
    for (std::uint64_t i = 0; i < tasks; ++i)
        scenario.tasks.push_back(MakeTask(random, static_cast<int>(i) + 1));
    MakeOrders(random, scenario);
    scenario.closing = random.Between(35, 120) * kSecond;

    scenario.engineUp = random.OneIn(4) ? random.Between(0, 8 * kSecond) : 0;
    if (random.OneIn(4)) {
        const std::uint64_t count = 1 + random.Below(3);
        for (std::uint64_t i = 0; i < count; ++i)
            scenario.handshakes.push_back(
                random.Of({Handshake::Refuse, Handshake::Late, Handshake::Mute, Handshake::Close,
                           Handshake::NoSession, Handshake::Hangs}));
    }
    if (random.OneIn(3)) {
        scenario.ping_ms = 2'000;
        scenario.silence_ms = 9'000;
    }
    scenario.longestDelay =
        random.Of<std::int64_t>({0, 100 * kMicrosecond, 20 * kMillisecond, 300 * kMillisecond});
    scenario.longestCommit = random.Of<std::int64_t>({0, 10 * kMillisecond, kSecond, 7 * kSecond});
    if (random.OneIn(4)) scenario.lostAcks = static_cast<int>(1 + random.Below(3));
    if (random.OneIn(6)) scenario.failedCommits = static_cast<int>(1 + random.Below(3));
    scenario.repeatsAcks = random.OneIn(3);
    scenario.reportsOldAcks = random.OneIn(3);
    MakeTrouble(random, scenario);
    scenario.strategy = MakeStrategy(random);
    return scenario;
}

std::string Describe(const Scenario& scenario) {
    return "type " + std::to_string(scenario.type) + ", " + std::to_string(scenario.tasks.size()) +
           " tasks, " + std::to_string(scenario.orders.size()) + " orders, heartbeat " +
           std::to_string(scenario.heartbeat_s) + " s, report " + std::to_string(scenario.report_s) +
           " s, patrol " + std::to_string(scenario.patrol_s) + " s, trouble " +
           std::to_string(static_cast<int>(scenario.trouble)) + ", preempts one in " +
           std::to_string(scenario.strategy.preemptOneIn);
}

}  // namespace rq::sim
