// A stream that is taken over as it is. It can only begin with a packet that stands alone, so with an in
// point its beginning lies at or before that.
//
// Some demultiplexers give the first packets of a video without the times at which they are to be decoded,
// which a target needs. Such packets are held until one tells it, and the times are counted back from there.
#pragma once

#include <deque>

#include "track.h"

namespace rq::transcode {

class CopyTrack final : public Track {
  public:
    using Track::Track;
    Problem Begin() override;
    void LeadBehind(std::int64_t lag_us) override { m_lagUs = lag_us; }
    Problem Finish() override;
    bool IsDone() const override { return m_done; }
    std::int64_t Units() const override { return m_to == nullptr ? 0 : m_target.Packets(m_to); }

  private:
    Problem Take(AVPacket* packet) override;
    Problem Hold(const AVPacket& packet);
    // Gives the held packets the times before `next`; AV_NOPTS_VALUE: those that the first one's time allows.
    Problem WriteHeld(std::int64_t next);
    Problem Write(const AVPacket& packet, std::int64_t dts);
    Problem NoMemory() const;
    // Of one picture, in the stream's time base.
    std::int64_t Step(const AVPacket& packet) const;
    bool IsVideo() const { return m_from.codecpar->codec_type == AVMEDIA_TYPE_VIDEO; }

    Packet m_packet{av_packet_alloc()};
    std::deque<Packet> m_held;
    std::int64_t m_lastDts = AV_NOPTS_VALUE;  // written
    std::int64_t m_lagUs = 0;
    bool m_hasBegun = false;
    bool m_done = false;
};

}  // namespace rq::transcode
