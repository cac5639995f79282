// The source's audio, decoded, brought to the target's rate and channels, and encoded. Gaps become silence,
// so that it stays with the video. The in and out points cut at samples.
#pragma once

#include "decoder.h"
#include "encoder.h"
#include "filter.h"
#include "track.h"
#include "transcode_task.h"

namespace rq::transcode {

class AudioTrack final : public Track {
  public:
    AudioTrack(const Source& source, const AVStream& from, Target& target, Watch& watch, bool ignoreDamage,
               const AudioSettings& settings);

    Problem Begin() override;
    void LeadBehind(std::int64_t lag_us) override { m_encoder.LeadBehind(lag_us); }
    Problem Finish() override;
    bool IsDone() const override { return m_done; }
    std::int64_t Units() const override { return m_samples; }

    // "aac 48000 Hz, 2 channels", after Begin.
    std::string Describe() const;

  private:
    Problem Take(AVPacket* packet) override;
    Problem OpenEncoder();
    Problem BuildFilter(const AVFrame& frame);
    bool FitsFilter(const AVFrame& frame) const;
    Problem OnFrame(AVFrame& frame);
    Problem Pass(AVFrame* frame);
    // What the filter gives is gathered and encoded in the portions that the encoder wants.
    Problem Gather(AVFrame& frame);
    Problem EncodePortions(bool isEnd);
    Problem NoMemory() const;

    const AudioSettings& m_settings;
    Decoder m_decoder;
    Encoder m_encoder;
    Filter m_filter;
    SampleFifo m_gathered;
    int m_inRate = 0;  // of what the filter was built for
    int m_inFormat = -1;
    int m_inChannels = 0;
    std::int64_t m_samples = 0;  // given to the encoder
    bool m_done = false;
};

}  // namespace rq::transcode
