// Packets of one stream into frames. What cannot be decoded before the first whole frame is passed over
// (recordings begin anywhere); later it is damage, unless damage is to be ignored.
#pragma once

#include <functional>
#include <string>

#include "av.h"
#include "failure.h"
#include "source.h"

namespace rq::transcode {

class Decoder {
  public:
    Decoder(const Source& source, const AVStream& stream, bool ignoreDamage)
        : m_source(source), m_stream(stream), m_ignoreDamage(ignoreDamage) {}

    Problem Open();
    using OnFrame = std::function<Problem(AVFrame&)>;
    // The packet's frames, as far as they are ready; null flushes.
    Problem Decode(const AVPacket* packet, const OnFrame& onFrame);
    AVCodecContext& Context() const { return *m_codec; }
    bool HasFrames() const { return m_hasFrames; }

  private:
    bool IsVideo() const { return m_stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO; }
    Failure Fail(std::int32_t errorCode, Detail detail, const std::string& words) const;
    Problem Damage(Detail detail, const std::string& words) const;
    static std::string Incomplete();

    const Source& m_source;
    const AVStream& m_stream;
    bool m_ignoreDamage;
    Codec m_codec;
    Frame m_frame{av_frame_alloc()};
    bool m_hasFrames = false;
};

}  // namespace rq::transcode
