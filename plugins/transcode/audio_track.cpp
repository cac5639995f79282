#include "audio_track.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

#include <algorithm>
#include <array>
#include <cstdlib>

#include "av_log.h"
#include "plugin_common/codes.h"

namespace rq::transcode {
namespace {

// For encoders that take any number at a time.
constexpr int kPortion_samples = 1024;
constexpr int kAacBitRatePerChannel_bps = 64'000;
// A packet of AAC has 1024 samples and at most 6144 bits for each channel.
constexpr int kAacMostBitsPerSample = 6;

// A layout for so many channels, as text for a filter.
std::string LayoutWords(int channels) {
    AVChannelLayout layout{};
    av_channel_layout_default(&layout, channels);
    std::array<char, 128> text{};
    av_channel_layout_describe(&layout, text.data(), text.size());
    av_channel_layout_uninit(&layout);
    return text.data();
}

// That of the frame; one that does not say which channel is which is taken as the usual one.
std::string LayoutWords(const AVChannelLayout& layout) {
    if (layout.order == AV_CHANNEL_ORDER_UNSPEC) return LayoutWords(layout.nb_channels);
    std::array<char, 256> text{};
    av_channel_layout_describe(&layout, text.data(), text.size());
    return text.data();
}

// The encoder's rate next to the wanted one.
int RateNear(const AVCodec& codec, int wanted_Hz) {
    if (codec.supported_samplerates == nullptr) return wanted_Hz;
    int best = codec.supported_samplerates[0];
    for (const int* rate = codec.supported_samplerates; *rate != 0; ++rate)
        if (std::abs(*rate - wanted_Hz) < std::abs(best - wanted_Hz)) best = *rate;
    return best;
}

std::string Seconds(std::int64_t time_us) {
    return std::to_string(time_us) + "us";
}

}  // namespace

AudioTrack::AudioTrack(const Source& source, const AVStream& from, Target& target, Watch& watch,
                       bool ignoreDamage, const AudioSettings& settings)
    : Track(source, from, target, watch, ignoreDamage),
      m_settings(settings),
      m_decoder(source, from, ignoreDamage),
      m_encoder(target, watch) {}

Problem AudioTrack::Begin() {
    if (Problem problem = m_decoder.Open()) return problem;
    const AVCodecParameters& from = *m_from.codecpar;
    if (from.sample_rate < 1 || from.ch_layout.nb_channels < 1 || from.format == AV_SAMPLE_FMT_NONE)
        return SourceFailure(task::kErrorSourceDamaged, Detail::kUnknownSourceAudio,
                             "the audio's rate and channels cannot be told; nothing in it can be decoded");
    if (Problem problem = OpenEncoder()) return problem;
    m_to = m_encoder.Stream();
    const AVCodecContext& context = m_encoder.Context();
    m_gathered.reset(
        av_audio_fifo_alloc(context.sample_fmt, context.ch_layout.nb_channels, kPortion_samples));
    return m_gathered ? std::nullopt : NoMemory();
}

Problem AudioTrack::OpenEncoder() {
    if (Problem problem = m_encoder.Find(m_settings.codec.c_str(), Detail::kAudioEncoderMissing))
        return problem;
    AVCodecContext& context = m_encoder.Context();
    const AVCodecParameters& from = *m_from.codecpar;
    const int wanted_Hz = m_settings.sampleRate_Hz.value_or(from.sample_rate);
    context.sample_rate = RateNear(*context.codec, wanted_Hz);
    if (m_settings.sampleRate_Hz && context.sample_rate != wanted_Hz)
        return m_target.Fail(task::kErrorProcessing, Detail::kUnsupportedTargetFormat,
                             m_settings.codec + " has no sample rate of " + std::to_string(wanted_Hz) +
                                 " Hz; the next one is " + std::to_string(context.sample_rate));
    const int channels = m_settings.channels.value_or(std::min(from.ch_layout.nb_channels, 8));
    av_channel_layout_default(&context.ch_layout, channels);
    context.sample_fmt = context.codec->sample_fmts[0];
    context.time_base = {1, context.sample_rate};
    if (m_settings.codec == "aac")
        context.bit_rate = m_settings.bitRate_kbps
                               ? std::int64_t{*m_settings.bitRate_kbps} * 1000
                               : std::int64_t{std::min(kAacBitRatePerChannel_bps,
                                                       kAacMostBitsPerSample * context.sample_rate)} *
                                     channels;
    return m_encoder.Open(nullptr, Detail::kAudioEncoderMissing);
}

bool AudioTrack::FitsFilter(const AVFrame& frame) const {
    return m_filter.IsBuilt() && frame.sample_rate == m_inRate && frame.format == m_inFormat &&
           frame.ch_layout.nb_channels == m_inChannels;
}

Problem AudioTrack::BuildFilter(const AVFrame& frame) {
    const bool isFirst = !m_filter.IsBuilt();
    m_inRate = frame.sample_rate;
    m_inFormat = frame.format;
    m_inChannels = frame.ch_layout.nb_channels;
    const AVCodecContext& context = m_encoder.Context();
    const std::string in =
        "time_base=1/" + std::to_string(m_inRate) + ":sample_rate=" + std::to_string(m_inRate) +
        ":sample_fmt=" + std::to_string(m_inFormat) + ":channel_layout=" + LayoutWords(frame.ch_layout);
    // Times more than 0.1 s off the count of samples are believed, and filled with silence or cut.
    const std::string chain = "atrim=start=0" +
                              (m_cut.length_us ? ":end=" + Seconds(*m_cut.length_us) : std::string()) +
                              ",aresample=" + std::to_string(context.sample_rate) +
                              ":async=1:min_hard_comp=0.1" + (isFirst ? ":first_pts=0" : "") +
                              ",aformat=sample_fmts=" + av_get_sample_fmt_name(context.sample_fmt) +
                              ":sample_rates=" + std::to_string(context.sample_rate) +
                              ":channel_layouts=" + LayoutWords(context.ch_layout);
    const int code = m_filter.Build(false, in, chain);
    if (code < 0)
        return SourceFailure(task::kErrorProcessing, Detail::kProcessing,
                             "the audio cannot be brought into the target's form: " + AvWordsWithLog(code));
    return std::nullopt;
}

Problem AudioTrack::Take(AVPacket* packet) {
    if (m_done) return std::nullopt;
    return m_decoder.Decode(packet, [this](AVFrame& frame) { return OnFrame(frame); });
}

Problem AudioTrack::OnFrame(AVFrame& frame) {
    if (m_done || frame.sample_rate < 1) return std::nullopt;
    const AVRational base{1, frame.sample_rate};
    const std::int64_t time_us = FrameTimeUs(frame);
    m_nextTimeUs = time_us + ToMicroseconds(frame.nb_samples, base);
    Reach(m_nextTimeUs);
    if (m_cut.length_us && time_us >= *m_cut.length_us) {
        m_done = true;
        return std::nullopt;
    }
    if (m_nextTimeUs <= 0) return std::nullopt;
    if (!FitsFilter(frame)) {
        if (m_filter.IsBuilt())
            if (Problem problem = Pass(nullptr)) return problem;
        if (Problem problem = BuildFilter(frame)) return problem;
    }
    frame.pts = av_rescale_q(time_us, kMicroseconds, base);
    // A channel order that nobody told was given a usual one, and the frame must agree.
    if (frame.ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
        av_channel_layout_default(&frame.ch_layout, m_inChannels);
    return Pass(&frame);
}

Problem AudioTrack::Pass(AVFrame* frame) {
    int code = 0;
    if (Problem problem = m_filter.Pass(
            frame, [this](AVFrame& out) { return Gather(out); }, code))
        return problem;
    if (code >= 0) return std::nullopt;
    return SourceFailure(task::kErrorProcessing, Detail::kProcessing,
                         "the audio cannot be brought into the target's form: " + AvWordsWithLog(code));
}

Problem AudioTrack::NoMemory() const {
    return m_target.Fail(task::kErrorProcessing, Detail::kNoMemory, "not enough memory");
}

Problem AudioTrack::Gather(AVFrame& frame) {
    const auto planes = reinterpret_cast<void**>(frame.extended_data);
    if (av_audio_fifo_write(m_gathered.get(), planes, frame.nb_samples) < frame.nb_samples) return NoMemory();
    return EncodePortions(false);
}

Problem AudioTrack::EncodePortions(bool isEnd) {
    const AVCodecContext& context = m_encoder.Context();
    const int portion = context.frame_size > 0 ? context.frame_size : kPortion_samples;
    for (;;) {
        const int there = av_audio_fifo_size(m_gathered.get());
        if (there == 0 || (there < portion && !isEnd)) return std::nullopt;
        const Frame frame(av_frame_alloc());
        if (!frame) return NoMemory();
        frame->nb_samples = std::min(there, portion);
        frame->format = context.sample_fmt;
        frame->sample_rate = context.sample_rate;
        if (av_channel_layout_copy(&frame->ch_layout, &context.ch_layout) < 0 ||
            av_frame_get_buffer(frame.get(), 0) < 0)
            return NoMemory();
        av_audio_fifo_read(m_gathered.get(), reinterpret_cast<void**>(frame->extended_data),
                           frame->nb_samples);
        // The samples follow each other without a gap, so their count is the time.
        frame->pts = m_samples;
        m_samples += frame->nb_samples;
        if (Problem problem = m_encoder.Encode(frame.get(), frame->nb_samples)) return problem;
    }
}

Problem AudioTrack::Finish() {
    if (!m_done)
        if (Problem problem = m_decoder.Decode(nullptr, [this](AVFrame& frame) { return OnFrame(frame); }))
            return problem;
    m_done = true;
    if (!m_decoder.HasFrames())
        return SourceFailure(task::kErrorSourceDamaged, Detail::kNoAudioFrame,
                             "nothing of the audio can be decoded");
    if (m_filter.IsBuilt())
        if (Problem problem = Pass(nullptr)) return problem;
    if (Problem problem = EncodePortions(true)) return problem;
    return m_samples == 0 ? std::nullopt : m_encoder.Encode(nullptr, 0);
}

std::string AudioTrack::Describe() const {
    const AVCodecContext& context = m_encoder.Context();
    return m_settings.codec + " " + std::to_string(context.sample_rate) + " Hz, " +
           std::to_string(context.ch_layout.nb_channels) + " channels";
}

}  // namespace rq::transcode
