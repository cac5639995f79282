// Does one transcode: demultiplexes the source once, gives each packet to the track of its stream, and
// publishes the target when it is whole. Lives as long as one perform call, on its thread; FFmpeg's decoders,
// filters and encoders use threads of their own underneath.
#pragma once

#include <deque>
#include <memory>
#include <string>

#include "audio_track.h"
#include "copy_track.h"
#include "probe.h"
#include "source.h"
#include "target.h"
#include "transcode_record.h"
#include "video_track.h"
#include "watch.h"

namespace rq::transcode {

// A source may end this much before the length that it tells of itself.
constexpr std::int64_t kEarlyEnd_us = 500'000;
// How long syncing and looking at the target may take before the task counts as stalled.
constexpr std::chrono::seconds kPublishing_s{600};

class TranscodeWork {
  public:
    TranscodeWork(TranscodeRecord& record, plugin::Run& run, const plugin::Host& host);
    plugin::Outcome Do();

  private:
    Problem Transcode();
    Problem OpenSource();
    Problem ChooseStreams();
    Problem BeginTarget();
    Problem MakeTracks();
    Problem MakeCut();
    std::int64_t FirstPictureUs() const;
    Problem CheckStreams(std::int64_t in_us) const;
    Problem NothingInCut(const AVStream& stream, const std::string& reason) const;
    Problem FindCopyBase(Cut& cut);
    void BeginProgress();
    Problem Pump();
    Problem TakePacket(AVPacket* packet);
    bool AllDone() const;
    Problem CheckEnd() const;
    Problem CheckJumps() const;
    void LogRemarks() const;
    Problem FinishTracks();
    Problem Publish();
    Expected ExpectedTarget() const;
    // The written file, opened again.
    Problem Look(const std::string& path, task::MediaFormat& format) const;
    Problem FromPublishing(const task::PublishFailure& failure) const;
    void LogPlan() const;

    plugin::Outcome Conclude(const Problem& problem);
    plugin::Outcome ConcludeEarly();

    TranscodeRecord& m_record;
    const TranscodeTask& m_task;
    const plugin::Host& m_host;
    Watch m_watch;
    task::Publication m_publication;
    Source m_source;
    Target m_target;
    std::unique_ptr<Track> m_video;
    std::unique_ptr<Track> m_audio;
    std::int64_t m_lengthUs = -1;  // of the target, as far as it can be told before
    std::deque<Packet> m_read;     // packets that were read while looking for the in point
    bool m_atEnd = false;          // of the source
    bool m_isEarly = false;        // a stop ended the reading
    bool m_isPublished = false;
};

// The facts of a source for the analysis; of one that cannot be opened, that it has no video.
SourceFacts LookAtSource(const std::string& path, const plugin::Host& host);

}  // namespace rq::transcode
