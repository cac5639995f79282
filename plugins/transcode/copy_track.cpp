#include "copy_track.h"

#include <algorithm>
#include <cstring>

#include "plugin_common/codes.h"

namespace rq::transcode {
namespace {

constexpr std::size_t kMostHeld_packets = 64;
constexpr std::int64_t kRounding_us = 1;

// Facts about the stream that do not stand in its parameters, as the rotation of a picture.
bool CopySideData(const AVStream& from, AVStream& to) {
    for (int i = 0; i < from.nb_side_data; ++i) {
        const AVPacketSideData& data = from.side_data[i];
        std::uint8_t* place = av_stream_new_side_data(&to, data.type, data.size);
        if (place == nullptr) return false;
        std::memcpy(place, data.data, data.size);
    }
    return true;
}

}  // namespace

Problem CopyTrack::NoMemory() const {
    return m_target.Fail(task::kErrorProcessing, Detail::kNoMemory, "not enough memory");
}

Problem CopyTrack::Begin() {
    const Detail refused = IsVideo() ? Detail::kMuxerRefusesVideo : Detail::kMuxerRefusesAudio;
    const std::string codec = avcodec_get_name(m_from.codecpar->codec_id);
    if (!m_target.Takes(m_from.codecpar->codec_id))
        return m_target.Fail(
            task::kErrorProcessing, refused,
            m_target.Container() + " does not take " + codec + "; encode it, or choose another container");
    if (!m_source.HasTimes() && IsVideo())
        return SourceFailure(task::kErrorProcessing, refused,
                             "the source is a bare stream of " + codec +
                                 " that tells no times, and cannot be copied; encode it");
    m_to = m_target.AddStream();
    if (m_to == nullptr || !m_packet || avcodec_parameters_copy(m_to->codecpar, m_from.codecpar) < 0 ||
        !CopySideData(m_from, *m_to))
        return NoMemory();
    m_to->codecpar->codec_tag = 0;  // the container's own
    m_to->time_base = m_from.time_base;
    m_to->avg_frame_rate = m_from.avg_frame_rate;
    m_to->r_frame_rate = m_from.r_frame_rate;
    m_to->sample_aspect_ratio = m_from.sample_aspect_ratio;
    return std::nullopt;
}

Problem CopyTrack::Take(AVPacket* packet) {
    if (m_done) return std::nullopt;
    if (!m_hasBegun && IsVideo() && (packet->flags & AV_PKT_FLAG_KEY) == 0) return std::nullopt;
    if ((packet->flags & AV_PKT_FLAG_CORRUPT) != 0 && m_hasBegun && !m_ignoreDamage)
        return SourceFailure(task::kErrorSourceDamaged, Detail::kSourceRead,
                             "a packet is cut short or damaged");
    if (packet->pts == AV_NOPTS_VALUE && !IsVideo()) packet->pts = packet->dts;
    const AVRational base = m_from.time_base;
    if (packet->pts != AV_NOPTS_VALUE) {
        const std::int64_t time_us = TargetTimeUs(packet->pts, base);
        if (time_us < -m_cut.runIn_us - kRounding_us && !IsVideo()) return std::nullopt;
        Reach(time_us + ToMicroseconds(packet->duration, base));
        m_watch.At(ReachedUs() - m_lagUs);
    }
    m_hasBegun = true;
    if (packet->dts != AV_NOPTS_VALUE) {
        if (Problem problem = WriteHeld(packet->dts)) return problem;
        return Write(*packet, packet->dts);
    }
    // Pictures in the order in which they are shown.
    if (!IsVideo() || (m_from.codecpar->video_delay == 0 && m_held.empty()))
        return Write(*packet, packet->pts);
    if (packet->pts == AV_NOPTS_VALUE)
        return SourceFailure(task::kErrorSourceDamaged, Detail::kSourceRead, "a packet tells no time");
    return Hold(*packet);
}

Problem CopyTrack::Hold(const AVPacket& packet) {
    m_held.emplace_back(av_packet_clone(&packet));
    if (!m_held.back()) return NoMemory();
    return m_held.size() < kMostHeld_packets ? std::nullopt : WriteHeld(AV_NOPTS_VALUE);
}

std::int64_t CopyTrack::Step(const AVPacket& packet) const {
    const std::int64_t step = packet.duration > 0
                                  ? packet.duration
                                  : av_rescale_q(1, av_inv_q(m_source.FrameRate()), m_from.time_base);
    return std::max<std::int64_t>(1, step);
}

Problem CopyTrack::WriteHeld(std::int64_t next) {
    if (m_held.empty()) return std::nullopt;
    const std::int64_t step = Step(*m_held.front());
    std::int64_t dts = m_held.front()->pts - step * m_from.codecpar->video_delay;
    if (next != AV_NOPTS_VALUE) dts = std::min(dts, next - step * static_cast<std::int64_t>(m_held.size()));
    if (m_lastDts != AV_NOPTS_VALUE) dts = std::max(dts, m_lastDts + step);
    for (; !m_held.empty(); m_held.pop_front(), dts += step)
        if (Problem problem = Write(*m_held.front(), dts)) return problem;
    return std::nullopt;
}

Problem CopyTrack::Write(const AVPacket& packet, std::int64_t dts) {
    const AVRational base = m_from.time_base;
    if (dts != AV_NOPTS_VALUE && m_cut.length_us && TargetTimeUs(dts, base) >= *m_cut.length_us)
        m_done = true;
    if (m_done) return std::nullopt;
    if (av_packet_ref(m_packet.get(), &packet) < 0) return NoMemory();
    // Small steps back happen in recordings, and no container takes them.
    if (dts != AV_NOPTS_VALUE && m_lastDts != AV_NOPTS_VALUE) dts = std::max(dts, m_lastDts + 1);
    m_lastDts = dts;
    m_packet->dts = dts;
    if (m_packet->pts != AV_NOPTS_VALUE && dts != AV_NOPTS_VALUE)
        m_packet->pts = std::max(m_packet->pts, dts);
    const std::int64_t shift = av_rescale_q(m_cut.base_us, kMicroseconds, base);
    if (m_packet->pts != AV_NOPTS_VALUE) m_packet->pts -= shift;
    if (m_packet->dts != AV_NOPTS_VALUE) m_packet->dts -= shift;
    return m_target.Write(m_packet.get(), m_to, base);
}

Problem CopyTrack::Finish() {
    return WriteHeld(AV_NOPTS_VALUE);
}

}  // namespace rq::transcode
