#include "stress/plugin.h"

#include <stdexcept>
#include <thread>

namespace rq::stress {
namespace {

constexpr std::chrono::microseconds kReportInterval{100};
// Beyond this a report that was held (a pause, a busy machine) is not made up for.
constexpr std::chrono::milliseconds kLongestArrears{50};
constexpr std::int32_t kOtherTask = 18;
constexpr std::int32_t kRefusal = 17;

Plugin* g_active = nullptr;

// 10,000 times a second, whatever the sleeps of this machine are worth.
class Pace {
  public:
    void Wait() {
        m_next += kReportInterval;
        const auto now = std::chrono::steady_clock::now();
        if (now < m_next) {
            std::this_thread::sleep_until(m_next);
        } else if (now - m_next > kLongestArrears) {
            m_held += now - m_next;
            m_next = now;
        }
    }
    // What was not made up for.
    std::chrono::steady_clock::duration Held() const { return m_held; }

  private:
    std::chrono::steady_clock::duration m_held{0};
    std::chrono::steady_clock::time_point m_next = std::chrono::steady_clock::now();
};

RQText View(const std::string& text) {
    return {text.data(), text.size()};
}

}  // namespace

Plugin::Plugin(const Draw& draw, Watch& watch, Counts& counts)
    : m_draw(draw), m_watch(watch), m_counts(counts) {
    g_active = this;
}

Plugin::~Plugin() {
    g_active = nullptr;
}

void Plugin::FillIn(WorkRunnerSeams& seams) {
    seams.loadLibrary = [](WorkerPlugin& plugin, platform::OsError*) {
        plugin.hModule = g_active;
        return true;
    };
    seams.findEntryPoints = [](WorkerPlugin& plugin) {
        plugin.pDescribeFunc = [](const RQHostServices* host) -> const RQPluginDescription* {
            g_active->m_host = host;
            return nullptr;
        };
        plugin.pInitFunc = [](const void*) -> std::int32_t { return g_active->m_draw.failsInit ? 5 : 0; };
        plugin.pReleaseFunc = []() -> std::int32_t {
            MutexLock lock(g_active->m_lock);
            g_active->m_records.clear();
            return 0;
        };
        plugin.pAnalyseTaskFunc = [](RQText text, TaskInfo** info) { return g_active->Analyse(text, info); };
        plugin.pPerformTaskFunc = [](TaskInfo* info, const volatile std::uint32_t* stop,
                                     RQProgressCallback progress, void* context, const RQRunningParameter*) {
            return g_active->Perform({*info, stop, progress, context});
        };
        return true;
    };
}

// Also on the handler thread, for an update.
std::int32_t Plugin::Analyse(RQText text, TaskInfo** info) {
    const TaskPlan* plan = m_draw.Find(std::string(text.p, text.n));
    static const TaskPlan none;
    if (plan == nullptr) plan = &none;
    // An update may come before there is any task.
    if (std::this_thread::get_id() == m_main) m_watch.OnNewTask(plan->id);
    MutexLock lock(m_lock);
    if (*info != nullptr) {
        // No task becomes another.
        if (static_cast<const TaskPlan*>((*info)->own) != plan) return kOtherTask;
    } else {
        m_records.remove_if([this](const Record& record)
                                RQ_REQUIRES(m_lock) { return &record.info != m_performed; });
    }
    Record& record = m_records.emplace_back();
    record.plan = plan;
    record.info.size = sizeof record.info;
    record.info.contractVersion = RQ_CONTRACT_VERSION;
    record.info.taskId = View(plan->id);
    record.info.taskType = m_draw.type;
    record.info.own = const_cast<TaskPlan*>(plan);
    *info = &record.info;
    return plan == &none || plan->isRefused ? kRefusal : 0;
}

void Plugin::ForgetPerformed(const TaskInfo& next) {
    MutexLock lock(m_lock);
    m_records.remove_if([this, &next](const Record& record) RQ_REQUIRES(m_lock) {
        return &record.info == m_performed && &record.info != &next;
    });
    m_performed = &next;
}

std::int32_t Plugin::Perform(const Call& call) {
    ForgetPerformed(call.info);
    const TaskPlan& plan = *static_cast<const TaskPlan*>(call.info.own);
    ++m_counts.tasks;
    std::atomic<bool> isOver = false;
    std::thread helper;
    if (plan.hasHelper) helper = std::thread([this, &isOver] { Help(isOver); });
    Report(plan, call);
    isOver = true;
    if (helper.joinable()) helper.join();
    const std::uint32_t order = RQLoad32(call.stop);
    if (plan.throws) throw std::runtime_error("thrown by " + plan.id);
    RQStore32(&call.info.status, order == RQ_STOP_NONE     ? plan.endStatus
                                 : order == RQ_STOP_FINISH ? RQ_STATUS_FINISHED
                                                           : RQ_STATUS_CANCELLED);
    return 0;
}

void Plugin::Report(const TaskPlan& plan, const Call& call) {
    const auto begin = std::chrono::steady_clock::now();
    Pace pace;
    int report = 0;
    for (; report < plan.reports && RQLoad32(call.stop) == RQ_STOP_NONE; ++report) {
        // The worker's time passes faster than ours.
        if (report == plan.quietAt)
            m_host->waitForStop(m_host->context, static_cast<std::uint32_t>(plan.quiet.count() * 100));
        call.progress(plan.reports, report + 1, call.context);
        pace.Wait();
    }
    m_counts.reports += static_cast<std::uint64_t>(report);
    m_counts.performing += std::chrono::steady_clock::now() - begin - pace.Held();
}

void Plugin::Help(const std::atomic<bool>& isOver) {
    const std::string text = "helper";
    while (!isOver) {
        RQTranscodeOutput output{};
        output.size = sizeof output;
        output.first = View(text);
        m_host->publishResult(m_host->context, RQ_RESULT_TRANSCODE_OUTPUT, &output);
        m_host->quietFor(m_host->context, 1);
        m_host->publishError(m_host->context, 7, 8, View(text), View(text));
        m_host->log(m_host->context, 2, View(text));
        if (m_host->waitForStop(m_host->context, 100) != RQ_STOP_NONE) break;
    }
}

}  // namespace rq::stress
