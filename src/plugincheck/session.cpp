#include "plugincheck/session.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>
#include <thread>

#include "base/paths.h"
#include "base/text.h"
#include "platform/crash.h"
#include "platform/files.h"
#include "platform/process_facts.h"
#include "plughost/parameter_view.h"
#include "plugincheck/host_probe.h"
#include "plugincheck/machine_clock.h"
#include "plugincheck/resource_watch.h"
#include "plugincheck/task_driver.h"

namespace rq::plugincheck {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::int32_t kTypeWithFile = 23;      // receives the name of a file instead of the parameters
constexpr milliseconds kLateCallbackWait(150);  // for what a thread that was left behind still does
constexpr std::size_t kRandomTasks = 10;
constexpr std::uint64_t kUndisturbedOf = 6;  // of so many tasks in the row one is disturbed
constexpr std::size_t kMostLogLines = 200;

// What a plug-in logs goes to standard output, which the supervising process keeps.
void PrintLog(int level, const std::string& text) {
    static std::atomic<std::size_t> lines{0};
    if (lines++ >= kMostLogLines) return;
    std::printf("log %d: %s\n", level, text.c_str());
    std::fflush(stdout);
}

class Session {
  public:
    Session(const CheckOptions& options, JournalWriter& journal)
        : m_options(options),
          m_journal(journal),
          m_watchdog(journal),
          m_calls(journal, m_watchdog, std::chrono::seconds(options.patience_s)),
          m_watch(*new PerformWatch(journal, StopFlag(), options.tasks + 64)),  // a late callback finds it
          m_services(
              "", StopFlag(),
              {.log = [](int level, const std::string& text, const std::string&) { PrintLog(level, text); },
               .quietFor = [this](std::chrono::seconds duration) { m_watch.QuietFor(duration); }}),
          m_probe(HostProbe::Make(journal, m_services.Plain())),
          m_driver(journal, m_calls, m_services, m_probe, m_watch, StopFlag(), options),
          m_random(options.seed),
          m_deadline(steady_clock::now() + std::chrono::seconds(options.time_s)) {}

    void Run() {
        if (!Load() || !Describe()) return;
        if (Init()) {
            RefuseTexts();
            if (m_options.task)
                PerformTasks();
            else
                m_journal.Remark("no task was given (--task): nothing was performed");
        }
        Release();
    }

  private:
    static volatile std::uint32_t* StopFlag() {
        static volatile std::uint32_t flag = RQ_STOP_NONE;  // until the process ends, as promised
        return &flag;
    }

    bool Load();
    bool Describe();
    bool CheckDescription(const RQPluginDescription& description);
    std::string DescriptionText(RQText text, const char* what);
    bool Init();
    void RefuseTexts();
    void PerformTasks();
    bool PerformBase();
    void PerformScenarios();
    void PerformRow();
    void RunScenario(const Scenario& scenario);
    void Release();
    bool IsTimeLeft() const { return steady_clock::now() < m_deadline; }

