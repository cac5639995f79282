#include "copy_track.h"

#include <cstring>

#include "plugin_common/codes.h"

namespace rq::transcode {
namespace {

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

Problem CopyTrack::Begin() {
    const bool isVideo = m_from.codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
    if (!m_target.Takes(m_from.codecpar->codec_id))
        return m_target.Fail(
            task::kErrorProcessing, isVideo ? Detail::kMuxerRefusesVideo : Detail::kMuxerRefusesAudio,
            m_target.Container() + " does not take " + avcodec_get_name(m_from.codecpar->codec_id) +
                "; encode it, or choose another container");
    m_to = m_target.AddStream();
    if (m_to == nullptr || !m_packet || avcodec_parameters_copy(m_to->codecpar, m_from.codecpar) < 0 ||
        !CopySideData(m_from, *m_to))
        return m_target.Fail(task::kErrorProcessing, Detail::kNoMemory, "not enough memory");
    m_to->codecpar->codec_tag = 0;  // the container's own
    m_to->time_base = m_from.time_base;
    m_to->avg_frame_rate = m_from.avg_frame_rate;
    m_to->r_frame_rate = m_from.r_frame_rate;
    m_to->sample_aspect_ratio = m_from.sample_aspect_ratio;
    return std::nullopt;
}

Problem CopyTrack::Take(AVPacket* packet) {
    if (m_done) return std::nullopt;
    const bool isVideo = m_from.codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
    if (!m_hasBegun && isVideo && (packet->flags & AV_PKT_FLAG_KEY) == 0) return std::nullopt;
    if ((packet->flags & AV_PKT_FLAG_CORRUPT) != 0 && m_hasBegun && !m_ignoreDamage)
        return SourceFailure(task::kErrorSourceDamaged, Detail::kSourceRead,
                             "a packet is cut short or damaged");
    if (packet->dts == AV_NOPTS_VALUE) packet->dts = packet->pts;
    if (packet->pts == AV_NOPTS_VALUE && !isVideo) packet->pts = packet->dts;
    const AVRational base = m_from.time_base;
    const std::int64_t half_us = 1;
    if (packet->pts != AV_NOPTS_VALUE) {
        const std::int64_t time_us = TargetTimeUs(packet->pts, base);
        if (time_us < -half_us && !isVideo) return std::nullopt;
        Reach(time_us + ToMicroseconds(packet->duration, base));
    }
    if (packet->dts != AV_NOPTS_VALUE && m_cut.length_us &&
        TargetTimeUs(packet->dts, base) >= *m_cut.length_us) {
        m_done = true;
        return std::nullopt;
    }
    m_hasBegun = true;
    if (av_packet_ref(m_packet.get(), packet) < 0)
        return m_target.Fail(task::kErrorProcessing, Detail::kNoMemory, "not enough memory");
    const std::int64_t shift = av_rescale_q(m_cut.base_us, kMicroseconds, base);
    if (m_packet->pts != AV_NOPTS_VALUE) m_packet->pts -= shift;
    if (m_packet->dts != AV_NOPTS_VALUE) m_packet->dts -= shift;
    return m_target.Write(m_packet.get(), m_to, base);
}

Problem CopyTrack::Finish() {
    return std::nullopt;
}

}  // namespace rq::transcode
