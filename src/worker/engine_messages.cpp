// What the engine tells the worker. Everything here runs on the engine link's handler thread and only sets
// flags, calls the runner and answers; the work loop and the supervision act on the flags.
#include <exception>
#include <string>
#include <utility>

#include "platform/codepage.h"
#include "records/engine_messages.h"
#include "util/one_line.h"
#include "util/utility.h"
#include "util/worker_util.h"
#include "worker/worker_base.h"

namespace rq {

namespace {

// The replies' texts are GBK on the wire, for engines that show them as they come.
struct ReplyTexts {
    std::string cancelled = platform::Utf8ToGbk("任务已取消");
    std::string suspended = platform::Utf8ToGbk("任务已暂停");
    std::string resumed = platform::Utf8ToGbk("任务已恢复");
    std::string updated = platform::Utf8ToGbk("task is updated.");
    std::string finished = platform::Utf8ToGbk("任务已停止");
};

const ReplyTexts& Texts() {
    static const ReplyTexts texts;
    return texts;
}

// The record that the payload points to is valid during the call only, so it is copied. A payload or a record
// that is missing counts as one without IDs.
TaskCommand CopyCommand(const TaskCommandPayload* payload) {
    return payload != nullptr && payload->command != nullptr ? *payload->command : TaskCommand{};
}

// Whatever an ID holds, it is one line.
void PrintTaskIds(const TaskCommand& command) {
    for (const std::string& id : command.taskIds) ConsoleWrite("TaskID=" + OneLine(id) + "\n");
}

}  // namespace

std::string TrimAfterLastClosingTag(std::string text) {
    const auto tag = text.rfind("</");
    if (tag == std::string::npos) return text;
    const auto end = text.find('>', tag);
    if (end != std::string::npos) text.resize(end + 1);
    return text;
}

class EngineOrders {
  public:
    explicit EngineOrders(CRQWorkerBase& core) : m_core(core) {}

    void Dispatch(std::uint32_t id, const void* payload);

  private:
    void Add(const TaskTextPayload* payload);
    void Update(const TaskTextPayload* payload);
    void Cancel(const TaskCommandPayload* payload);
    void Suspend(const TaskCommandPayload* payload);
    void Resume(const TaskCommandPayload* payload);
    void Finish(const TaskCommandPayload* payload);
    void Disconnect(const DisconnectPayload* payload);
    void Destroy();

    // The answer goes out with the session ID held before the order, whose own is stored afterwards.
    void AnswerThenRead(const TaskCommandPayload* payload, std::uint32_t replyId, const std::string& text,
                        const char* logLine, const char* tag);
    void Reply(std::uint32_t replyId, const std::string& guid, const std::string& text);
    // False when the order holds no text.
    bool ReadText(const TaskTextPayload* payload, std::string* text);

