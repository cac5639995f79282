#include "time_line.h"

#include <algorithm>
#include <cstdlib>

namespace rq::transcode {

// The section from the stream's own on in which the packet lies next to its expected place.
void TimeLine::ChooseSection(Stream& stream, std::int64_t time_us) {
    const auto distance = [&](std::size_t section) {
        return std::llabs(time_us + m_moves_us[section] - stream.end_us);
    };
    std::size_t best = stream.section;
    for (std::size_t i = best + 1; i < m_moves_us.size(); ++i)
        if (distance(i) < distance(best)) best = i;
    if (best == stream.section) return;
    stream.section = best;
    // This stream's old part went on for longer: the whole section gives way.
    m_moves_us[best] += std::max<std::int64_t>(0, stream.end_us - (time_us + m_moves_us[best]));
}

bool TimeLine::IsJump(const Stream& stream, std::int64_t at_us) const {
    if (m_hasBegun && at_us - m_end_us > m_longestGap_us) return true;
    return m_mendsBack && stream.hasBegun && at_us < stream.last_us - kJitter_us;
}

std::int64_t TimeLine::Move(std::size_t index, std::int64_t time_us, std::int64_t duration_us) {
    Stream& stream = m_streams[index];
    if (stream.hasBegun) {
        ChooseSection(stream, time_us);
    } else {
        stream.section = m_moves_us.size() - 1;
    }
    if (const std::int64_t at_us = time_us + m_moves_us[stream.section]; IsJump(stream, at_us)) {
        m_jumpFrom_us = m_end_us;
        m_jumpTo_us = at_us;
        m_moves_us.push_back(m_end_us - time_us);
        stream.section = m_moves_us.size() - 1;
    }
    const std::int64_t move_us = m_moves_us[stream.section];
    stream.last_us = time_us + move_us;
    stream.end_us = stream.last_us + std::max<std::int64_t>(0, duration_us);
    m_end_us = m_hasBegun ? std::max(m_end_us, stream.end_us) : stream.end_us;
    stream.hasBegun = m_hasBegun = true;
    return move_us;
}

}  // namespace rq::transcode
