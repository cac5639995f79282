// Frames into packets of the target.
#pragma once

#include <string>

#include "av.h"
#include "failure.h"
#include "target.h"

namespace rq::transcode {

class Encoder {
  public:
    explicit Encoder(Target& target) : m_target(target) {}

    // The settings are to be made in Context() between Find and Open; `name` is the encoder's in FFmpeg.
    Problem Find(const char* name, Detail missing);
    // Starts it and makes the target's stream.
    Problem Open(AVDictionary** options, Detail failed);
    // Null flushes. `packetDuration` in the encoder's time base, for packets that do not tell it.
    Problem Encode(const AVFrame* frame, std::int64_t packetDuration);

    AVCodecContext& Context() const { return *m_codec; }
    AVStream* Stream() const { return m_stream; }

  private:
    bool IsVideo() const { return m_codec->codec_type == AVMEDIA_TYPE_VIDEO; }

    Target& m_target;
    Codec m_codec;
    Packet m_packet{av_packet_alloc()};
    AVStream* m_stream = nullptr;
};

}  // namespace rq::transcode
