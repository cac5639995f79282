#include "plugin/work_runner.h"

#include <cmath>
#include <deque>
#include <limits>
#include <utility>

#include "base/paths.h"
#include "base/result.h"
#include "platform/files.h"
#include "plugin/parameter_file.h"
#include "plugin/work_runner_state.h"
#include "plugin/worker_type_table.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {
namespace {

std::string Narrow(const WideText& text) {
    return KWOVL_UTILITY::OVLTStringToString(text);
}

WorkRunnerSeams SeamsWithClock(Clock& clock) {
    WorkRunnerSeams seams;
    seams.clock = &clock;
    return seams;
}

constexpr std::size_t kSavedDirectoryRoom_chars = 1024;  // with the zero at the end

}  // namespace

WorkRunner::State::State(WorkRunnerSeams given)
    : seams(std::move(given)),
      clock(seams.clock != nullptr ? *seams.clock : SystemClock()),
      taskThread(seams.taskThread != nullptr ? std::move(seams.taskThread) : std::make_unique<TaskThread>()),
      moduleDirectory(seams.moduleDirectory.empty() ? GetModuleDirectory() : seams.moduleDirectory),
      taskClock(clock),
      services("", stopFlag,
               {.log = [](int level, std::string text,
                          std::string module) { Log(level, std::move(text), std::move(module)); },
                .quietFor =
                    [this](std::chrono::seconds duration) {
                        MutexLock lock(progressLock);
                        TakeSignOfLife(duration.count());
                    }},
               clock) {}

// They stay reachable from here, which tells a leak checker that it is meant.
void WorkRunner::State::Keep(std::unique_ptr<State> state) {
    static Mutex mutex;
    static auto& states = *new std::deque<std::unique_ptr<State>>();
    MutexLock lock(mutex);
    states.push_back(std::move(state));
}

PluginLog WorkRunner::State::LogSink() const {
    return [](int level, std::string text) { Log(level, std::move(text)); };
}

WorkRunner::WorkRunner(Clock& clock) : WorkRunner(SeamsWithClock(clock)) {}

WorkRunner::WorkRunner(WorkRunnerSeams seams) : m_state(std::make_unique<State>(std::move(seams))) {}

WorkRunner::~WorkRunner() {
    Release();
    State::Keep(std::move(m_state));
}

// ---- Init ----

std::int32_t WorkRunner::Init(const WorkRunnerStart& start) {
    MutexLock lock(m_state->callLock);
    const std::int32_t loaded = m_state->LoadPlugin(start);
    return loaded == kStatusOk ? m_state->CallInit(start) : loaded;
}

std::int32_t WorkRunner::State::LoadPlugin(const WorkRunnerStart& start) {
    WorkerTypeTable table(moduleDirectory);
    WideText tablePath;
    if (!table.GetWorkerDllPath(start.workerType, tablePath)) {
        Log(4, "Get worker library failed.");
        return kStatusFail;
    }
    m_workerPlugin.dllPath = moduleDirectory + tablePath;
    ChangeToPluginDirectory();
    if (!LoadFromPluginDirectory()) return kStatusFail;
    if (!FindFunctions()) return kStatusFail;
    return ReadDescription() ? kStatusOk : kStatusFail;
}

bool WorkRunner::State::FindFunctions() {
    if (seams.findEntryPoints ? seams.findEntryPoints(m_workerPlugin) : FindEntryPoints(m_workerPlugin))
        return true;
    Log(4, "WorkRunner Init Plug in function False!");
    std::string missing;
    if (m_workerPlugin.pAnalyseTaskFunc == nullptr) missing = "RQWorkerAnalyseTask";
    if (m_workerPlugin.pPerformTaskFunc == nullptr)
        missing += (missing.empty() ? "" : " and ") + std::string("RQWorkerPerformTask");
    Log(4, "plug-in library " + pluginName + " does not export " + missing);
    return false;
}

WideText WorkRunner::State::NativePath(WideText path) const {
    if (PathSeparator() == L'\\') return path;
    for (std::size_t i = moduleDirectory.size(); i < path.size(); ++i) {
        if (path[i] == L'\\') path[i] = PathSeparator();
    }
    return path;
}

// The plug-in finds the libraries beside it, and its own files, in the current directory. Nobody moves it
// back.
void WorkRunner::State::ChangeToPluginDirectory() {
    savedDirectory = WidenUtf8(platform::CurrentDirectory());
    if (savedDirectory.size() >= kSavedDirectoryRoom_chars) savedDirectory.clear();
    const WideText folder = PluginFolder(m_workerPlugin.dllPath);
    if (folder.empty()) return;
    Log(4, "====> Change Work Path to [" + Narrow(folder) + "]");
    platform::OsError error;
    if (!platform::ChangeCurrentDirectory(Narrow(NativePath(folder)), &error)) Log(3, error.message);
}

