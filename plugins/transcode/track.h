// One stream on its way from the source to the target. The work gives each packet of the stream to its track,
// which decodes, changes, encodes and writes, or only copies. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "av.h"
#include "failure.h"
#include "source.h"
#include "target.h"
#include "watch.h"

namespace rq::transcode {

// Which part of the source becomes the target, in the source's time.
struct Cut {
    std::int64_t base_us = 0;               // time 0 of the target, on the source's own time line
    std::optional<std::int64_t> length_us;  // the target ends here; none: with the source
    std::int64_t runIn_us = 0;  // so much earlier may copied sound begin, for its decoder to run in
};

class Track {
  public:
    Track(const Source& source, const AVStream& from, Target& target, Watch& watch, bool ignoreDamage)
        : m_source(source), m_from(from), m_target(target), m_watch(watch), m_ignoreDamage(ignoreDamage) {}
    virtual ~Track() = default;
    Track(const Track&) = delete;
    Track& operator=(const Track&) = delete;

    // Before the header: makes the target's stream.
    virtual Problem Begin() = 0;
    // After the source was positioned.
    void SetCut(const Cut& cut) {
        m_cut = cut;
        m_nextTimeUs = m_source.StartUs() - cut.base_us;
    }
    // The progress is at least this much behind what the track has done; 0 unless told.
    virtual void LeadBehind(std::int64_t lag_us) = 0;
    // The packet stays the caller's.
    Problem Give(AVPacket* packet) {
        m_hasTaken = true;
        return Take(packet);
    }
    bool HasTaken() const { return m_hasTaken; }
    // At the end of the source or of the work: writes what is still held.
    virtual Problem Finish() = 0;
    // Nothing that comes later belongs to the target.
    virtual bool IsDone() const = 0;

    const AVStream& From() const { return m_from; }
    AVStream* To() const { return m_to; }
    // End of what the source gave, in the target's time.
    std::int64_t ReachedUs() const { return m_reachedUs; }
    // Frames or samples written; for copies packets and 0.
    virtual std::int64_t Units() const = 0;

  protected:
    virtual Problem Take(AVPacket* packet) = 0;

    std::int64_t TargetTimeUs(std::int64_t time, AVRational base) const {
        return ToMicroseconds(time, base) - m_cut.base_us;
    }
    // Time of a decoded frame; of one that tells none, the end of the one before.
    std::int64_t FrameTimeUs(const AVFrame& frame) const {
        if (!m_source.HasTimes() || frame.best_effort_timestamp == AV_NOPTS_VALUE) return m_nextTimeUs;
        return TargetTimeUs(frame.best_effort_timestamp, m_from.time_base);
    }
    void Reach(std::int64_t end_us) {
        if (end_us > m_reachedUs) m_reachedUs = end_us;
    }
    Failure SourceFailure(std::int32_t errorCode, Detail detail, const std::string& words) const {
        return Failure{errorCode, detail, m_source.Path() + ": " + words};
    }

    const Source& m_source;
    const AVStream& m_from;
    Target& m_target;
    Watch& m_watch;
    bool m_ignoreDamage;
    AVStream* m_to = nullptr;
    Cut m_cut;
    std::int64_t m_nextTimeUs = 0;  // end of the last decoded frame, in the target's time

  private:
    std::int64_t m_reachedUs = 0;
    bool m_hasTaken = false;
};

}  // namespace rq::transcode
