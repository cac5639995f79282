#include "link/frame.h"

#include <google/protobuf/io/coded_stream.h>

#include "wire.pb.h"

namespace rq::link {
namespace {

using google::protobuf::io::CodedOutputStream;

constexpr std::uint8_t kSeqTag = 1 << 3;
constexpr std::uint8_t kAckTag = 2 << 3;
constexpr std::uint8_t kIdTag = 3 << 3;
constexpr std::uint8_t kBodyTag = 4 << 3 | 2;
// Tags, three longest varints and the longest length: what a frame has besides its body, at most.
constexpr std::size_t kLongestHead_bytes = 4 + 10 + 10 + 5 + 5;
// What the reader keeps of a consumed buffer before it moves the rest to the front.
constexpr std::size_t kCompactAt_bytes = std::size_t{64} * 1024;

void PutNumber(std::string& out, std::uint8_t tag, std::uint64_t value) {
    if (value == 0) return;
    std::uint8_t bytes[11];
    bytes[0] = tag;
    std::uint8_t* end = CodedOutputStream::WriteVarint64ToArray(value, bytes + 1);
    out.append(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(end - bytes));
}

void PutLength(std::string& out, std::size_t length) {
    for (std::size_t i = 0; i < kLengthBytes; ++i) out.push_back(static_cast<char>(length >> (8 * i) & 0xFF));
}

std::size_t ReadLength(const char* bytes) {
    std::size_t length = 0;
    for (std::size_t i = 0; i < kLengthBytes; ++i)
        length |= static_cast<std::size_t>(static_cast<unsigned char>(bytes[i])) << (8 * i);
    return length;
}

}  // namespace

std::string EncodeFrameHead(std::uint64_t seq, std::uint64_t ack, std::uint32_t id, std::size_t bodySize) {
    std::string fields;
    PutNumber(fields, kSeqTag, seq);
    PutNumber(fields, kAckTag, ack);
    PutNumber(fields, kIdTag, id);
    PutNumber(fields, kBodyTag, bodySize);
    std::string head;
    PutLength(head, fields.size() + bodySize);
    return head + fields;
}

bool BodyFits(std::size_t bodySize) {
    return bodySize <= kFrameLimit_bytes - kLongestHead_bytes;
}

Result<std::string> EncodeFrame(const Frame& frame) {
    if (!BodyFits(frame.body.size()))
        return Fail("a body of " + std::to_string(frame.body.size()) + " bytes does not fit into a frame");
    return EncodeFrameHead(frame.seq, frame.ack, frame.id, frame.body.size()) + frame.body;
}

void FrameReader::Feed(std::string_view bytes) {
    if (!m_problem.empty()) return;
    if (m_start == m_buffer.size()) {
        m_buffer.clear();
        m_start = 0;
    } else if (m_start > kCompactAt_bytes) {
        m_buffer.erase(0, m_start);
        m_start = 0;
    }
    m_buffer.append(bytes);
}

FrameReader::Status FrameReader::Next(Frame* frame) {
    if (!m_problem.empty()) return Status::Bad;
    if (Buffered() < kLengthBytes) return Status::NeedMore;
    const char* start = m_buffer.data() + m_start;
    const std::size_t length = ReadLength(start);
    if (length == 0) return Fail("a frame of length 0");
    if (length > m_limit)
        return Fail("a frame of " + std::to_string(length) + " bytes, over the limit of " +
                    std::to_string(m_limit));
    if (Buffered() < kLengthBytes + length) return Status::NeedMore;

    rqworker::link::v1::Frame wire;
    if (!wire.ParseFromArray(start + kLengthBytes, static_cast<int>(length)))
        return Fail("a frame of " + std::to_string(length) + " bytes that is no Frame message");
    frame->seq = wire.seq();
    frame->ack = wire.ack();
    frame->id = wire.id();
    frame->body = std::move(*wire.mutable_body());
    m_start += kLengthBytes + length;
    return Status::Ready;
}

FrameReader::Status FrameReader::Fail(std::string problem) {
    m_problem = std::move(problem);
    m_buffer.clear();
    m_buffer.shrink_to_fit();
    m_start = 0;
    return Status::Bad;
}

}  // namespace rq::link
