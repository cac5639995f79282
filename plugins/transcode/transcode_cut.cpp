// Which part of the source becomes the target.
#include <algorithm>
#include <cmath>

#include "plugin_common/codes.h"
#include "transcode_work.h"

namespace rq::transcode {
namespace {

constexpr std::int64_t kLongestRunIn_us = 200'000;
// Sound may come this much before the pictures of its time.
constexpr std::int64_t kVideoWait_us = 10'000'000;

}  // namespace

// Sound often begins a little before the pictures, with what its decoder needs to run in. Time counts from
// the first picture then, so that the pictures lie on the target's grid.
std::int64_t TranscodeWork::FirstPictureUs() const {
    if (m_source.Video() == nullptr) return 0;
    const std::int64_t late_us = m_source.LateUs(m_source.Video());
    return late_us < av_rescale_q(1, av_inv_q(m_source.FrameRate()), kMicroseconds) ? late_us : 0;
}

Problem TranscodeWork::MakeCut() {
    const std::int64_t sourceLength_us = m_source.LengthUs();
    if (sourceLength_us >= 0 && m_task.in_us >= sourceLength_us && m_task.in_us > 0)
        return FailureOf(task::kErrorProcessing, Detail::kInPoint,
                         m_task.source + ": the in point lies at " + SecondsWords(m_task.in_us) +
                             ", but the source ends at " + SecondsWords(sourceLength_us));
    // In and out points mean the picture next to them.
    const AVRational rate = m_source.FrameRate();
    const auto atPicture = [&](std::int64_t time_us) {
        if (m_source.Video() == nullptr) return time_us;
        const auto picture = std::llround(static_cast<double>(time_us) * 1e-6 * av_q2d(rate));
        return av_rescale_q(picture, av_inv_q(rate), kMicroseconds);
    };
    const std::int64_t in_us = atPicture(m_task.in_us);
    const std::int64_t origin_us = m_source.StartUs() + FirstPictureUs();
    if (Problem problem = CheckStreams(in_us)) return problem;
    Cut cut;
    cut.base_us = origin_us + in_us;
    if (in_us == 0) cut.runIn_us = kLongestRunIn_us;
    if (Problem problem = m_source.SeekBefore(cut.base_us - m_source.StartUs())) return problem;
    if (m_source.Video() != nullptr && m_task.video.handling == Handling::kCopy && in_us > 0)
        if (Problem problem = FindCopyBase(cut)) return problem;
    const std::int64_t begin_us = cut.base_us - m_source.StartUs();
    if (m_task.out_us) {
        const std::int64_t one_us =
            m_source.Video() == nullptr ? 1 : av_rescale_q(1, av_inv_q(rate), kMicroseconds);
        cut.length_us = std::max(one_us, atPicture(*m_task.out_us) + origin_us - cut.base_us);
    }
    m_lengthUs = sourceLength_us < 0 ? -1 : sourceLength_us - begin_us;
    if (cut.length_us) m_lengthUs = m_lengthUs < 0 ? *cut.length_us : std::min(m_lengthUs, *cut.length_us);
    for (Track* track : {m_video.get(), m_audio.get()}) {
        if (track != nullptr) track->SetCut(cut);
    }
    BeginProgress();
    return std::nullopt;
}

Problem TranscodeWork::NothingInCut(const AVStream& stream, const std::string& reason) const {
    const bool isVideo = stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
    return FailureOf(task::kErrorProcessing, Detail::kInPoint,
                     m_task.source + ": no " + (isVideo ? "video" : "audio") + " lies between " +
                         SecondsWords(m_task.in_us) + " and " +
                         (m_task.out_us ? SecondsWords(*m_task.out_us) : "the end") + reason);
}

// Finds a stream that has nothing between in and out point before the work, where the source tells it.
Problem TranscodeWork::CheckStreams(std::int64_t in_us) const {
    for (const AVStream* stream : {m_source.Video(), m_source.Audio()}) {
        if (stream == nullptr) continue;
        const std::int64_t end_us = m_source.LengthUs(stream);
        if (in_us > 0 && end_us >= 0 && end_us <= in_us)
            return NothingInCut(*stream, "; it ends at " + SecondsWords(end_us));
        const std::int64_t first_us = m_source.LateUs(stream);
        if (m_task.out_us && first_us >= *m_task.out_us)
            return NothingInCut(*stream, "; it begins at " + SecondsWords(first_us));
    }
    return std::nullopt;
}

// A copy begins with the last picture at or before the in point that stands alone; the target's time begins
// there, so that copied and encoded streams stay together.
Problem TranscodeWork::FindCopyBase(Cut& cut) {
    const AVStream* video = m_source.Video();
    const std::int64_t in_us = cut.base_us;
    std::optional<std::int64_t> found_us;
    std::size_t keptFrom = 0;
    std::int64_t videoEnd_us = INT64_MIN;
    for (;;) {
        Packet packet(av_packet_alloc());
        if (!packet) return FailureOf(task::kErrorProcessing, Detail::kNoMemory, "not enough memory");
        const int code = m_source.Read(packet.get());
        if (code < 0) break;
        const AVRational base = m_source.Format()->streams[packet->stream_index]->time_base;
        const bool isVideo = packet->stream_index == video->index;
        const bool hasTime = isVideo && packet->pts != AV_NOPTS_VALUE;
        const std::int64_t time_us = hasTime ? ToMicroseconds(packet->pts, base) : 0;
        if (hasTime)
            videoEnd_us = std::max(
                videoEnd_us, time_us + std::max<std::int64_t>(1, ToMicroseconds(packet->duration, base)));
        if (hasTime && (packet->flags & AV_PKT_FLAG_KEY) != 0 && (!found_us || time_us <= in_us + 1)) {
            found_us = time_us;
            keptFrom = m_read.size();
        }
        const bool isBehind = packet->dts != AV_NOPTS_VALUE &&
                              ToMicroseconds(packet->dts, base) > in_us + (isVideo ? 0 : kVideoWait_us);
        m_read.push_back(std::move(packet));
        if (isBehind && (found_us || !isVideo)) break;
    }
    if (videoEnd_us <= in_us && !m_watch.Stopped()) return NothingInCut(*video, "");
    // Pictures before that one are not wanted; sound is sorted out by its times.
    std::size_t index = 0;
    std::deque<Packet> kept;
    for (Packet& packet : m_read)
        if (index++ >= keptFrom || packet->stream_index != video->index) kept.push_back(std::move(packet));
    m_read.swap(kept);
    if (found_us) cut.base_us = *found_us;
    return std::nullopt;
}

}  // namespace rq::transcode
