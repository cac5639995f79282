#include "app/run_worker.h"

#include <new>

#include "app/crash_filter.h"
#include "app/parse_worker_type.h"
#include "app/restart_worker.h"
#include "platform/noinline.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {

namespace {

namespace utility = KWOVL_UTILITY;

class RealCore final : public IRunnableCore {
  public:
    std::int32_t Init(const WorkerStartRecord* start) override { return m_core.Init(start); }
    std::int32_t DoWork(const std::string& text, std::int32_t type) override {
        return m_core.DoWork(text, type);
    }
    void Release() override { m_core.Release(); }

  private:
    CRQWorkerBase m_core;
};

void TellRejected(const std::string& type) {
    utility::OVLWriteLog(4, "The input type para is wrong. type:" + type, kModuleMain);
    ConsoleWrite("输入的类型参数不正确\n");
}

void Drive(IRunnableCore& core, const WorkerStartRecord& start, const std::string& parameters) {
    // What DoWork says is for nobody here: the engine has been told.
    if (core.Init(&start) == 0) core.DoWork(parameters, start.taskType);
    core.Release();
}

}  // namespace

bool IsRejectedType(std::int32_t number, const std::string& type) {
    return number >= 300 || (number == 0 && type != "0" && type != "tf");
}

RQ_NOINLINE IRunnableCore* AllocateWorkerCore() {
    return new (std::nothrow) RealCore;
}

RunWorkerSeams RunWorkerSeams::Real() {
    RunWorkerSeams seams;
    seams.installCrashFilter = InstallCrashFilter;
    seams.setDefaultLocale = utility::OVLSetDefaultLocale;
    seams.restoreLocale = [](std::string saved) { utility::OVLRestoreLocale(std::move(saved)); };
    seams.allocateCore = AllocateWorkerCore;
    seams.freeIni = [] { utility::OVLIniFree(nullptr); };  // no file is ever loaded here
    return seams;
}

std::int32_t RunWorker(const std::string& type, const std::string& parameters, const RunWorkerSeams& seams) {
    Log(1, "==>Worker Begin DoWork");
    seams.installCrashFilter();
    const std::string savedLocale = seams.setDefaultLocale();
    IRunnableCore* core = seams.allocateCore();
    if (core == nullptr) return -1;

    WorkerStartRecord start;
    start.serverAddress = "127.0.0.1";
    start.serverPort = 8089;
    start.supervisionCallback = OnSupervisionEvent;
    start.parameterText = parameters;
    start.taskType = ParseWorkerType(type);
    if (IsRejectedType(start.taskType, type)) {
        TellRejected(type);
        return -1;
    }
    Drive(*core, start, parameters);
    delete core;
    seams.freeIni();
    seams.restoreLocale(savedLocale);
    return 0;
}

std::int32_t RunWorker(std::string type, std::string parameters) {
    return RunWorker(type, parameters, RunWorkerSeams::Real());
}

}  // namespace rq