    const CheckOptions& m_options;
    JournalWriter& m_journal;
    MachineClockThread m_clock;
    Watchdog m_watchdog;
    PluginCalls m_calls;
    PerformWatch& m_watch;
    HostServices m_services;
    HostProbe& m_probe;
    TaskDriver m_driver;
    Random m_random;
    steady_clock::time_point m_deadline;
    PluginFacts m_facts;
    TaskLength m_length;
    std::unique_ptr<ParameterView> m_initParameters;
    tagOVLCommunicationParam m_parameters;
};

// ---- loading ----

bool Session::Load() {
    for (const Check check : {Check::Load, Check::MissingExport}) m_journal.Exercised(check);
    WorkerPlugin& plugin = m_calls.Library();
    plugin.dllPath = WidenUtf8(m_options.library);
    const std::string folder = Utf8FromPath(PathFromUtf8(m_options.library).parent_path());
    platform::OsError error;
    if (!platform::ChangeCurrentDirectory(folder, &error)) {
        m_journal.Tell(Check::Load, error.message);
        return false;
    }
    {
        const Step step(m_journal, Lane::Main, "loading the library");
        if (!LoadPluginLibrary(plugin, &error)) {
            m_journal.Tell(Check::Load, error.message);
            return false;
        }
    }
    if (FindEntryPoints(plugin)) {
        if (plugin.pInitFunc == nullptr) m_journal.Remark("RQWorkerInit is not exported, as it may be");
        if (plugin.pReleaseFunc == nullptr) m_journal.Remark("RQWorkerRelease is not exported, as it may be");
        return true;
    }
    std::string missing;
    if (plugin.pAnalyseTaskFunc == nullptr) missing = "RQWorkerAnalyseTask";
    if (plugin.pPerformTaskFunc == nullptr)
        missing += std::string(missing.empty() ? "" : " and ") + "RQWorkerPerformTask";
    m_journal.Tell(Check::MissingExport, missing + " cannot be found in the library");
    return false;
}

bool Session::Describe() {
    m_facts.name = PluginFileStem(m_calls.Library().dllPath);
    bool isGood = true;
    if (m_calls.Library().pDescribeFunc == nullptr) {
        m_journal.Remark("RQWorkerDescribe is not exported: the plug-in gets no host services");
    } else {
        for (const Check check : {Check::ContractVersion, Check::StructSize, Check::Description})
            m_journal.Exercised(check);
        const auto description = m_calls.Describe(m_probe.Plain());
        if (!description) return false;
        isGood = *description == nullptr || CheckDescription(**description);
    }
    m_journal.Plugin(m_facts);
    m_services.SetPluginName(m_facts.name);
    m_driver.Describe(m_facts);
    return isGood;
}

bool Session::CheckDescription(const RQPluginDescription& given) {
    const Step step(m_journal, Lane::Main, "reading the description", Check::TextMemory);
    const auto isTooSmall = [&](std::size_t needed) {
        if (given.size >= needed) return false;
        m_journal.Tell(Check::StructSize, "the description says that it has " + std::to_string(given.size) +
                                              " bytes of " + std::to_string(sizeof given));
        return true;
    };
    if (isTooSmall(offsetof(RQPluginDescription, contractVersion) + sizeof given.contractVersion))
        return false;
    if (given.contractVersion != RQ_CONTRACT_VERSION) {
        m_journal.Tell(Check::ContractVersion,
                       "the description says version " + std::to_string(given.contractVersion) +
                           ", this is version " + std::to_string(RQ_CONTRACT_VERSION));
        return false;
    }
    if (isTooSmall(sizeof given)) return false;
    if (given.typeCount > 0 && given.types == nullptr) {
        m_journal.Tell(Check::Description,
                       std::to_string(given.typeCount) + " task types are counted and none is listed");
        return false;
    }
    m_facts.isDescribed = true;
    if (const std::string name = DescriptionText(given.name, "name"); !name.empty()) m_facts.name = name;
    m_facts.version = DescriptionText(given.version, "version");
    m_facts.types.assign(given.types, given.types + given.typeCount);
    m_facts.abilities = given.abilities;
    return true;
}

std::string Session::DescriptionText(RQText text, const char* what) {
    const std::string_view bytes = PluginTextView(text);
    if (bytes.empty()) m_journal.Tell(Check::Description, std::string("the ") + what + " is empty");
    if (!IsValidUtf8(bytes))
        m_journal.Tell(Check::InvalidUtf8,
                       std::string("the description's ") + what + " is \"" + RepairUtf8(bytes) + "\"");
    return RepairUtf8(bytes);
}

bool Session::Init() {
    std::int32_t type = m_facts.types.empty() ? 0 : m_facts.types.front();
    if (m_options.type) type = *m_options.type;
    m_parameters.progressPatrolTimeout_s = m_options.patrol_s;
    m_driver.SetParameters(m_parameters);
    m_initParameters = std::make_unique<ParameterView>(m_parameters);
    if (m_calls.Library().pInitFunc == nullptr) return true;
    m_journal.Exercised(Check::InitFailed);
    static const char kFileName[] = "actor.xml";
    const void* parameter = type == kTypeWithFile ? static_cast<const void*>(kFileName)
                                                  : static_cast<const void*>(m_initParameters->Plain());
    std::error_code error;
    if (type == kTypeWithFile && !std::filesystem::exists(kFileName, error))
        m_journal.Remark(
            "there is no actor.xml in the plug-in's folder, where a worker would have put a copy of its own");
    const auto code = m_calls.Init(parameter);
    if (!code) return false;
    if (*code != 0) m_journal.Tell(Check::InitFailed, "RQWorkerInit returned " + std::to_string(*code));
    return *code == 0;
}

// ---- tasks ----

void Session::RefuseTexts() {
    m_driver.Refuse("", "an empty text");
    m_driver.Refuse("this is no task text", "a text that is no task");
    m_driver.Refuse("<\xFF\xFE\x80>", "a text that is not UTF-8");
    if (m_options.task) {
        m_driver.Refuse(m_options.task->substr(0, m_options.task->size() / 2), "half of the task text");
    }
}

void Session::PerformTasks() {
    if (!PerformBase()) return;
    PerformScenarios();
    PerformRow();
    m_journal.Figure("longest_stop_ms", static_cast<double>(m_driver.LatestStop().count()));
    m_journal.Figure("longest_silence_ms", static_cast<double>(m_watch.LongestSilence().count()));
}

// Undisturbed: twice with a text that is left in place, and then, as from then on, with one that is not. What
// fails only then has kept the text.
bool Session::PerformBase() {
    const Scenario kept[] = {{.what = "undisturbed", .isTextKept = true},
                             {.what = "undisturbed, once more", .isTextKept = true}};
    for (const Scenario& scenario : kept) {
        const TaskOutcome outcome = m_driver.Run(scenario);
        if (!outcome.isPerformed) return false;
        m_length = outcome.length;
        if (outcome.isCutShort)
            m_journal.Remark(
                "the task takes too long for this check and was cancelled each time: give a "
                "shorter one, or more time (--time)");
        if (outcome.hasFailed) {
            m_journal.Tell(Check::TaskFailed, outcome.failure);
            return false;
        }
        std::this_thread::sleep_for(kLateCallbackWait);
        if (!IsTimeLeft()) {
            m_journal.Remark("the time was over before the task had been disturbed");
            return false;
        }
    }
    for (const Check check :
         {Check::ProgressLate, Check::TaskTextKept, Check::TaskTextLength, Check::WrongOrder})
        m_journal.Exercised(check);
    const TaskOutcome outcome =
        m_driver.Run({.what = "undisturbed, its text overwritten after the analysis", .isFirstLent = true});
    if (outcome.hasFailed)
        m_journal.Tell(Check::TaskTextKept, outcome.failure + "; with the text left in place it succeeds");
    return outcome.isPerformed && !outcome.hasFailed;
}

void Session::RunScenario(const Scenario& scenario) {
    if (!IsTimeLeft()) return;
    // One late stop is told; waiting for more of them shows nothing new.
    if (scenario.Stops() && m_journal.IsTold(Check::StopLate)) return;
    const TaskOutcome outcome = m_driver.Run(scenario);
    if (outcome.hasFailed) m_journal.Tell(Check::TaskFailed, outcome.failure + "; undisturbed it succeeds");
}

void Session::PerformScenarios() {
    RunScenario({.what = "cancelled during its analysis", .isCancelledBefore = true});
    RunScenario(StopAtRandom(m_random, m_length, Order::Cancel));
    RunScenario(StopAtRandom(m_random, m_length, Order::Finish));
    RunScenario(SuspendAndResume(m_random, m_length));
    RunScenario(StopWhileSuspended(m_random, m_length));
    RunScenario(UpdateAtRandom(m_random, m_length));
    RunScenario({.what = "undisturbed", .isUpdatedAfter = true});
    RunScenario({.what = "undisturbed", .areTextsWritten = true});
    for (std::size_t i = 0; i < kRandomTasks; ++i) RunScenario(AnyScenario(m_random, m_length));
}

void Session::PerformRow() {
    std::vector<std::uint64_t> memory;
    std::vector<std::size_t> handles;
    memory.reserve(m_options.tasks);
    handles.reserve(m_options.tasks);
    std::uint32_t done = 0;
    for (; done < m_options.tasks && IsTimeLeft(); ++done) {
        const bool isDisturbed = m_random() % kUndisturbedOf == 0;
        RunScenario(isDisturbed ? AnyScenario(m_random, m_length) : Scenario{.what = "one of a row"});
        memory.push_back(platform::AllocatedBytes());
        handles.push_back(platform::HandleCount());
    }
    m_journal.Figure("tasks_in_a_row", done);
    if (done < m_options.tasks)
        m_journal.Remark("the time was over after " + std::to_string(done) + " of " +
                         std::to_string(m_options.tasks) + " tasks in a row");
    if (const auto growth = JudgeMemory(memory)) {
        m_journal.Exercised(Check::MemoryGrowth);
        m_journal.Figure("memory_bytes_per_task", growth->perTask);
        if (growth->breach) m_journal.Tell(Check::MemoryGrowth, *growth->breach);
    }
    if (const auto growth = JudgeHandles(handles)) {
        m_journal.Exercised(Check::HandlesLeft);
        m_journal.Figure("handles_per_task", growth->perTask);
        if (growth->breach) m_journal.Tell(Check::HandlesLeft, *growth->breach);
    }
}

void Session::Release() {
    if (m_calls.Library().pReleaseFunc != nullptr) m_calls.Release();
    m_services.End();
    std::this_thread::sleep_for(kLateCallbackWait);
}

}  // namespace

int RunSession(const std::string& folder) {
    platform::SilenceAbort();
    platform::InstallCrashHandler();
    platform::OsError error;
    const auto text = platform::ReadWholeFile(folder + "/" + kOptionsFile, &error);
    const auto options = text ? OptionsFromJson(*text) : Result<CheckOptions>(Fail(error.message));
    // Never freed: a thread that the plug-in left behind may still tell something.
    JournalWriter* const journal = JournalWriter::Create(folder + "/" + kJournalFile).release();
    if (!options || journal == nullptr) {
        std::fprintf(stderr, "rqplugin-check: %s\n",
                     options ? "the journal cannot be made" : options.error().message.c_str());
        return 1;
    }
    {
        Session session(*options, *journal);
        session.Run();
    }
    journal->Finish();
    return 0;
}

}  // namespace rq::plugincheck
