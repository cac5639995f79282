// The source's video, decoded, brought to an even frame rate, scaled, and encoded.
//
// The target's pictures lie on a grid of its frame rate. Each shows the last picture of the source that had
// begun by then; a source that gives none for a while has its last one repeated. The in and out points cut at
// the source's pictures next to them.
#pragma once

#include "decoder.h"
#include "encoder.h"
#include "filter.h"
#include "track.h"
#include "transcode_task.h"

namespace rq::transcode {

class VideoTrack final : public Track {
  public:
    VideoTrack(const Source& source, const AVStream& from, Target& target, Watch& watch, bool ignoreDamage,
               const VideoSettings& settings);

    Problem Begin() override;
    void LeadBehind(std::int64_t lag_us) override { m_encoder.LeadBehind(lag_us); }
    Problem Finish() override;
    bool IsDone() const override { return m_done; }
    std::int64_t Units() const override { return m_nextIndex; }

    // Pictures of the source that found no place at the target's rate.
    std::int64_t LeftOut() const { return m_leftOut; }
    // "h264 1280x720, 25 fps", after Begin.
    std::string Describe() const;

  private:
    Problem Take(AVPacket* packet) override;
    struct Size {
        int width_px = 0;
        int height_px = 0;
    };
    Problem ChooseSize();
    void ChooseRate();
    Problem OpenEncoder();
    void SetRateControl();
    AVRational PixelAspect() const;
    Problem BuildFilter(const AVFrame* frame);
    std::string FilterChain() const;
    bool FitsFilter(const AVFrame& frame) const;

    Problem OnFrame(AVFrame& frame);
    // Encodes the pending picture for every place on the grid before `index`.
    Problem ShowUntil(std::int64_t index);
    Problem Encode(AVFrame& frame);
    std::int64_t EndIndex() const;
    double Index(std::int64_t time_us) const;
    std::int64_t OwnTimeUs(const AVFrame& frame) const;

    const VideoSettings& m_settings;
    Decoder m_decoder;
    Encoder m_encoder;
    Filter m_filter;
    Size m_in;  // of what the filter was built for
    int m_inFormat = -1;
    Size m_size;  // of the target
    AVRational m_rate{25, 1};
    std::int64_t m_sourceFrameUs = 0;
    int m_rotationDegrees = 0;

    Frame m_pending{av_frame_alloc()};  // the picture to show next
    bool m_hasPending = false;
    std::int64_t m_pendingIndex = 0;  // its place on the grid
    std::int64_t m_leftOut = 0;
    std::int64_t m_nextIndex = 0;  // first place on the grid that is not encoded yet
    bool m_done = false;
};

}  // namespace rq::transcode
