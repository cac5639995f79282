#include "supervision/status_report.h"

#include <string>
#include <utility>

#include "base/result.h"
#include "errors/error_text.h"
#include "records/engine_messages.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {

namespace {

constexpr std::chrono::milliseconds kRetryInterval{1000};

void LogStatus(int level, const char* text) {
    KWOVL_UTILITY::OVLWriteLog(kStatusTag, level, std::string(text), kModuleMain);
}

bool HasResult(std::uint32_t status) {
    return status == kTaskFinished || status == kTaskError;
}

TaskStatusEntry MakeEntry(IWorkerCore& core, IWorkRunner& runner, std::uint32_t status) {
    const TaskErrorInfo error = runner.GetErrorInfo();
    TaskStatusEntry entry;
    entry.status = status;
    entry.detailErrorCode = error.detailErrorCode;
    entry.detailErrorText = KWOVL_UTILITY::OVLTStringToUTF8(error.detailErrorText);
    entry.errorCode = static_cast<std::uint32_t>(error.errorCode);
    // Looked up for code 0 too: the engine expects a text in every report.
    entry.errorText = ReportedErrorText(entry.errorCode, kFamilyTask);
    entry.furtherText = KWOVL_UTILITY::OVLTStringToUTF8(error.furtherText);
    entry.taskId = core.TaskId();
    entry.taskType = static_cast<std::uint32_t>(core.TaskType());
    if (HasResult(status)) entry.result = runner.GetTaskResult(core.TaskType());
    return entry;
}

}  // namespace

std::string ReportedErrorText(std::uint32_t code, std::uint32_t family) {
    std::wstring text;
    GetErrorText(code, family, text);
    return KWOVL_UTILITY::OVLTStringToUTF8(text);
}

std::int32_t ReportStatus(IWorkerCore& core, std::uint32_t status) {
    ConsoleWrite("emStatus=" + std::to_string(status) + "\n");
    auto runner = core.Runner();
    if (!runner) {
        LogStatus(3, "m_pWorker == NULL.");
        return kStatusMissing;
    }

    auto message = MakeReport<EngineStateMessage>("state");
    if (status == kTaskCancelled && runner->GetCloseMode() == kClosePatrol) {
        LogStatus(3, "ForceCancel, the status is error.");
        status = kTaskError;
    }
    message.entries.push_back(MakeEntry(core, *runner, status));
    runner.reset();

    bool sent = true;
    if (!core.IsDisconnected()) {
        if (status == kTaskFinished) LogStatus(2, "Status=Finished, SendMSG.");
        sent = core.Send(TCP_WORKER_STATE_ID, &message);
    }
    if (!HasResult(status)) return kStatusOk;
    // The send lock is free during the sleep, so that progress and heartbeats pass between two tries.
    while (!sent && !core.IsDisconnected()) {
        LogStatus(2, "Send status message...");
        sent = core.Send(TCP_WORKER_STATE_ID, &message);
        core.GetClock().SleepFor(kRetryInterval);
    }
    return kStatusOk;
}

}  // namespace rq
