#include "link/spool_file.h"

#include <zlib.h>

#include <algorithm>

#include "link/codec.h"
#include "platform/file_name.h"

namespace rq::link {
namespace {

constexpr std::size_t kCheck_bytes = 4;
constexpr std::size_t kAttemptLimit = 64;

std::uint32_t CheckOf(std::string_view bytes) {
    return static_cast<std::uint32_t>(
        ::crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

std::string CheckBytes(std::string_view bytes) {
    const std::uint32_t check = CheckOf(bytes);
    std::string out;
    for (std::size_t i = 0; i < kCheck_bytes; ++i) out.push_back(static_cast<char>(check >> (8 * i) & 0xFF));
    return out;
}

}  // namespace

bool IsSpoolAttempt(std::string_view attempt) {
    constexpr std::string_view kAllowed = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_-";
    if (attempt.empty() || attempt.size() > kAttemptLimit) return false;
    if (attempt.find_first_not_of(kAllowed) != std::string_view::npos) return false;
    return platform::WhyNoFileName(std::string(attempt) + std::string(kSpoolEnding)).empty();
}

std::string EncodeSpoolFile(std::uint64_t seq, std::string_view body, std::uint64_t previous) {
    std::string bytes = EncodeFrameHead(seq, previous, TCP_WORKER_STATE_ID, body.size());
    bytes.reserve(bytes.size() + body.size() + kCheck_bytes);
    bytes.append(body);
    return bytes + CheckBytes(bytes);
}

Result<SpooledStatus> DecodeSpoolFile(std::string_view bytes) {
    const std::string size = std::to_string(bytes.size()) + " bytes";
    if (bytes.size() <= kLengthBytes + kCheck_bytes) return Fail(size + " are too few");
    if (bytes.size() > kSpoolLimit_bytes) return Fail(size + " are too many");
    const std::string_view content = bytes.substr(0, bytes.size() - kCheck_bytes);
    if (CheckBytes(content) != bytes.substr(content.size())) return Fail("its check does not fit its bytes");
    FrameReader reader;
    reader.Feed(content);
    Frame frame;
    const FrameReader::Status status = reader.Next(&frame);
    if (status == FrameReader::Status::Bad) return Fail("it holds " + reader.Problem());
    if (status == FrameReader::Status::NeedMore || reader.Buffered() != 0)
        return Fail("it does not hold exactly one frame");
    if (frame.id != TCP_WORKER_STATE_ID || frame.seq == 0)
        return Fail("it holds " + IdText(frame.id) + " with seq " + std::to_string(frame.seq));
    Result<WorkerRecord> record = DecodeWorkerRecord(frame.id, frame.body);
    if (!record) return record.error();
    auto& message = std::get<EngineStateMessage>(*record);
    if (!IsFinalState(message)) return Fail("the status in it is not final");
    return SpooledStatus{frame.seq, frame.ack, IsMarkedRepeat(frame.body), std::move(message)};
}

}  // namespace rq::link
