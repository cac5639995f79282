// FFmpeg's objects with owners, and its words for an error.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/rational.h>
}

#include <cstdint>
#include <memory>
#include <string>

namespace rq::transcode {

struct AvFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
    void operator()(AVCodecContext* codec) const { avcodec_free_context(&codec); }
    void operator()(AVFilterGraph* graph) const { avfilter_graph_free(&graph); }
    void operator()(AVAudioFifo* fifo) const { av_audio_fifo_free(fifo); }
    // Its buffer may have been replaced since it was made.
    void operator()(AVIOContext* io) const {
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
};
using Packet = std::unique_ptr<AVPacket, AvFree>;
using Frame = std::unique_ptr<AVFrame, AvFree>;
using Codec = std::unique_ptr<AVCodecContext, AvFree>;
using Graph = std::unique_ptr<AVFilterGraph, AvFree>;
using SampleFifo = std::unique_ptr<AVAudioFifo, AvFree>;
using Io = std::unique_ptr<AVIOContext, AvFree>;

constexpr AVRational kMicroseconds{1, 1'000'000};

// FFmpeg's words: "Invalid data found when processing input".
std::string AvWords(int code);

inline std::int64_t ToMicroseconds(std::int64_t time, AVRational base) {
    return av_rescale_q(time, base, kMicroseconds);
}

}  // namespace rq::transcode
