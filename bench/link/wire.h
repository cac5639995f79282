// Fields of the engine link's frames (docs/engine-link.md), read and written by hand: the engine and the
// worker that measurements are made against must cost next to nothing themselves.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common.h"

namespace bench {

inline constexpr std::uint32_t kHello = 1, kWelcome = 2, kAck = 4, kPing = 5, kBye = 6;
inline constexpr std::uint32_t kNotice = 4001, kState = 4009, kAddTask = 4017;

inline std::uint64_t TakeVarint(std::string_view* bytes) {
    std::uint64_t value = 0;
    for (unsigned shift = 0; !bytes->empty() && shift < 64; shift += 7) {
        const auto byte = static_cast<unsigned char>(bytes->front());
        bytes->remove_prefix(1);
        value |= std::uint64_t{byte & 0x7fu} << shift;
        if (byte < 0x80) return value;
    }
    Die("a frame that cannot be read");
}
inline void AddVarint(std::string* to, std::uint64_t value) {
    for (; value >= 0x80; value >>= 7) to->push_back(static_cast<char>(value | 0x80));
    to->push_back(static_cast<char>(value));
}
inline void AddNumber(std::string* to, unsigned field, std::uint64_t value) {
    if (value == 0) return;
    AddVarint(to, field << 3);
    AddVarint(to, value);
}
inline void AddBytes(std::string* to, unsigned field, std::string_view value) {
    if (value.empty()) return;
    AddVarint(to, field << 3 | 2);
    AddVarint(to, value.size());
    to->append(value);
}

// Calls f(field, number, bytes) for each field.
template <class Function>
void ForEachField(std::string_view message, Function f) {
    while (!message.empty()) {
        const std::uint64_t tag = TakeVarint(&message);
        const auto field = static_cast<unsigned>(tag >> 3);
        const std::uint64_t number = (tag & 7) == 5 ? 4 : TakeVarint(&message);
        if ((tag & 7) == 0) {
            f(field, number, std::string_view());
            continue;
        }
        Check(number <= message.size(), "a frame that cannot be read");
        f(field, 0, message.substr(0, number));
        message.remove_prefix(number);
    }
}

struct Frame {
    std::uint64_t seq = 0;
    std::uint64_t ack = 0;
    std::uint32_t id = 0;
    std::string_view body;
};

inline void AddFrame(std::string* to, const Frame& frame) {
    const std::size_t begin = to->size();
    to->append(4, '\0');
    AddNumber(to, 1, frame.seq);
    AddNumber(to, 2, frame.ack);
    AddNumber(to, 3, frame.id);
    AddBytes(to, 4, frame.body);
    const std::size_t size = to->size() - begin - 4;
    for (unsigned i = 0; i < 4; ++i) (*to)[begin + i] = static_cast<char>(size >> 8 * i);
}

// The stream of one side. A frame's body lives until the next call of Feed.
class Input {
  public:
    bool Feed(int socket) {
        m_bytes.erase(0, m_begin);
        m_begin = 0;
        return ReadSome(socket, &m_bytes);
    }
    bool Next(Frame* frame) {
        const std::string_view rest = std::string_view(m_bytes).substr(m_begin);
        if (rest.size() < 4) return false;
        std::size_t size = 0;
        for (unsigned i = 0; i < 4; ++i) size |= std::size_t{static_cast<unsigned char>(rest[i])} << 8 * i;
        if (rest.size() - 4 < size) return false;
        *frame = {};
        ForEachField(rest.substr(4, size), [&](unsigned field, std::uint64_t number, std::string_view bytes) {
            if (field == 1) frame->seq = number;
            if (field == 2) frame->ack = number;
            if (field == 3) frame->id = static_cast<std::uint32_t>(number);
            if (field == 4) frame->body = bytes;
        });
        m_begin += 4 + size;
        return true;
    }

  private:
    std::string m_bytes;
    std::size_t m_begin = 0;
};

}  // namespace bench
