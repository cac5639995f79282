#include "video_track.h"

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cmath>

#include "av_log.h"
#include "plugin_common/codes.h"

namespace rq::transcode {
namespace {

constexpr AVPixelFormat kPixelFormat = AV_PIX_FMT_YUV420P;
constexpr int kMaxSide_px = 8192;
// A picture may begin this much of a target's frame late and still be the one of that place: times in files
// are rounded, often to milliseconds.
constexpr double kLate = 0.25;
constexpr std::int64_t kMostOwnTime_us = 600'000'000;
constexpr int kH264Quality = 23;
constexpr int kMpeg2Quality = 5;
constexpr int kH264Interval_frames = 250;
constexpr int kMpeg2Interval_frames = 12;

int Even(double side) {
    return std::max(2, static_cast<int>(std::lround(side / 2)) * 2);
}

std::string Words(AVRational rate) {
    return rate.den == 1 ? std::to_string(rate.num)
                         : std::to_string(rate.num) + "/" + std::to_string(rate.den);
}

}  // namespace

VideoTrack::VideoTrack(const Source& source, const AVStream& from, Target& target, Watch& watch,
                       bool ignoreDamage, const VideoSettings& settings)
    : Track(source, from, target, watch, ignoreDamage),
      m_settings(settings),
      m_decoder(source, from, ignoreDamage),
      m_encoder(target, watch) {}

Problem VideoTrack::Begin() {
    if (Problem problem = m_decoder.Open()) return problem;
    m_rotationDegrees = RotationDegrees(m_from);
    if (Problem problem = ChooseSize()) return problem;
    if (Problem problem = OpenEncoder()) return problem;
    m_to = m_encoder.Stream();
    return m_pending ? std::nullopt
                     : Problem(m_target.Fail(task::kErrorProcessing, Detail::kNoMemory, "not enough memory"));
}

Problem VideoTrack::ChooseSize() {
    const AVCodecParameters& from = *m_from.codecpar;
    if (from.width < 1 || from.height < 1 || from.format == AV_PIX_FMT_NONE)
        return SourceFailure(task::kErrorSourceDamaged, Detail::kUnknownSourceVideo,
                             "the video's size and format cannot be told; nothing in it can be decoded");
    const bool isTurned = m_rotationDegrees % 180 != 0;
    const double width = isTurned ? from.height : from.width;
    const double height = isTurned ? from.width : from.height;
    if (m_settings.width_px && m_settings.height_px) {
        m_size = {*m_settings.width_px, *m_settings.height_px};
    } else if (m_settings.width_px) {
        m_size = {*m_settings.width_px, Even(height * *m_settings.width_px / width)};
    } else if (m_settings.height_px) {
        m_size = {Even(width * *m_settings.height_px / height), *m_settings.height_px};
    } else {
        m_size = {Even(width), Even(height)};
    }
    if (m_size.width_px <= kMaxSide_px && m_size.height_px <= kMaxSide_px) return std::nullopt;
    return m_target.Fail(task::kErrorProcessing, Detail::kVideoEncoderStart,
                         "the picture would have " + std::to_string(m_size.width_px) + "x" +
                             std::to_string(m_size.height_px) + " pixels; at most " +
                             std::to_string(kMaxSide_px) + " are taken on each side");
}

void VideoTrack::ChooseRate() {
    m_rate = m_source.FrameRate();
    m_sourceFrameUs = av_rescale_q(1, av_inv_q(m_rate), kMicroseconds);
    if (m_settings.frameRate_fps)
        m_rate = {m_settings.frameRate_fps->numerator, m_settings.frameRate_fps->denominator};
    if (m_settings.codec == "mpeg2video") {
        const Rational rate = NearestMpeg2Rate({m_rate.num, m_rate.den});
        m_rate = {rate.numerator, rate.denominator};
    }
}

// Scaling does not change how wide a picture is shown: pixels become broader or narrower.
AVRational VideoTrack::PixelAspect() const {
    AVRational aspect = m_from.sample_aspect_ratio.num > 0 ? m_from.sample_aspect_ratio
                                                           : m_from.codecpar->sample_aspect_ratio;
    if (aspect.num <= 0 || aspect.den <= 0) return {0, 1};
    const bool isTurned = m_rotationDegrees % 180 != 0;
    const std::int64_t width = isTurned ? m_from.codecpar->height : m_from.codecpar->width;
    const std::int64_t height = isTurned ? m_from.codecpar->width : m_from.codecpar->height;
    if (isTurned) aspect = av_inv_q(aspect);
    AVRational result{};
    av_reduce(&result.num, &result.den, aspect.num * width * m_size.height_px,
              aspect.den * height * m_size.width_px, 255);
    return result;
}

void VideoTrack::SetRateControl() {
    AVCodecContext& context = m_encoder.Context();
    const bool isH264 = m_settings.codec == "h264";
    context.gop_size =
        m_settings.keyFrameInterval_frames.value_or(isH264 ? kH264Interval_frames : kMpeg2Interval_frames);
    if (m_settings.bFrames) context.max_b_frames = *m_settings.bFrames;
    if (m_settings.bitRate_kbps) {
        context.bit_rate = std::int64_t{*m_settings.bitRate_kbps} * 1000;
    } else if (!isH264) {
        context.flags |= AV_CODEC_FLAG_QSCALE;
        context.global_quality = FF_QP2LAMBDA * m_settings.quality.value_or(kMpeg2Quality);
    }
}

Problem VideoTrack::OpenEncoder() {
    const bool isH264 = m_settings.codec == "h264";
    if (Problem problem = m_encoder.Find(isH264 ? "libx264" : "mpeg2video",
                                         isH264 ? Detail::kH264EncoderMissing : Detail::kVideoEncoderMissing))
        return problem;
    ChooseRate();
    AVCodecContext& context = m_encoder.Context();
    context.width = m_size.width_px;
    context.height = m_size.height_px;
    context.pix_fmt = kPixelFormat;
    context.time_base = av_inv_q(m_rate);
    context.framerate = m_rate;
    context.sample_aspect_ratio = PixelAspect();
    context.color_range = AVCOL_RANGE_MPEG;
    if (m_from.codecpar->color_space != AVCOL_SPC_RGB) {
        context.colorspace = m_from.codecpar->color_space;
        context.color_primaries = m_from.codecpar->color_primaries;
        context.color_trc = m_from.codecpar->color_trc;
    }
    SetRateControl();
    AVDictionary* options = nullptr;
    if (isH264) {
        av_dict_set(&options, "preset", m_settings.preset.value_or("medium").c_str(), 0);
        if (!m_settings.bitRate_kbps)
            av_dict_set_int(&options, "crf", m_settings.quality.value_or(kH264Quality), 0);
    }
    Problem problem = m_encoder.Open(&options, Detail::kVideoEncoderStart);
    av_dict_free(&options);
    return problem;
}

std::string VideoTrack::FilterChain() const {
    std::string chain;
    if (m_rotationDegrees == 90) chain = "transpose=clock,";
    if (m_rotationDegrees == 180) chain = "hflip,vflip,";
    if (m_rotationDegrees == 270) chain = "transpose=cclock,";
    return chain + "scale=" + std::to_string(m_size.width_px) + ":" + std::to_string(m_size.height_px) +
           ":flags=bicubic,format=" + av_get_pix_fmt_name(kPixelFormat);
}

bool VideoTrack::FitsFilter(const AVFrame& frame) const {
    return m_filter.IsBuilt() && frame.width == m_in.width_px && frame.height == m_in.height_px &&
           frame.format == m_inFormat;
}

Problem VideoTrack::BuildFilter(const AVFrame* frame) {
    m_in = {frame->width, frame->height};
    m_inFormat = frame->format;
    const std::string in = "video_size=" + std::to_string(m_in.width_px) + "x" +
                           std::to_string(m_in.height_px) + ":pix_fmt=" + std::to_string(m_inFormat) +
                           ":time_base=" + std::to_string(m_rate.den) + "/" + std::to_string(m_rate.num) +
                           ":pixel_aspect=" + std::to_string(frame->sample_aspect_ratio.num) + "/" +
                           std::to_string(std::max(1, frame->sample_aspect_ratio.den));
    const int code = m_filter.Build(true, in, FilterChain());
    if (code >= 0) return std::nullopt;
    return SourceFailure(task::kErrorProcessing, Detail::kProcessing,
                         "the video cannot be brought into the target's form: " + AvWordsWithLog(code));
}

double VideoTrack::Index(std::int64_t time_us) const {
    return static_cast<double>(time_us) * 1e-6 * av_q2d(m_rate);
}

// Where the grid ends when the out point is given.
std::int64_t VideoTrack::EndIndex() const {
    return m_cut.length_us ? std::max<std::int64_t>(1, std::llround(Index(*m_cut.length_us))) : INT64_MAX;
}

Problem VideoTrack::Take(AVPacket* packet) {
    if (m_done) return std::nullopt;
    return m_decoder.Decode(packet, [this](AVFrame& frame) { return OnFrame(frame); });
}

// How long a picture is shown when none follows: one place on the source's grid, or longer when it says so,
// but not beyond the end that the source tells.
std::int64_t VideoTrack::OwnTimeUs(const AVFrame& frame) const {
    if (!m_source.HasTimes() || frame.pkt_duration <= 0) return m_sourceFrameUs;
    std::int64_t told_us = ToMicroseconds(frame.pkt_duration, m_from.time_base);
    if (const std::int64_t length_us = m_source.LengthUs(&m_from); length_us >= 0)
        told_us = std::min(told_us, m_source.StartUs() - m_cut.base_us + length_us - FrameTimeUs(frame));
    return std::clamp(told_us, m_sourceFrameUs, std::max(m_sourceFrameUs, kMostOwnTime_us));
}

Problem VideoTrack::OnFrame(AVFrame& frame) {
    if (m_done) return std::nullopt;
    const std::int64_t time_us = FrameTimeUs(frame);
    m_nextTimeUs = time_us + OwnTimeUs(frame);
    Reach(m_nextTimeUs);
    if (time_us < -m_sourceFrameUs / 2) return std::nullopt;
    if (m_cut.length_us && time_us >= *m_cut.length_us - m_sourceFrameUs / 2) {
        m_done = true;
        return ShowUntil(EndIndex());
    }
    const auto first = std::max<std::int64_t>(0, std::llround(std::ceil(Index(time_us) - kLate)));
    if (m_hasPending)
        if (Problem problem = ShowUntil(std::min(first, EndIndex()))) return problem;
    // Two pictures that have the same place: the second one is shown.
    if (m_hasPending && first <= m_pendingIndex) ++m_leftOut;
    m_pendingIndex = first;
    av_frame_unref(m_pending.get());
    av_frame_move_ref(m_pending.get(), &frame);
    // What comes before the first picture shows it too.
    if (!m_hasPending) {
        m_hasPending = true;
        return ShowUntil(std::min(first, EndIndex()));
    }
    return std::nullopt;
}

Problem VideoTrack::ShowUntil(std::int64_t index) {
    for (; m_hasPending && m_nextIndex < index; ++m_nextIndex) {
        if (m_watch.Cancelled()) return std::nullopt;
        if (!FitsFilter(*m_pending)) {
            if (Problem problem = BuildFilter(m_pending.get())) return problem;
        }
        m_pending->pts = m_nextIndex;
        int code = 0;
        if (Problem problem = m_filter.Pass(
                m_pending.get(), [this](AVFrame& frame) { return Encode(frame); }, code))
            return problem;
        if (code < 0)
            return SourceFailure(
                task::kErrorProcessing, Detail::kProcessing,
                "the video cannot be brought into the target's form: " + AvWordsWithLog(code));
        m_watch.Tick();
    }
    return std::nullopt;
}

Problem VideoTrack::Encode(AVFrame& frame) {
    // The source's kinds of pictures are no order to the encoder.
    frame.pict_type = AV_PICTURE_TYPE_NONE;
    frame.key_frame = 0;
    if ((m_encoder.Context().flags & AV_CODEC_FLAG_QSCALE) != 0)
        frame.quality = m_encoder.Context().global_quality;
    return m_encoder.Encode(&frame, 1);
}

Problem VideoTrack::Finish() {
    if (!m_done)
        if (Problem problem = m_decoder.Decode(nullptr, [this](AVFrame& frame) { return OnFrame(frame); }))
            return problem;
    if (!m_decoder.HasFrames())
        return SourceFailure(task::kErrorSourceDamaged, Detail::kNoVideoFrame,
                             "no picture of the video can be decoded");
    if (!m_done && m_hasPending) {
        // The last picture is shown for its own time.
        const auto end = std::max<std::int64_t>(m_nextIndex == 0 ? 1 : 0, std::llround(Index(m_nextTimeUs)));
        if (Problem problem = ShowUntil(std::min(end, EndIndex()))) return problem;
    }
    m_done = true;
    if (m_nextIndex == 0) return std::nullopt;
    return m_encoder.Encode(nullptr, 1);
}

std::string VideoTrack::Describe() const {
    return m_settings.codec + " " + std::to_string(m_size.width_px) + "x" + std::to_string(m_size.height_px) +
           ", " + Words(m_rate) + " fps";
}

}  // namespace rq::transcode
