#include "link/codec.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/message_lite.h>

#include "link/result_codec.h"
#include "wire.pb.h"

namespace rq::link {
namespace {

namespace wire = rqworker::link::v1;

template <class Message>
bool Parse(std::string_view body, Message* message) {
    return message->ParseFromArray(body.data(), static_cast<int>(body.size()));
}

Error NotDecodable(std::uint32_t id) {
    return Fail("the body of " + IdText(id) + " cannot be decoded");
}

// ---- records of the worker, out ----

std::string Encode(const HeartbeatRecord& record) {
    wire::Heartbeat out;
    out.set_version(record.version);
    out.set_worker_guid(record.workerGuid);
    return out.SerializeAsString();
}

std::string Encode(const TaskNotice& record) {
    wire::TaskNotice out;
    out.set_version(record.version);
    out.set_worker_guid(record.workerGuid);
    out.set_task_id(record.taskId);
    return out.SerializeAsString();
}

std::string Encode(const TaskCommandReply& record) {
    wire::TaskCommandReply out;
    out.set_version(record.version);
    out.set_guid(record.guid);
    out.set_task_id(record.taskId);
    out.set_result_code(record.resultCode);
    out.set_message(record.message);
    return out.SerializeAsString();
}

void FillEntry(const ProgressEntry& entry, wire::ProgressEntry* out) {
    out->set_task_id(entry.taskId);
    out->set_second(entry.second);
    out->set_third(entry.third);
    out->set_percent(entry.percent);
    out->set_speed(entry.speed);
    out->set_average_speed(entry.averageSpeed);
}

void FillEntry(const TaskStatusEntry& entry, wire::StatusEntry* out) {
    out->set_task_id(entry.taskId);
    out->set_second(entry.second);
    out->set_third(entry.third);
    out->set_task_type(entry.taskType);
    out->set_status(entry.status);
    out->set_detail_error_code(entry.detailErrorCode);
    out->set_detail_error_text(entry.detailErrorText);
    out->set_error_code(entry.errorCode);
    out->set_error_text(entry.errorText);
    out->set_further_text(entry.furtherText);
    if (entry.result) ResultToWire(*entry.result, out);
    out->set_stalled(entry.stalled);
}

template <class WireMessage, class Entry>
std::string EncodeMessage(const EngineMessage<Entry>& message) {
    WireMessage out;
    out.set_id(message.id);
    out.set_kind(message.kind);
    out.set_sender(message.sender);
    out.set_receiver(message.receiver);
    for (const Entry& entry : message.entries) FillEntry(entry, out.add_entries());
    return out.SerializeAsString();
}

std::string Encode(const EngineProgressMessage& message) {
    return EncodeMessage<wire::ProgressMessage>(message);
}
std::string Encode(const EngineStateMessage& message) {
    return EncodeMessage<wire::StateMessage>(message);
}

// ---- records of the worker, in ----

HeartbeatRecord FromWire(const wire::Heartbeat& in) {
    return {in.version(), in.worker_guid()};
}

TaskNotice FromWire(const wire::TaskNotice& in) {
    return {in.version(), in.worker_guid(), in.task_id()};
}

TaskCommandReply FromWire(const wire::TaskCommandReply& in) {
    return {in.version(), in.guid(), in.task_id(), in.result_code(), in.message()};
}

ProgressEntry FromWire(const wire::ProgressEntry& in) {
    return {in.task_id(), in.second(), in.third(), in.percent(), in.speed(), in.average_speed()};
}

TaskStatusEntry FromWire(const wire::StatusEntry& in) {
    TaskStatusEntry entry;
    entry.taskId = in.task_id();
    entry.second = in.second();
    entry.third = in.third();
    entry.taskType = in.task_type();
    entry.status = in.status();
    entry.detailErrorCode = in.detail_error_code();
    entry.detailErrorText = in.detail_error_text();
    entry.errorCode = in.error_code();
    entry.errorText = in.error_text();
    entry.furtherText = in.further_text();
    entry.result = ResultFromWire(in);
    entry.stalled = in.stalled();
    return entry;
}

template <class Message, class WireMessage>
Message MessageFromWire(const WireMessage& in) {
    Message message;
    message.id = in.id();
    message.kind = in.kind();
    message.sender = in.sender();
    message.receiver = in.receiver();
    message.entries.reserve(static_cast<std::size_t>(in.entries_size()));
    for (const auto& entry : in.entries()) message.entries.push_back(FromWire(entry));
    return message;
}

EngineProgressMessage FromWire(const wire::ProgressMessage& in) {
    return MessageFromWire<EngineProgressMessage>(in);
}
EngineStateMessage FromWire(const wire::StateMessage& in) {
    return MessageFromWire<EngineStateMessage>(in);
}

template <class WireMessage>
Result<WorkerRecord> Decode(std::uint32_t id, std::string_view body) {
    WireMessage in;
    if (!Parse(body, &in)) return NotDecodable(id);
    return WorkerRecord{FromWire(in)};
}

// ---- which record goes with which id ----

enum class RecordKind { None, Heartbeat, Notice, Reply, Progress, State };

RecordKind KindOf(std::uint32_t id) {
    switch (id) {
        case TCP_WORKER_HEARTBEAT_ID:
            return RecordKind::Heartbeat;
        case TCP_WORKER_SEND_ID:
            return RecordKind::Notice;
        case TCP_TASK_CANCEL_REPLY_ID:
        case TCP_TASK_SUSPEND_REPLY_ID:
        case TCP_TASK_RESUME_REPLY_ID:
        case TCP_TASK_UPDATE_REPLY_ID:
        case TCP_TASK_FINISH_REPLY_ID:
            return RecordKind::Reply;
        case TCP_WORKER_PROGRESS_ID:
            return RecordKind::Progress;
        case TCP_WORKER_STATE_ID:
            return RecordKind::State;
        default:
            return RecordKind::None;
    }
}

enum class OrderKind { None, Destroy, Text, Command };

OrderKind OrderKindOf(std::uint32_t id) {
    switch (id) {
        case TCP_WORKER_DESTROY_ID:
            return OrderKind::Destroy;
        case TCP_TASK_UPDATE_ID:
        case TCP_TASK_ADD_ID:
            return OrderKind::Text;
        case TCP_TASK_CANCEL_ID:
        case TCP_TASK_SUSPEND_ID:
        case TCP_TASK_RESUME_ID:
        case TCP_TASK_FINISH_ID:
            return OrderKind::Command;
        default:
            return OrderKind::None;
    }
}

Result<Order> DecodeText(std::uint32_t id, std::string_view body) {
    wire::TaskText in;
    if (!Parse(body, &in)) return NotDecodable(id);
    TaskTextOrder order{std::move(*in.mutable_text()), 0};
    if (const std::size_t zero = order.text.find('\0'); zero != std::string::npos) {
        order.cut_bytes = order.text.size() - zero;
        order.text.resize(zero);
    }
    return Result<Order>(boost::system::in_place_value, std::move(order));
}

// Whether the body names more tasks than are taken: looked at before any is given memory, since an empty ID
// has 2 bytes on the wire and the size of a text in a list. A body that is none is left to the parser.
bool NamesTooManyTasks(std::string_view body) {
    google::protobuf::io::CodedInputStream in(reinterpret_cast<const std::uint8_t*>(body.data()),
                                              static_cast<int>(body.size()));
    int count = 0;
    while (const std::uint32_t tag = in.ReadTag()) {
        constexpr std::uint32_t kTaskIdTag = wire::TaskCommand::kTaskIdsFieldNumber << 3 | 2;
        if (tag == kTaskIdTag && ++count > kTaskIdsLimit) return true;
        std::uint64_t ignored = 0;
        std::uint32_t size = 0;
        switch (tag & 7) {
            case 0:
                if (!in.ReadVarint64(&ignored)) return false;
                break;
            case 1:
                if (!in.Skip(8)) return false;
                break;
            case 2:
                if (!in.ReadVarint32(&size) || size > body.size() || !in.Skip(static_cast<int>(size)))
                    return false;
                break;
            case 5:
                if (!in.Skip(4)) return false;
                break;
            default:  // the two ends of a group have nothing but their tags
                break;
        }
    }
    return false;
}

Result<Order> DecodeCommand(std::uint32_t id, std::string_view body) {
    if (NamesTooManyTasks(body))
        return Fail(IdText(id) + " names more than the " + std::to_string(kTaskIdsLimit) +
                    " tasks that are taken");
    wire::TaskCommand in;
    if (!Parse(body, &in)) return NotDecodable(id);
    TaskCommand command;
    if (!in.uuid().empty()) {  // a missing UUID is all zeros
        if (in.uuid().size() != command.uuid.size())
            return Fail("the UUID of " + IdText(id) + " has " + std::to_string(in.uuid().size()) +
                        " bytes, not 16");
        std::copy(in.uuid().begin(), in.uuid().end(), command.uuid.begin());
    }
    command.text = in.text();
    command.taskIds.assign(in.task_ids().begin(), in.task_ids().end());
    return Result<Order>(boost::system::in_place_value, std::move(command));
}

}  // namespace

std::string EncodeHello(const Hello& hello) {
    wire::Hello out;
    out.set_protocol_version(hello.protocolVersion);
    out.set_token(hello.token);
    out.set_attempt(hello.attempt);
    out.set_process_id(hello.processId);
    out.set_worker_version(hello.workerVersion);
    out.set_resume_session_id(hello.resumeSessionId);
    out.set_resume_received(hello.resumeReceived);
    out.set_resume_acknowledged(hello.resumeAcknowledged);
    return out.SerializeAsString();
}

std::string EncodeWelcome(const Welcome& welcome) {
    wire::Welcome out;
    out.set_protocol_version(welcome.protocolVersion);
    out.set_session_id(welcome.sessionId);
    out.set_resume_window_ms(welcome.resumeWindow_ms);
    out.set_ping_interval_ms(welcome.pingInterval_ms);
    out.set_silence_limit_ms(welcome.silenceLimit_ms);
    out.set_spool_folder(welcome.spoolFolder);
    out.set_attempt(welcome.attempt);
    return out.SerializeAsString();
}

std::string EncodeRefuse(const Refuse& refuse) {
    wire::Refuse out;
    out.set_code(refuse.code);
    out.set_text(refuse.text);
    return out.SerializeAsString();
}

Result<Hello> DecodeHello(std::string_view body) {
    wire::Hello in;
    if (!Parse(body, &in)) return NotDecodable(kHelloId);
    return Hello{in.protocol_version(), in.token(),
                 in.attempt(),          in.process_id(),
                 in.worker_version(),   in.resume_session_id(),
                 in.resume_received(),  in.resume_acknowledged()};
}

Result<Welcome> DecodeWelcome(std::string_view body, SessionIds ids) {
    wire::Welcome in;
    if (!Parse(body, &in)) return NotDecodable(kWelcomeId);
    if (ids == SessionIds::Valid && (in.session_id() == 0 || in.session_id() == kNoSession))
        return Fail("WELCOME with the session ID " + std::to_string(in.session_id()));
    return Welcome{in.protocol_version(), in.session_id(),   in.resume_window_ms(), in.ping_interval_ms(),
                   in.silence_limit_ms(), in.spool_folder(), in.attempt()};
}

Result<Refuse> DecodeRefuse(std::string_view body) {
    wire::Refuse in;
    if (!Parse(body, &in)) return NotDecodable(kRefuseId);
    return Refuse{in.code(), in.text()};
}

bool IsWorkerRecordId(std::uint32_t id) {
    return KindOf(id) != RecordKind::None;
}

Result<std::string> EncodeWorkerRecord(std::uint32_t id, const void* record) {
    const RecordKind kind = KindOf(id);
    if (kind == RecordKind::None) return Fail("a worker sends nothing under the id " + std::to_string(id));
    if (record == nullptr) return Fail("no record for " + IdText(id));
    switch (kind) {
        case RecordKind::Heartbeat:
            return Encode(*static_cast<const HeartbeatRecord*>(record));
        case RecordKind::Notice:
            return Encode(*static_cast<const TaskNotice*>(record));
        case RecordKind::Reply:
            return Encode(*static_cast<const TaskCommandReply*>(record));
        case RecordKind::Progress:
            return Encode(*static_cast<const EngineProgressMessage*>(record));
        default:
            return Encode(*static_cast<const EngineStateMessage*>(record));
    }
}

Result<std::string> EncodeWorkerRecord(std::uint32_t id, const WorkerRecord& record) {
    // The alternatives stand in the order of RecordKind, after None.
    if (static_cast<std::size_t>(KindOf(id)) != record.index() + 1)
        return Fail("the record does not belong to the id " + std::to_string(id));
    return std::visit([](const auto& plain) { return Encode(plain); }, record);
}

Result<WorkerRecord> DecodeWorkerRecord(std::uint32_t id, std::string_view body) {
    switch (KindOf(id)) {
        case RecordKind::Heartbeat:
            return Decode<wire::Heartbeat>(id, body);
        case RecordKind::Notice:
            return Decode<wire::TaskNotice>(id, body);
        case RecordKind::Reply:
            return Decode<wire::TaskCommandReply>(id, body);
        case RecordKind::Progress:
            return Decode<wire::ProgressMessage>(id, body);
        case RecordKind::State:
            return Decode<wire::StateMessage>(id, body);
        case RecordKind::None:
            break;
    }
    return Fail("a worker sends nothing under the id " + std::to_string(id));
}

bool IsFinalTaskStatus(std::uint32_t status) {
    return status == kTaskFinished || status == kTaskError || status == kTaskCancelled;
}

void MarkRepeat(std::string& body) {
    // Fields of a message may follow each other in any number of pieces.
    wire::StateMessage mark;
    mark.set_repeat(true);
    body += mark.SerializeAsString();
}

bool IsMarkedRepeat(std::string_view body) {
    wire::StateMessage message;
    return message.ParseFromArray(body.data(), static_cast<int>(body.size())) && message.repeat();
}

bool IsFinalState(const EngineStateMessage& message) {
    for (const TaskStatusEntry& entry : message.entries)
        if (IsFinalTaskStatus(entry.status)) return true;
    return false;
}

bool IsOrderId(std::uint32_t id) {
    return OrderKindOf(id) != OrderKind::None;
}

Result<std::string> EncodeTaskText(std::string_view text) {
    if (text.find('\0') != std::string_view::npos) return Fail("a task text with a zero byte cannot be sent");
    wire::TaskText out;
    out.set_text(text.data(), text.size());
    return out.SerializeAsString();
}

std::string EncodeTaskCommand(const TaskCommand& command) {
    wire::TaskCommand out;
    out.set_uuid(command.uuid.data(), command.uuid.size());
    out.set_text(command.text);
    for (const std::string& taskId : command.taskIds) out.add_task_ids(taskId);
    return out.SerializeAsString();
}

Result<std::string> EncodeOrder(std::uint32_t id, const Order& order) {
    // The alternatives stand in the order of OrderKind, after None.
    if (static_cast<std::size_t>(OrderKindOf(id)) != order.index() + 1)
        return Fail("the order does not belong to the id " + std::to_string(id));
    if (const auto* text = std::get_if<TaskTextOrder>(&order)) return EncodeTaskText(text->text);
    if (const auto* command = std::get_if<TaskCommand>(&order)) return EncodeTaskCommand(*command);
    return std::string{};
}

Result<Order> DecodeOrder(std::uint32_t id, std::string_view body) {
    switch (OrderKindOf(id)) {
        case OrderKind::Destroy:
            return Result<Order>(boost::system::in_place_value,
                                 std::in_place_type<DestroyOrder>);  // whatever its body holds is not read
        case OrderKind::Text:
            return DecodeText(id, body);
        case OrderKind::Command:
            return DecodeCommand(id, body);
        case OrderKind::None:
            break;
    }
    return Fail("an engine sends nothing under the id " + std::to_string(id));
}

std::string IdText(std::uint32_t id) {
    static constexpr const char* kControlNames[] = {"HELLO", "WELCOME", "REFUSE", "ACK", "PING", "BYE"};
    if (id >= kHelloId && id <= kByeId) return kControlNames[id - kHelloId];
    return std::to_string(id);
}

}  // namespace rq::link
