#include "encoder.h"

#include "av_log.h"
#include "plugin_common/codes.h"

namespace rq::transcode {

Problem Encoder::Find(const char* name, Detail missing) {
    const AVCodec* codec = avcodec_find_encoder_by_name(name);
    if (codec == nullptr)
        return m_target.Fail(task::kErrorProcessing, missing,
                             std::string("this build of FFmpeg has no encoder \"") + name + "\"");
    m_codec.reset(avcodec_alloc_context3(codec));
    if (!m_codec || !m_packet)
        return m_target.Fail(task::kErrorProcessing, Detail::kNoMemory, "not enough memory");
    m_codec->thread_count = 0;  // as many as there are processors
    if (m_target.WantsGlobalHeader()) m_codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    return std::nullopt;
}

Problem Encoder::Open(AVDictionary** options, Detail failed) {
    const std::string name = m_codec->codec->name;
    if (const int code = avcodec_open2(m_codec.get(), nullptr, options); code < 0)
        return m_target.Fail(
            task::kErrorProcessing, failed,
            "the encoder " + name + " does not take these settings: " + AvWordsWithLog(code));
    m_stream = m_target.AddStream();
    if (m_stream == nullptr || avcodec_parameters_from_context(m_stream->codecpar, m_codec.get()) < 0)
        return m_target.Fail(task::kErrorProcessing, Detail::kNoMemory, "not enough memory");
    m_stream->time_base = m_codec->time_base;
    m_stream->avg_frame_rate = m_codec->framerate;
    m_stream->sample_aspect_ratio = m_codec->sample_aspect_ratio;
    return std::nullopt;
}

Problem Encoder::Encode(const AVFrame* frame, std::int64_t packetDuration) {
    const auto failure = [this](int code) {
        return m_target.Fail(
            task::kErrorProcessing, IsVideo() ? Detail::kEncodeVideo : Detail::kEncodeAudio,
            std::string("encoding ") + (IsVideo() ? "video" : "audio") + " failed: " + AvWordsWithLog(code));
    };
    if (const int code = avcodec_send_frame(m_codec.get(), frame); code < 0) return failure(code);
    for (;;) {
        const int code = avcodec_receive_packet(m_codec.get(), m_packet.get());
        if (code == AVERROR(EAGAIN) || code == AVERROR_EOF) return std::nullopt;
        if (code < 0) return failure(code);
        if (m_packet->duration == 0) m_packet->duration = packetDuration;
        if (Problem problem = m_target.Write(m_packet.get(), m_stream, m_codec->time_base)) return problem;
        m_watch.At(m_target.EndUs(m_stream) - m_lagUs);
        m_watch.Tick();
        if (m_watch.Cancelled()) return std::nullopt;
    }
}

}  // namespace rq::transcode
