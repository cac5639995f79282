#include "probe.h"

#include <algorithm>
#include <cstdlib>

#include "av.h"

namespace rq::transcode {
namespace {

constexpr std::int64_t kTolerance_us = 100'000;

std::uint32_t Unsigned(int value) {
    return static_cast<std::uint32_t>(std::max(0, value));
}

task::MediaStream Describe(const AVStream& stream) {
    const AVCodecParameters& from = *stream.codecpar;
    task::MediaStream to;
    to.codec = avcodec_get_name(from.codec_id);
    to.bitRate_bps = static_cast<std::uint64_t>(std::max<std::int64_t>(0, from.bit_rate));
    if (stream.duration > 0) to.duration_us = ToMicroseconds(stream.duration, stream.time_base);
    if (from.codec_type == AVMEDIA_TYPE_VIDEO) {
        to.kind = RQ_STREAM_VIDEO;
        to.width_px = Unsigned(from.width);
        to.height_px = Unsigned(from.height);
        to.frameRateNumerator = Unsigned(stream.avg_frame_rate.num);
        to.frameRateDenominator = Unsigned(stream.avg_frame_rate.den);
    } else if (from.codec_type == AVMEDIA_TYPE_AUDIO) {
        to.kind = RQ_STREAM_AUDIO;
        to.sampleRate_Hz = Unsigned(from.sample_rate);
        to.channels = Unsigned(from.ch_layout.nb_channels);
    }
    return to;
}

// FFmpeg's names of a demuxer are several, "mov,mp4,m4a,3gp,3g2,mj2".
std::string ContainerOf(const std::string& names) {
    if (names.find("mp4") != std::string::npos) return "mp4";
    if (names.find("matroska") != std::string::npos) return "mkv";
    return names.substr(0, names.find(','));
}

std::string Seconds(std::int64_t time_us) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f s", static_cast<double>(time_us) * 1e-6);
    return text;
}

std::string Sides(std::int64_t width, std::int64_t height) {
    return std::to_string(width) + "x" + std::to_string(height);
}

const task::MediaStream* Find(const task::MediaFormat& found, std::uint32_t kind) {
    for (const task::MediaStream& stream : found.streams)
        if (stream.kind == kind) return &stream;
    return nullptr;
}

std::string VideoDifference(const task::MediaFormat& found, const Expected::Video& expected) {
    const task::MediaStream* stream = Find(found, RQ_STREAM_VIDEO);
    if (stream == nullptr) return "it has no video";
    if (stream->codec != expected.codec) return "its video is " + stream->codec + ", not " + expected.codec;
    if (stream->width_px != Unsigned(expected.width_px) || stream->height_px != Unsigned(expected.height_px))
        return "its video has " + Sides(stream->width_px, stream->height_px) + " pixels, not " +
               Sides(expected.width_px, expected.height_px);
    return {};
}

std::string AudioDifference(const task::MediaFormat& found, const Expected::Audio& expected) {
    const task::MediaStream* stream = Find(found, RQ_STREAM_AUDIO);
    if (stream == nullptr) return "it has no audio";
    if (stream->codec != expected.codec) return "its audio is " + stream->codec + ", not " + expected.codec;
    if (stream->sampleRate_Hz != Unsigned(expected.sampleRate_Hz) ||
        stream->channels != Unsigned(expected.channels))
        return "its audio has " + std::to_string(stream->channels) + " channels of " +
               std::to_string(stream->sampleRate_Hz) + " Hz, not " + std::to_string(expected.channels) +
               " of " + std::to_string(expected.sampleRate_Hz);
    return {};
}

}  // namespace

task::MediaFormat Describe(const Source& source, std::uint64_t size_bytes) {
    const AVFormatContext& from = *source.Format();
    task::MediaFormat to;
    to.container = ContainerOf(from.iformat->name);
    if (from.duration > 0) to.duration_us = ToMicroseconds(from.duration, {1, AV_TIME_BASE});
    to.size_bytes = size_bytes;
    to.bitRate_bps = static_cast<std::uint64_t>(std::max<std::int64_t>(0, from.bit_rate));
    for (unsigned i = 0; i < from.nb_streams; ++i) to.streams.push_back(Describe(*from.streams[i]));
    return to;
}

std::string Difference(const task::MediaFormat& found, std::int64_t frames, const Expected& expected) {
    if (found.container != expected.container)
        return "it is " + found.container + ", not " + expected.container;
    std::string difference;
    if (expected.video) difference = VideoDifference(found, *expected.video);
    if (difference.empty() && expected.audio) difference = AudioDifference(found, *expected.audio);
    if (!difference.empty()) return difference;
    if (expected.video && frames > 0 && frames != expected.video->frames)
        return "it has " + std::to_string(frames) + " pictures, not " +
               std::to_string(expected.video->frames);
    const std::size_t streams = (expected.video ? 1u : 0u) + (expected.audio ? 1u : 0u);
    if (found.streams.size() != streams)
        return "it has " + std::to_string(found.streams.size()) + " streams, not " + std::to_string(streams);
    const std::int64_t off = std::llabs(found.duration_us - expected.duration_us);
    if (found.duration_us < 0 || off > std::max(kTolerance_us, expected.frame_us))
        return "it lasts " + Seconds(found.duration_us) + ", not " + Seconds(expected.duration_us);
    return {};
}

}  // namespace rq::transcode
