// Frames into packets of the target.
#pragma once

#include <cstdint>
#include <string>

#include "av.h"
#include "failure.h"
#include "target.h"
#include "watch.h"

namespace rq::transcode {

class Encoder {
  public:
    Encoder(Target& target, Watch& watch) : m_target(target), m_watch(watch) {}
    // The progress is at least this much behind what has been written; 0 unless told.
    void LeadBehind(std::int64_t lag_us) { m_lagUs = lag_us; }

    // The settings are to be made in Context() between Find and Open; `name` is the encoder's in FFmpeg.
    Problem Find(const char* name, Detail missing);
    // Starts it and makes the target's stream.
    Problem Open(AVDictionary** options, Detail failed);
    // Null flushes, which can take as long as many pictures: progress is told and a cancel ends it in
    // between. `packetDuration` in the encoder's time base, for packets that do not tell it.
    Problem Encode(const AVFrame* frame, std::int64_t packetDuration);

    AVCodecContext& Context() const { return *m_codec; }
    AVStream* Stream() const { return m_stream; }

  private:
    bool IsVideo() const { return m_codec->codec_type == AVMEDIA_TYPE_VIDEO; }

    Target& m_target;
    Watch& m_watch;
    std::int64_t m_lagUs = 0;
    Codec m_codec;
    Packet m_packet{av_packet_alloc()};
    AVStream* m_stream = nullptr;
};

}  // namespace rq::transcode
