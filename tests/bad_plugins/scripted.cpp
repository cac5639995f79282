// The plug-in "scripted": does what its task text says (script.h).
#include <cstdlib>
#include <mutex>

#include "script.h"

namespace {

struct State {
    const RQHostServices* host = nullptr;
    std::mutex mutex;  // guards what follows: an update comes on another thread
    std::vector<std::unique_ptr<scripted::Record>> records;
    bool isPerforming = false;
    std::vector<std::thread> threads;  // that outlive their perform call; joined by the release
};

// Never destroyed: a thread that was left behind may still use it while the process ends.
State& GetState() {
    static State& state = *new State;
    return state;
}

// True from its making to its end, however the perform call is left.
class Performing {
  public:
    Performing() { Set(true); }
    ~Performing() { Set(false); }
    Performing(const Performing&) = delete;
    Performing& operator=(const Performing&) = delete;

  private:
    static void Set(bool value) {
        const std::lock_guard<std::mutex> lock(GetState().mutex);
        GetState().isPerforming = value;
    }
};

}  // namespace

extern "C" {

RQ_PLUGIN_EXPORT const RQPluginDescription* RQWorkerDescribe(const RQHostServices* host) {
    static const std::int32_t types[] = {RQ_TYPE_TRANSFER,    RQ_TYPE_TRANSCODE,  RQ_TYPE_REVIEW,
                                         RQ_TYPE_MD5_COMPUTE, RQ_TYPE_MD5_VERIFY, 14};
    static RQPluginDescription description{};
    description.size = sizeof description;
    description.contractVersion = RQ_CONTRACT_VERSION;
    description.name = scripted::Borrow("scripted");
    description.version = scripted::Borrow("1.2.3");
    description.types = types;
    description.typeCount = sizeof types / sizeof types[0];
    description.abilities = RQ_ABILITY_PAUSE | RQ_ABILITY_FINISH | RQ_ABILITY_UPDATE;
    GetState().host = host;
    return &description;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerInit(const void* parameter) {
    const char* how = std::getenv("RQ_SCRIPT_INIT");
    if (how != nullptr && std::string_view(how) == "text") {
        scripted::Log(GetState().host, 2, "init text " + std::string(static_cast<const char*>(parameter)));
    } else {
        const auto* record = static_cast<const RQRunningParameter*>(parameter);
        scripted::Log(GetState().host, 2,
                      "init parameters heartbeat=" + std::to_string(record->heartbeatInterval_s));
    }
    const char* code = std::getenv("RQ_SCRIPT_INIT_CODE");
    return code == nullptr ? 0 : static_cast<std::int32_t>(std::strtol(code, nullptr, 0));
}

RQ_PLUGIN_EXPORT int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo) {
    const std::string text(taskText.p == nullptr ? "" : taskText.p, taskText.n);
    std::unique_ptr<scripted::Record> record = scripted::AnalyseScript(text);
    State& state = GetState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (state.isPerforming) scripted::Log(state.host, 2, "update " + text);
    *taskInfo = record->isNull ? nullptr : &record->info;
    const std::int32_t code = record->analyseCode;
    state.records.push_back(std::move(record));
    return code;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerPerformTask(TaskInfo* taskInfo, const volatile uint32_t* stopFlag,
                                             RQProgressCallback progress, void* context,
                                             const RQRunningParameter*) {
    State& state = GetState();
    scripted::Record* record = nullptr;
    {
        const std::lock_guard<std::mutex> lock(state.mutex);
        for (const auto& candidate : state.records)
            if (&candidate->info == taskInfo) record = candidate.get();
    }
    if (record == nullptr) return -1;
    const Performing performing;
    std::vector<std::thread> threads;
    struct Keep {
        State& state;
        std::vector<std::thread>& threads;
        ~Keep() {
            const std::lock_guard<std::mutex> lock(state.mutex);
            for (std::thread& thread : threads) state.threads.push_back(std::move(thread));
        }
    } const keep{state, threads};
    scripted::RunScript(*record, {stopFlag, progress, context, state.host}, threads);
    return 0;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerRelease(void) {
    State& state = GetState();
    scripted::Log(state.host, 1, "release");
    std::vector<std::thread> threads;
    {
        const std::lock_guard<std::mutex> lock(state.mutex);
        threads.swap(state.threads);
        state.records.clear();
    }
    for (std::thread& thread : threads) thread.join();
    return 0;
}

}  // extern "C"
