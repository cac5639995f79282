// Bodies of the engine link's frames to and from the project's records (docs/engine-link.md, wire.proto).
// Used by the client and by the engine. Pure functions without I/O; any thread. Texts pass as bytes, nothing
// is re-encoded. Decoders accept unknown fields (a newer peer) and treat a missing field as empty or 0.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "base/result.h"
#include "link/frame.h"
#include "records/engine_messages.h"
#include "records/task_results.h"

namespace rq::link {

inline constexpr std::uint32_t kProtocolVersion = 1;

// ---- control bodies ----

struct Hello {
    std::uint32_t protocolVersion = kProtocolVersion;
    std::string token;
    std::string attempt;
    std::uint64_t processId = 0;
    std::string workerVersion;
    std::uint32_t resumeSessionId = 0;  // 0: a new session
    std::uint64_t resumeReceived = 0;
    std::uint64_t resumeAcknowledged = 0;
};

struct Welcome {
    std::uint32_t protocolVersion = kProtocolVersion;
    std::uint32_t sessionId = 0;
    std::uint32_t resumeWindow_ms = 0;  // 0: no resume
    std::uint32_t pingInterval_ms = 15'000;
    std::uint32_t silenceLimit_ms = 60'000;
    std::string spoolFolder;   // for unacknowledged final statuses; empty: none
    std::string attempt = {};  // the engine's name for this start
};

enum RefuseCode : std::uint32_t {
    kRefuseToken = 1,
    kRefuseVersion = 2,
    kRefuseAttempt = 3,    // unknown, or already used by another connection
    kRefuseHandshake = 4,  // no HELLO in time, or something else in its place
    kRefuseEnding = 5,     // the engine is ending or full; a later attempt may succeed
    kRefuseSession = 6,    // the session cannot be continued
};

struct Refuse {
    std::uint32_t code = 0;
    std::string text;
};

std::string EncodeHello(const Hello& hello);
std::string EncodeWelcome(const Welcome& welcome);
std::string EncodeRefuse(const Refuse& refuse);
Result<Hello> DecodeHello(std::string_view body);
// Also an error when the session ID is 0 or 0xFFFFFFFF, unless any is wanted.
enum class SessionIds { Valid, Any };
Result<Welcome> DecodeWelcome(std::string_view body, SessionIds ids = SessionIds::Valid);
Result<Refuse> DecodeRefuse(std::string_view body);

// ---- worker to engine ----

using WorkerRecord =
    std::variant<HeartbeatRecord, TaskNotice, TaskCommandReply, EngineProgressMessage, EngineStateMessage>;

// Whether a worker sends records under this id.
bool IsWorkerRecordId(std::uint32_t id);
// `record` points to the record that goes with the id (records/engine_messages.h). An error for other ids and
// null.
Result<std::string> EncodeWorkerRecord(std::uint32_t id, const void* record);
Result<std::string> EncodeWorkerRecord(std::uint32_t id, const WorkerRecord& record);
// A result in a status entry becomes a new stMD5TaskResult, stTransferTaskResult or stTranscodeTaskResult.
Result<WorkerRecord> DecodeWorkerRecord(std::uint32_t id, std::string_view body);

// 0 finished, 4 error, 5 cancelled.
bool IsFinalTaskStatus(std::uint32_t status);
// Whether any entry of the message has a final status: the engine acknowledges such a frame only once it is
// committed.
bool IsFinalState(const EngineStateMessage& message);

// Marks the body of a 4009 as a status that was sent before and not acknowledged in time.
inline constexpr std::size_t kRepeatMark_bytes = 2;
void MarkRepeat(std::string& body);
bool IsMarkedRepeat(std::string_view body);

// ---- engine to worker ----

struct DestroyOrder {};
// Always without a zero byte: the bytes from the first one on are cut by DecodeOrder, which says how many.
struct TaskTextOrder {
    std::string text;
    std::size_t cut_bytes = 0;
};
using Order = std::variant<DestroyOrder, TaskTextOrder, TaskCommand>;

// Whether an engine sends orders under this id.
bool IsOrderId(std::uint32_t id);
// The body of 4015 and 4017. An error when the text holds a zero byte.
Result<std::string> EncodeTaskText(std::string_view text);
// The body of 4002, 4004, 4006 and 4019.
std::string EncodeTaskCommand(const TaskCommand& command);
// More task IDs than these make an order that cannot be decoded.
inline constexpr int kTaskIdsLimit = 10'000;
// Any order under its id; an error when the two do not belong together.
Result<std::string> EncodeOrder(std::uint32_t id, const Order& order);
Result<Order> DecodeOrder(std::uint32_t id, std::string_view body);

// "HELLO", "4009", ... for log lines.
std::string IdText(std::uint32_t id);

}  // namespace rq::link
