#include "skeleton.h"

#include <mutex>
#include <vector>

namespace breach {
namespace {

using std::chrono::milliseconds;

RQText Borrow(std::string_view text) {
    return {text.data(), text.size()};
}

struct State {
    const RQHostServices* host = nullptr;
    std::mutex mutex;  // guards what follows
    std::vector<std::unique_ptr<Record>> analysed;
    std::unique_ptr<Record> performed;
};

// Never destroyed: a thread that was left behind may still use it while the process ends.
State& GetState() {
    static State& state = *new State;
    return state;
}

Record* TakeForPerform(TaskInfo* info) {
    State& state = GetState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    for (auto& record : state.analysed) {
        if (&record->info != info) continue;
        state.performed = std::move(record);
        state.analysed.clear();
        return state.performed.get();
    }
    return state.performed.get();
}

}  // namespace

Record::Record() {
    info.size = sizeof info;
    info.contractVersion = RQ_CONTRACT_VERSION;
    info.taskType = RQ_TYPE_MD5_COMPUTE;
    info.taskId = Borrow(*taskId);
    list.size = sizeof list;
    list.capacity = 1;
    list.items = items;
    data.size = sizeof data;
    data.files = &list;
    info.typeData = &data;
}

Record::~Record() {
    if (GetHooks().end) GetHooks().end(*this);
}

void Call::Work() const {
    constexpr int kSteps = 10;
    for (int step = 1; step <= kSteps && Stop() == RQ_STOP_NONE; ++step) {
        std::this_thread::sleep_for(milliseconds(3));
        Progress(kSteps, step);
    }
    record.file.size = sizeof record.file;
    record.file.has = RQ_HAS_COMPUTED_MD5;
    record.file.first = Borrow("a file");
    record.file.computedMd5[0] = 1;
    RQStore32(&record.list.count, 1);
}

const RQHostServices* Host() {
    return GetState().host;
}

}  // namespace breach

using breach::GetHooks;
using breach::GetState;

extern "C" {

RQ_PLUGIN_EXPORT const RQPluginDescription* RQWorkerDescribe(const RQHostServices* host) {
    static const std::int32_t types[] = {RQ_TYPE_MD5_COMPUTE};
    static RQPluginDescription description{};
    description.size = sizeof description;
    description.contractVersion = RQ_CONTRACT_VERSION;
    description.name = breach::Borrow("breach");
    description.version = breach::Borrow("1.0.0");
    description.types = types;
    description.typeCount = 1;
    description.abilities = GetHooks().abilities;
    GetState().host = host;
    if (GetHooks().describe) GetHooks().describe(description);
    return &description;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerInit(const void*) {
    if (GetHooks().init) GetHooks().init();
    return 0;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo) {
    auto& state = GetState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (GetHooks().isRecordFreedEarly) state.performed.reset();
    if (*taskInfo == nullptr) state.analysed.clear();
    auto& record = *state.analysed.emplace_back(std::make_unique<breach::Record>());
    record.lentText = taskText;
    *taskInfo = &record.info;
    if (GetHooks().analyse) GetHooks().analyse(record, std::string_view(taskText.p, taskText.n));
    return 0;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerPerformTask(TaskInfo* taskInfo, const volatile uint32_t* stopFlag,
                                             RQProgressCallback progress, void* context,
                                             const RQRunningParameter*) {
    breach::Record* record = breach::TakeForPerform(taskInfo);
    if (record == nullptr) return -1;
    const breach::Call call{*record, stopFlag, progress, context, GetState().host};
    if (GetHooks().work)
        GetHooks().work(call);
    else
        call.Work();
    const std::uint32_t ordinary = call.Stop() == RQ_STOP_CANCEL ? RQ_STATUS_CANCELLED : RQ_STATUS_FINISHED;
    RQStore32(&taskInfo->status, GetHooks().status ? GetHooks().status(call) : ordinary);
    return 0;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerRelease(void) {
    if (GetHooks().release) GetHooks().release();
    auto& state = GetState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.analysed.clear();
    state.performed.reset();
    return 0;
}

}  // extern "C"
