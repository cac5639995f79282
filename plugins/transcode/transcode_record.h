// The record of one transcode task: what is to be done, what the worker must know of the source, and the
// results as they are published. Made by the analysis, used by one perform call at a time; the worker reads
// the published results from other threads.
#pragma once

#include <memory>
#include <string>

#include "plugin_common/media_format.h"
#include "rqworker/plugin.hpp"
#include "transcode_task.h"

namespace rq::transcode {

// Of the source's video; a rate of 0/1 without.
struct SourceFacts {
    bool hasVideo = false;
    Rational frameRate_fps;
};

class TranscodeRecord final : public plugin::TaskRecord {
  public:
    TranscodeRecord(TranscodeTask task, const SourceFacts& facts);

    const TranscodeTask& Task() const { return m_task; }
    // What the worker takes for a second of media: the told frame rate, and 25 without video.
    double Units_per_s() const {
        return m_source.hasVideo == 0 ? 25.0
                                      : static_cast<double>(m_source.frameRateNumerator) /
                                            static_cast<double>(m_source.frameRateDenominator);
    }

    // The target as it is published: pictures and milliseconds of sound written, and the format as it was
    // read back. Once for a record.
    void Publish(std::uint32_t frames, std::uint32_t audio_ms, task::MediaFormat format);

  private:
    TranscodeTask m_task;
    RQSourceDescription m_source{};
    const RQSourceDescription* m_sources[1];
    std::unique_ptr<task::MediaFormatView> m_format;
    plugin::ResultList<RQVerification> m_verifications{1};
    plugin::ResultList<RQTranscodeOutput> m_outputs{1};
    RQTranscodeData m_data{};
};

}  // namespace rq::transcode