bool WorkRunner::State::LoadFromPluginDirectory() {
    platform::OsError error;
    WorkerPlugin native;
    native.dllPath = NativePath(m_workerPlugin.dllPath);
    const bool isLoaded =
        seams.loadLibrary ? seams.loadLibrary(native, &error) : LoadPluginLibrary(native, &error);
    m_workerPlugin.hModule = native.hModule;
    pluginName = PluginFileStem(native.dllPath);
    if (isLoaded) return true;
    Log(4, "Load worker library failed.File [" + Narrow(m_workerPlugin.dllPath) + "]");
    if (!error.message.empty()) Log(4, error.message);
    return false;
}

// A plug-in of another contract is not called again, not even to release it.
bool WorkRunner::State::ReadDescription() {
    services.SetPluginName(pluginName);
    const Result<PluginDescription> description = DescribePlugin(m_workerPlugin, services.Plain());
    if (description.has_error()) {
        Log(4, description.error().message);
        m_workerPlugin.pAnalyseTaskFunc = nullptr;
        m_workerPlugin.pPerformTaskFunc = nullptr;
        m_workerPlugin.pInitFunc = nullptr;
        m_workerPlugin.pReleaseFunc = nullptr;
        return false;
    }
    pluginName = description->name;
    services.SetPluginName(pluginName);
    return true;
}

std::int32_t WorkRunner::State::CallInit(const WorkRunnerStart& start) {
    if (m_workerPlugin.pInitFunc == nullptr) return kStatusOk;
    initParameters = std::make_unique<ParameterView>(start.parameters);
    const void* parameter = initParameters->Plain();
    if (start.workerType == RQ_TASK_PACKAGE_PARAMETER_FILE) {
        parameter = kParameterFile;
        ProvideParameterFile(moduleDirectory);
    }
    Log(1, "m_workerPlugin.pInitFunc begin..");
    const std::int32_t result = m_workerPlugin.pInitFunc(parameter);
    if (result != kStatusOk) Log(4, "m_workerPlugin init func failed..");
    Log(1, "m_workerPlugin.pInitFunc end..");
    return result;
}

// ---- Release ----

void WorkRunner::Release() {
    State& s = *m_state;
    MutexLock lock(s.callLock);
    if (std::exchange(s.isReleased, true)) return;
    s.ForgetTask();  // before the plug-in frees the record: another thread may be reading it
    if (s.m_workerPlugin.pReleaseFunc != nullptr) {
        Log(1, "m_workerPlugin.pReleaseFunc begin..");
        s.m_workerPlugin.pReleaseFunc();
        Log(1, "m_workerPlugin.pReleaseFunc end..");
    }
    s.taskThread->Join();
    s.services.End();
    MutexLock results(s.resultLock);
    s.taskResult.reset();
}

// ---- what other threads read ----

volatile std::uint32_t* WorkRunner::State::StatusWord() {
    if (kept != nullptr) return &kept->status;
    TaskInfo* info = CurrentRecord().info;
    return info != nullptr ? &info->status : nullptr;
}

void WorkRunner::State::SetStatus(volatile std::uint32_t& word, std::uint32_t status) {
    statusChanged = RQLoad32(&word) != status;
    RQStore32(&word, status);
}

TaskErrorInfo WorkRunner::State::ReadErrors(const TaskInfo& info) const {
    TaskErrorInfo errors;
    errors.detailErrorCode = info.detailErrorCode;
    errors.errorCode = info.errorCode;
    errors.detailErrorText = WidenPluginText(info.detailErrorText, pluginName, LogSink());
    errors.furtherText = WidenPluginText(info.furtherText, pluginName, LogSink());
    return errors;
}

TaskProgress WorkRunner::GetProgress() const {
    MutexLock lock(m_state->progressLock);
    return m_state->progress;
}

LocalTime WorkRunner::StampNow() const {
    return m_state->taskClock.Now();
}

std::uint32_t WorkRunner::GetStatus() const {
    MutexLock lock(m_state->recordLock);
    const volatile std::uint32_t* status = m_state->StatusWord();
    return status != nullptr ? RQLoad32(status) : static_cast<std::uint32_t>(kTaskError);
}

std::string WorkRunner::GetTaskId() const {
    MutexLock lock(m_state->recordLock);
    return m_state->CurrentTaskId();
}

std::int32_t WorkRunner::GetFrameRate() const {
    const double rate = m_state->frameRate;
    if (!(rate > 0)) return 25;
    constexpr std::int32_t kMost = std::numeric_limits<std::int32_t>::max();
    return rate < kMost ? static_cast<std::int32_t>(rate) : kMost;
}

std::uint32_t WorkRunner::GetCloseMode() const {
    return m_state->closeMode;
}

std::uint32_t WorkRunner::GetStopFlag() const {
    return RQLoad32(m_state->stopFlag);
}

bool WorkRunner::IsStatusChanged() const {
    return m_state->statusChanged;
}

bool WorkRunner::IsIdle() const {
    return m_state->idle;
}

TaskErrorInfo WorkRunner::GetErrorInfo() const {
    MutexLock lock(m_state->recordLock);
    if (m_state->kept != nullptr) return m_state->kept->errors;
    const TaskInfo* info = m_state->CurrentRecord().info;
    return info != nullptr ? m_state->ReadErrors(*info) : TaskErrorInfo{};
}

}  // namespace rq