    CRQWorkerBase& m_core;
};

void EngineOrders::Reply(std::uint32_t replyId, const std::string& guid, const std::string& text) {
    const TaskCommandReply reply{"1.0", guid, m_core.TaskId(), "0", text};
    m_core.Send(replyId, &reply);
}

bool EngineOrders::ReadText(const TaskTextPayload* payload, std::string* text) {
    if (payload == nullptr) return false;
    m_core.StoreSession(payload->sessionId);
    if (payload->text == nullptr) return false;
    *text = TrimAfterLastClosingTag(
        KWOVL_UTILITY::OVLTStringToString(KWOVL_UTILITY::OVLUTF8ToTString(payload->text)));
    return true;
}

// Not answered, deliberately: the engine learns of the task when it starts.
void EngineOrders::Add(const TaskTextPayload* payload) {
    Log(2, "===========================Add new task===========================");
    std::string text;
    if (!ReadText(payload, &text)) {
        Log(3, "The engine sent a new task without a text; it is ignored.");
        return;
    }
    Log(2, text);
    m_core.AddTask(std::move(text));
}

void EngineOrders::Update(const TaskTextPayload* payload) {
    Log(2, "Update task, SendMSG..");
    Reply(TCP_TASK_UPDATE_REPLY_ID, m_core.WorkerGuid(), Texts().updated);
    std::string text;
    if (!ReadText(payload, &text)) {
        Log(3, "The engine sent an update without a text; it is ignored.");
        return;
    }
    m_core.UpdateTask(text);
}

void EngineOrders::AnswerThenRead(const TaskCommandPayload* payload, std::uint32_t replyId,
                                  const std::string& text, const char* logLine, const char* tag) {
    KWOVL_UTILITY::OVLWriteLog(tag, 2, std::string(logLine), kModuleMain);
    Reply(replyId, m_core.WorkerGuid(), text);
    if (payload != nullptr) m_core.StoreSession(payload->sessionId);
    // The IDs are printed only: a worker has one task, and the order is about that one.
    PrintTaskIds(CopyCommand(payload));
}

void EngineOrders::Cancel(const TaskCommandPayload* payload) {
    AnswerThenRead(payload, TCP_TASK_CANCEL_REPLY_ID, Texts().cancelled, "Status=Cancel, SendMSG..",
                   LogChannelTag);
    m_core.SetClose(kCloseCancel);
    m_core.m_working = false;
}

void EngineOrders::Suspend(const TaskCommandPayload* payload) {
    AnswerThenRead(payload, TCP_TASK_SUSPEND_REPLY_ID, Texts().suspended, "Status=Suspend, SendMSG..",
                   kStatusTag);
    m_core.SuspendTask();
}

void EngineOrders::Resume(const TaskCommandPayload* payload) {
    AnswerThenRead(payload, TCP_TASK_RESUME_REPLY_ID, Texts().resumed, "Status=Running, SendMSG..",
                   kStatusTag);
    m_core.ResumeTask();
}

// Unlike the three above: the session of this very order, and its UUID in the place of the worker's GUID.
void EngineOrders::Finish(const TaskCommandPayload* payload) {
    if (payload != nullptr) m_core.StoreSession(payload->sessionId);
    const TaskCommand command = CopyCommand(payload);
    const std::string uuid = KWOVL_UTILITY::OVLUuidToString(command.uuid.data());
    Log(2, "Status=Finish, SendMSG..");
    Log(2, uuid);
    Reply(TCP_TASK_FINISH_REPLY_ID, uuid, Texts().finished);
    PrintTaskIds(command);
    m_core.SetClose(kCloseFinish);
    m_core.m_working = false;
}

void EngineOrders::Disconnect(const DisconnectPayload* payload) {
    const std::uint32_t sessionId = payload != nullptr ? payload->sessionId : kNoSession;
    ConsoleWrite("Session" + std::to_string(sessionId) + "连接断开\n");
    // First of all: a work loop that sees the loss takes no further text.
    m_core.SetFlag(m_core.m_stop, true);
    m_core.LoseSession();
    Log(3, "Worker will be cancel!!!! Because Socket Server is Disconnect.");
    m_core.SetClose(kCloseCancel);
    m_core.m_working = false;
    m_core.SetFlag(m_core.m_exit, true);
}

void EngineOrders::Destroy() {
    Log(2, "Received Message: destroy..");
    m_core.SetFlag(m_core.m_exit, true);
}

void EngineOrders::Dispatch(std::uint32_t id, const void* payload) {
    ConsoleWrite("Received task type: " + std::to_string(id) + "\n");
    const auto* text = static_cast<const TaskTextPayload*>(payload);
    const auto* command = static_cast<const TaskCommandPayload*>(payload);
    switch (id) {
        case TCP_TASK_ADD_ID:
            return Add(text);
        case TCP_TASK_UPDATE_ID:
            return Update(text);
        case TCP_TASK_CANCEL_ID:
            return Cancel(command);
        case TCP_TASK_SUSPEND_ID:
            return Suspend(command);
        case TCP_TASK_RESUME_ID:
            return Resume(command);
        case TCP_TASK_FINISH_ID:
            return Finish(command);
        case TCP_SERVER_DISCONNECT_ID:
            return Disconnect(static_cast<const DisconnectPayload*>(payload));
        case TCP_WORKER_DESTROY_ID:
            return Destroy();
        default:
            return;
    }
}

void OnEngineMessage(std::uint32_t id, const void* payload, void* context) {
    // The link drops what its handler throws; nobody would know that an order was only half obeyed.
    try {
        EngineOrders(*static_cast<CRQWorkerBase*>(context)).Dispatch(id, payload);
    } catch (const std::exception& error) {
        Log(5, "Message " + std::to_string(id) + " ended by an exception: " + error.what());
    } catch (...) {
        Log(5, "Message " + std::to_string(id) + " ended by an unknown exception.");
    }
}

}  // namespace rq
