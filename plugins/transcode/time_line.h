// One time line for a source whose time stamps jump: joined recordings begin anew, clocks are set, counters
// wrap. Each jump begins a section of the source, and the times of a section are moved as one, so that it
// follows what came before and its streams stay together.
//
// Streams do not pass a jump at the same packet: the demultiplexer may still give an old packet of one after
// new ones of the other. So each stream belongs to a section of its own, and changes to a later one when its
// packet fits better there. Times in microseconds; pure, one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace rq::transcode {

// A step back by less than this is no jump.
constexpr std::int64_t kJitter_us = 100'000;

class TimeLine {
  public:
    // A step ahead of all streams by more than `longestGap_us` is a jump; a step back of one is when
    // `mendsBack`.
    TimeLine(std::size_t streams, std::int64_t longestGap_us, bool mendsBack)
        : m_streams(streams), m_longestGap_us(longestGap_us), m_mendsBack(mendsBack) {}

    // What is to be added to the times of this packet.
    std::int64_t Move(std::size_t stream, std::int64_t time_us, std::int64_t duration_us);
    // The same for a packet without a time.
    std::int64_t Move(std::size_t stream) const { return m_moves_us[m_streams[stream].section]; }

    // Changes when the stream passes a jump.
    std::size_t SectionOf(std::size_t stream) const { return m_streams[stream].section; }
    std::size_t Jumps() const { return m_moves_us.size() - 1; }
    // Of the last jump: the end of what came before, and where the source would have gone on.
    std::int64_t JumpFromUs() const { return m_jumpFrom_us; }
    std::int64_t JumpToUs() const { return m_jumpTo_us; }

  private:
    struct Stream {
        bool hasBegun = false;
        std::size_t section = 0;
        std::int64_t last_us = 0;  // begin and end of its last packet
        std::int64_t end_us = 0;
    };
    void ChooseSection(Stream& stream, std::int64_t time_us);
    bool IsJump(const Stream& stream, std::int64_t at_us) const;

    std::vector<Stream> m_streams;
    std::int64_t m_longestGap_us;
    bool m_mendsBack;
    bool m_hasBegun = false;
    std::int64_t m_end_us = 0;                // of everything so far
    std::vector<std::int64_t> m_moves_us{0};  // of each section
    std::int64_t m_jumpFrom_us = 0;
    std::int64_t m_jumpTo_us = 0;
};

}  // namespace rq::transcode
