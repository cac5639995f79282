// A stream that is taken over as it is. It can only begin with a packet that stands alone, so with an in
// point its beginning lies at or before that.
#pragma once

#include "track.h"

namespace rq::transcode {

class CopyTrack final : public Track {
  public:
    using Track::Track;
    Problem Begin() override;
    Problem Take(AVPacket* packet) override;
    Problem Finish() override;
    bool IsDone() const override { return m_done; }
    std::int64_t Units() const override { return m_to == nullptr ? 0 : m_target.Packets(m_to); }

  private:
    Packet m_packet{av_packet_alloc()};
    bool m_hasBegun = false;
    bool m_done = false;
};

}  // namespace rq::transcode
