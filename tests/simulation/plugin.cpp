#include "simulation/plugin.h"

#include <stdexcept>

#include "base/clock.h"
#include "simulation/world.h"

namespace rq::sim {
namespace {

constexpr std::int32_t kOtherTask = 18;

RQText View(const std::string& text) {
    return {text.data(), text.size()};
}

std::string IdIn(const std::string& text) {
    const std::size_t from = text.find("<id>") + 4;
    return text.substr(from, text.find("</id>") - from);
}

}  // namespace

void Plugin::FillIn(WorkRunnerSeams& seams) {
    seams.moduleDirectory = L"" RQ_SIMULATION_FOLDER "/";
    seams.loadLibrary = [this](WorkerPlugin& plugin, platform::OsError*) {
        plugin.hModule = this;
        return true;
    };
    seams.findEntryPoints = [](WorkerPlugin& plugin) {
        plugin.pDescribeFunc = [](const RQHostServices* host) -> const RQPluginDescription* {
            ActiveWorld().plugin.m_host = host;
            return nullptr;
        };
        plugin.pInitFunc = [](const void*) { return ActiveWorld().scenario.pluginInitResult; };
        plugin.pReleaseFunc = []() -> std::int32_t { return 0; };
        plugin.pAnalyseTaskFunc = [](RQText text, TaskInfo** info) {
            return ActiveWorld().plugin.Analyse(text, info);
        };
        plugin.pPerformTaskFunc = [](TaskInfo* info, const volatile std::uint32_t* stop,
                                     RQProgressCallback progress, void* context, const RQRunningParameter*) {
            return ActiveWorld().plugin.Perform(*info, stop, progress, context);
        };
        return true;
    };
}

// Also on the handler thread, for an update.
std::int32_t Plugin::Analyse(RQText text, TaskInfo** info) {
    const bool isUpdate = Scheduler::Current()->number != 0;
    const TaskPlan* plan = m_world.scenario.Find(IdIn(std::string(text.p, text.n)));
    if (plan == nullptr) m_world.scheduler.Fail("the plug-in got a text that is no task's");
    m_world.scheduler.Note(std::string("plug-in analyses ") + (isUpdate ? "an update of " : "") + plan->id);
    // An update that comes when its task is over meets the next one: no task of a plug-in's becomes another.
    if (isUpdate && *info != nullptr && static_cast<const TaskPlan*>((*info)->own) != plan) return kOtherTask;
    if (!isUpdate) m_world.watch.OnAnalyse(plan->hasId ? plan->id : std::string(), plan->analyseResult);
    Record& record = m_records.emplace_back();
    if (plan->hasId) record.id = plan->id;
    record.info.size = sizeof record.info;
    record.info.contractVersion = RQ_CONTRACT_VERSION;
    record.info.taskId = View(record.id);
    record.info.taskType = m_world.scenario.type;
    record.info.own = const_cast<TaskPlan*>(plan);
    *info = &record.info;
    return plan->analyseResult;
}

std::int32_t Plugin::Perform(TaskInfo& info, const volatile std::uint32_t* stop, RQProgressCallback progress,
                             void* context) {
    const TaskPlan& plan = *static_cast<const TaskPlan*>(info.own);
    m_world.scheduler.Note("plug-in performs " + plan.id);
    m_world.watch.OnPerform();
    std::uint32_t status = plan.endStatus;
    for (const PluginStep& step : plan.steps) {
        Take(step, info, progress, context);
        const std::uint32_t order = plan.isDeaf ? RQ_STOP_NONE : RQLoad32(stop);
        if (order == RQ_STOP_NONE) continue;
        status = order == RQ_STOP_FINISH ? RQ_STATUS_FINISHED : RQ_STATUS_CANCELLED;
        break;
    }
    if (plan.throws) {
        m_world.scheduler.Note("plug-in throws");
        const std::uint32_t left = RQLoad32(&info.status);
        m_world.watch.OnPerformed(left == RQ_STATUS_RUNNING ? RQ_STATUS_ERROR : left);
        throw std::runtime_error(plan.id + ": thrown");
    }
    RQStore32(&info.status, status);
    m_world.scheduler.Note("plug-in returns status " + std::to_string(status));
    m_world.watch.OnPerformed(status);
    return 0;
}

void Plugin::Take(const PluginStep& step, const TaskInfo& info, RQProgressCallback progress, void* context) {
    const std::string id(info.taskId.p, info.taskId.n);
    switch (step.kind) {
        case PluginStep::Kind::Sleep:
            return SystemClock().SleepFor(std::chrono::milliseconds(step.a));
        case PluginStep::Kind::WaitForStop:
            // A deaf one does not see the stop and waits out its time.
            if (static_cast<const TaskPlan*>(info.own)->isDeaf)
                return SystemClock().SleepFor(std::chrono::milliseconds(step.a));
            m_host->waitForStop(m_host->context, static_cast<std::uint32_t>(step.a));
            return;
        case PluginStep::Kind::Progress:
            progress(step.b, step.a, context);
            return;
        case PluginStep::Kind::SignOfLife:
            progress(0, step.a, context);
            return;
        case PluginStep::Kind::Result:
            return PublishResult(id);
        case PluginStep::Kind::Error: {
            const std::string text = id + ": further";
            m_host->publishError(m_host->context, 70, static_cast<std::int32_t>(step.a), View(text),
                                 View(text));
            return;
        }
    }
}

void Plugin::PublishResult(const std::string& task) const {
    const std::string path = task + ":/out.mp4";
    RQTranscodeOutput output{};
    output.size = sizeof output;
    output.first = View(path);
    m_host->publishResult(m_host->context, RQ_RESULT_TRANSCODE_OUTPUT, &output);
}

}  // namespace rq::sim
