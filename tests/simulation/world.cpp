#include "simulation/world.h"

#include <memory>
#include <utility>

#include "platform/identity.h"
#include "platform/process.h"
#include "worker/worker_base.h"

namespace rq::sim {
namespace {

// Fake time by which every worker has ended, whatever its plug-in and its engine did.
constexpr std::int64_t kEndOfTime = 1'500 * kSecond;

World* g_active = nullptr;

}  // namespace

World& ActiveWorld() {
    return *g_active;
}

World::World(std::uint64_t seed, Trace& trace, Counts& all)
    : counts(all),
      scenario(MakeScenario(seed)),
      random(seed ^ 0x0E2D71D3ull),
      scheduler(seed, scenario.strategy, trace),
      agenda(scheduler),
      network(*this),
      engine(*this),
      plugin(*this),
      watch(*this) {
    g_active = this;
    scheduler.Note("seed " + std::to_string(seed) + ": " + Describe(scenario));
    scheduler.SetObserver(&watch);
    LogHub().Add(&watch);
    ConsoleHub().Add(&watch);
}

World::~World() {
    ConsoleHub().Remove(&watch);
    LogHub().Remove(&watch);
    g_active = nullptr;
}

void World::Run() {
    agenda.After(kEndOfTime, [this] { scheduler.Fail("the worker does not end"); });
    scheduler.Run(
        "main",
        [this] {
            LiveOneWorker();
            agenda.End();
        },
        "world", [this] { agenda.CarryOut(); });
    ++counts.schedules;
    counts.steps += scheduler.Step();
    counts.time += scheduler.Now();
}

// What the run driver does.
void World::LiveOneWorker() {
    WorkerCoreSeams seams;
    seams.createEngineClient = [this] { return watch.MakeClient(); };
    seams.deleteEngineClient = &Watch::DeleteClient;
    seams.createRunner = [this] {
        WorkRunnerSeams runner;
        plugin.FillIn(runner);
        return std::make_unique<WorkRunner>(std::move(runner));
    };
    seams.readRunningParameter = [this](const std::string&, tagOVLCommunicationParam* parameter) {
        parameter->heartbeatInterval_s = scenario.heartbeat_s;
        parameter->progressReportInterval_s = scenario.report_s;
        parameter->progressPatrolTimeout_s = scenario.patrol_s;
        return 0;
    };
    const std::string text = scenario.tasks.front().Text();
    WorkerStartRecord start;
    start.parameterText = text;
    start.taskType = scenario.type;

    auto core = std::make_unique<CRQWorkerBase>(std::move(seams));
    const std::int32_t result = core->Init(&start);
    watch.OnInitialised(result);
    if (result == 0) core->DoWork(text, scenario.type);
    if (result == 0) watch.OnWorkOver();
    core->Release();
    if (result == 0) watch.OnReleased();
    core.reset();
}

}  // namespace rq::sim

// What differs from run to run otherwise; the linker sends the worker's calls here.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
std::uint64_t __wrap__ZN2rq8platform16CurrentProcessIdEv() {
    return 4711;
}
rq::platform::Guid __wrap__ZN2rq8platform10CreateGuidEv() {
    rq::platform::Guid guid;
    guid.data1 = static_cast<std::uint32_t>(rq::sim::ActiveWorld().random.Next());
    return guid;
}
}
// NOLINTEND(bugprone-reserved-identifier)
