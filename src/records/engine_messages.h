// What crosses the engine link: message identifiers, the task status vocabulary and the records, outgoing and
// incoming. Texts are 8-bit texts as their fields say; the link carries their bytes unchanged.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace rq {

// "In" is from the engine to the worker, "out" from the worker to the engine.
enum MessageId : std::uint32_t {
    TCP_WORKER_HEARTBEAT_ID = 4000,    // out: HeartbeatRecord
    TCP_WORKER_SEND_ID = 4001,         // out: TaskNotice, once per process
    TCP_TASK_CANCEL_ID = 4002,         // in:  TaskCommandPayload
    TCP_TASK_CANCEL_REPLY_ID = 4003,   // out: TaskCommandReply
    TCP_TASK_SUSPEND_ID = 4004,        // in:  TaskCommandPayload
    TCP_TASK_SUSPEND_REPLY_ID = 4005,  // out: TaskCommandReply
    TCP_TASK_RESUME_ID = 4006,         // in:  TaskCommandPayload
    TCP_TASK_RESUME_REPLY_ID = 4007,   // out: TaskCommandReply
    TCP_WORKER_PROGRESS_ID = 4008,     // out: EngineProgressMessage
    TCP_WORKER_STATE_ID = 4009,        // out: EngineStateMessage
    TCP_WORKER_DESTROY_ID = 4014,      // in:  no payload is read
    TCP_TASK_UPDATE_ID = 4015,         // in:  TaskTextPayload
    TCP_TASK_UPDATE_REPLY_ID = 4016,   // out: TaskCommandReply
    TCP_TASK_ADD_ID = 4017,            // in:  TaskTextPayload; deliberately not answered
    TCP_TASK_FINISH_ID = 4019,         // in:  TaskCommandPayload
    TCP_TASK_FINISH_REPLY_ID = 4020,   // out: TaskCommandReply
    TCP_SERVER_DISCONNECT_ID = 12306,  // in:  session ID only; made by the client library itself
};

// No session: the server is not running, or the connection broke.
inline constexpr std::uint32_t kNoSession = 0xFFFFFFFFu;

enum TaskStatus : std::uint32_t {
    kTaskFinished = 0,
    kTaskRunning = 3,
    kTaskError = 4,
    kTaskCancelled = 5,
    kTaskPaused = 7,
};

enum CloseMode : std::uint32_t {
    kClosePatrol = 1,  // the progress patrol
    kCloseCancel = 2,  // a cancel command, or the loss of the server
    kCloseFinish = 6,  // a finish command
};

// Task type numbers that code tests for; 14 and 23 are the package types that keep taking tasks.
enum TaskType : std::int32_t {
    RQ_TASK_TRANSFER = 0,
    RQ_TASK_TRANSCODE = 1,
    RQ_TASK_REVIEW = 2,
    RQ_TASK_MD5_COMPUTE = 3,
    RQ_TASK_MD5_VERIFY = 4,
    RQ_TASK_SOURCE_SIZE = 5,
    RQ_TASK_REPAIR = 6,
    RQ_TASK_DELETE = 7,
    RQ_TASK_REALTIME_MERGE = 8,
    RQ_TASK_REVIEW_MERGE = 9,
    RQ_TASK_AFD = 10,
    RQ_TASK_LOUDNESS = 12,
    RQ_TASK_FRAMES = 13,
    RQ_TASK_PACKAGE = 14,
    RQ_TASK_PACKAGE_PARAMETER_FILE = 23,  // its plug-in reads "actor.xml" itself
};

// ---- incoming payloads: laid out by the client library, valid during the handler call only ----

// Offset 0 session ID, 4 padding, 8 pointer to a zero-terminated UTF-8 task text.
struct TaskTextPayload {
    std::uint32_t sessionId = kNoSession;
    std::uint32_t padding = 0;
    const char* text = nullptr;
};

struct TaskCommand {
    std::array<std::uint8_t, 16> uuid{};
    std::string text;
    std::vector<std::string> taskIds;
};

// Offset 0 session ID, 4 padding, 8 pointer to a TaskCommand.
struct TaskCommandPayload {
    std::uint32_t sessionId = kNoSession;
    std::uint32_t padding = 0;
    const TaskCommand* command = nullptr;
};

struct DisconnectPayload {
    std::uint32_t sessionId = kNoSession;
};

static_assert(sizeof(void*) != 8 || (sizeof(TaskTextPayload) == 16 && sizeof(TaskCommandPayload) == 16));

// ---- outgoing records ----

struct HeartbeatRecord {
    std::string version;     // "1.0"
    std::string workerGuid;  // that of the task notice; empty before it
};

struct TaskNotice {
    std::string version;  // "1.0"
    std::string workerGuid;
    std::string taskId;
};

struct TaskCommandReply {
    std::string version;     // "1.0"
    std::string guid;        // the worker's; the command's UUID in the answer to 4019
    std::string taskId;      // the current task, empty before analysis
    std::string resultCode;  // "0"
    std::string message;     // GBK bytes
};

struct stTaskResultBase;

// One element of a status report (message 4009, kind "state").
struct TaskStatusEntry {
    std::string taskId;
    std::string second;  // left empty
    std::string third;   // left empty
    std::uint32_t taskType = 0;
    std::uint32_t status = 0;                        // TaskStatus, others pass unchanged
    std::uint32_t detailErrorCode = 0;               // the processing library's own code
    std::string detailErrorText;                     // UTF-8
    std::uint32_t errorCode = 0;                     // a negative code travels as its two's complement
    std::string errorText;                           // UTF-8
    std::string furtherText;                         // UTF-8
    std::shared_ptr<const stTaskResultBase> result;  // null when there is none
    // The worker's own report that the task has stalled. Its codes may come from a plug-in as well.
    bool stalled = false;
};

// One element of a progress report (message 4008, kind "process").
struct ProgressEntry {
    std::string taskId;
    std::string second;  // left empty
    std::string third;   // left empty
    float percent = 0;   // 0 to 100
    float speed = 0;     // by task type: times real time, units per second, units per millisecond or MiB/s
    float averageSpeed = 0;  // units per second (frames of a transcode); types 1, 2 and 8 only
};

// The shape shared by both reports. `id` is 4009 in both, also where the report travels under 4008:
// deliberate.
template <class Entry>
struct EngineMessage {
    std::uint32_t id = TCP_WORKER_STATE_ID;
    std::string kind;      // "state" or "process"
    std::string sender;    // "Worker"
    std::string receiver;  // "Lite/Agent"
    std::vector<Entry> entries;
};
using EngineStateMessage = EngineMessage<TaskStatusEntry>;
using EngineProgressMessage = EngineMessage<ProgressEntry>;

}  // namespace rq
