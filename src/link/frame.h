// Frames of the engine link: 4 bytes of little-endian length, then a Frame message (docs/engine-link.md). No
// I/O, no locks; an object belongs to one thread at a time. Sizes are bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/result.h"

namespace rq::link {

inline constexpr std::size_t kLengthBytes = 4;
// Largest value of the length field.
inline constexpr std::size_t kFrameLimit_bytes = std::size_t{16} * 1024 * 1024;
// The same for the first frame of a side, before anyone has shown a token.
inline constexpr std::size_t kHandshakeLimit_bytes = std::size_t{64} * 1024;

// Ids below 4000 are the link's own: they never reach a handler and have seq 0.
enum ControlId : std::uint32_t {
    kHelloId = 1,
    kWelcomeId = 2,
    kRefuseId = 3,
    kAckId = 4,
    kPingId = 5,
    kByeId = 6,
};

struct Frame {
    std::uint64_t seq = 0;  // 0 in control frames
    std::uint64_t ack = 0;
    std::uint32_t id = 0;
    std::string body;
};

// Everything of an encoded frame but its body, for writers that queue bodies and know the ack only when they
// write.
std::string EncodeFrameHead(std::uint64_t seq, std::uint64_t ack, std::uint32_t id, std::size_t bodySize);
// Whether a body of that size fits into a frame whatever its seq and ack.
bool BodyFits(std::size_t bodySize);
// The whole frame with its length; an error when it is over the limit.
Result<std::string> EncodeFrame(const Frame& frame);

// Cuts a byte stream into frames. After Bad it stays Bad: the connection is to be closed.
class FrameReader {
  public:
    enum class Status { NeedMore, Ready, Bad };

    explicit FrameReader(std::size_t limit_bytes = kFrameLimit_bytes) : m_limit(limit_bytes) {}

    // Applies from the next frame on; a side raises it when the handshake is through.
    void SetLimit(std::size_t limit_bytes) { m_limit = limit_bytes; }
    void Feed(std::string_view bytes);
    // Ready: *frame is filled. Bad: Problem() says why.
    Status Next(Frame* frame);
    const std::string& Problem() const { return m_problem; }
    std::size_t Buffered() const { return m_buffer.size() - m_start; }

  private:
    Status Fail(std::string problem);

    std::size_t m_limit;
    std::string m_buffer;
    std::size_t m_start = 0;  // of the first byte not yet taken
    std::string m_problem;
};

}  // namespace rq::link
