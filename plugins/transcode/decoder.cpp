#include "decoder.h"

#include "av_log.h"
#include "plugin_common/codes.h"

namespace rq::transcode {

Failure Decoder::Fail(std::int32_t errorCode, Detail detail, const std::string& words) const {
    return Failure{errorCode, detail, m_source.Path() + ": " + words};
}

Problem Decoder::Open() {
    const AVCodecParameters& parameters = *m_stream.codecpar;
    const std::string name = avcodec_get_name(parameters.codec_id);
    const AVCodec* codec = avcodec_find_decoder(parameters.codec_id);
    if (codec == nullptr)
        return Fail(task::kErrorSourceNotMedia,
                    IsVideo() ? Detail::kVideoDecoderMissing : Detail::kAudioDecoderMissing,
                    "this build of FFmpeg cannot decode " + name);
    m_codec.reset(avcodec_alloc_context3(codec));
    if (!m_codec || !m_frame || avcodec_parameters_to_context(m_codec.get(), &parameters) < 0)
        return Fail(task::kErrorProcessing, Detail::kNoMemory, "not enough memory");
    m_codec->pkt_timebase = m_stream.time_base;
    m_codec->framerate = m_source.FrameRate();
    m_codec->thread_count = 0;  // as many as there are processors
    if (const int code = avcodec_open2(m_codec.get(), codec, nullptr); code < 0)
        return Fail(task::kErrorSourceDamaged,
                    IsVideo() ? Detail::kVideoDecoderStart : Detail::kAudioDecoderMissing,
                    "the decoder for " + name + " does not start: " + AvWordsWithLog(code));
    return std::nullopt;
}

Problem Decoder::Damage(Detail detail, const std::string& words) const {
    if (m_ignoreDamage || !m_hasFrames) return std::nullopt;
    return Fail(task::kErrorSourceDamaged, detail,
                std::string(IsVideo() ? "the video" : "the audio") + " is damaged: " + words);
}

std::string Decoder::Incomplete() {
    const std::string line = AvLog::TakeError();
    return "a frame is incomplete" + (line.empty() ? "" : " (" + line + ")");
}

Problem Decoder::Decode(const AVPacket* packet, const OnFrame& onFrame) {
    if (packet != nullptr && (packet->flags & AV_PKT_FLAG_CORRUPT) != 0)
        if (Problem problem = Damage(Detail::kSourceRead, "a packet is cut short")) return problem;
    const Detail broken = IsVideo() ? Detail::kDecodeVideo : Detail::kDecodeAudio;
    int code = avcodec_send_packet(m_codec.get(), packet);
    if (code == AVERROR_EXIT || code == AVERROR(ENOMEM))
        return Fail(task::kErrorProcessing, Detail::kNoMemory, AvWordsWithLog(code));
    if (code < 0 && code != AVERROR_EOF)
        if (Problem problem = Damage(broken, AvWordsWithLog(code))) return problem;
    for (;;) {
        code = avcodec_receive_frame(m_codec.get(), m_frame.get());
        if (code == AVERROR(EAGAIN) || code == AVERROR_EOF) return std::nullopt;
        if (code < 0) {
            if (Problem problem = Damage(broken, AvWordsWithLog(code))) return problem;
            if (packet != nullptr) return std::nullopt;
            continue;  // a flush goes on behind the damage, to the end
        }
        const bool isWhole =
            m_frame->decode_error_flags == 0 && (m_frame->flags & AV_FRAME_FLAG_CORRUPT) == 0;
        if (!isWhole)
            if (Problem problem = Damage(broken, Incomplete())) return problem;
        m_hasFrames = true;
        Problem problem = onFrame(*m_frame);
        av_frame_unref(m_frame.get());
        if (problem) return problem;
    }
}

}  // namespace rq::transcode
