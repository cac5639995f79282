#include "transcode_work.h"

#include <algorithm>
#include <chrono>

#include "av_log.h"
#include "plugin_common/codes.h"

namespace rq::transcode {
namespace {

// Looking at a source for the analysis ends after this; the work looks again, without such a limit.
constexpr std::chrono::seconds kMaxLook{10};

// What an encoder's look ahead may keep the video behind the audio.
constexpr std::int64_t kAudioLag_us = 10'000'000;

std::uint32_t Clamped(std::int64_t value) {
    return static_cast<std::uint32_t>(std::clamp<std::int64_t>(value, 0, UINT32_MAX));
}

}  // namespace

SourceFacts LookAtSource(const std::string& path, const plugin::Host& host) {
    const AvLog log(host);
    const auto end = std::chrono::steady_clock::now() + kMaxLook;
    Source source([end] { return std::chrono::steady_clock::now() > end; });
    SourceFacts facts;
    if (source.Open(path) || source.Video() == nullptr) return facts;
    const AVRational rate = source.FrameRate();
    facts.hasVideo = true;
    // The worker counts whole frames a second.
    facts.frameRate_fps = rate.num < rate.den ? Rational{1, 1} : Rational{rate.num, rate.den};
    return facts;
}

TranscodeWork::TranscodeWork(TranscodeRecord& record, plugin::Run& run, const plugin::Host& host)
    : m_record(record),
      m_task(record.Task()),
      m_host(host),
      m_watch(run),
      m_source([this] {
          m_watch.Tick();
          return m_watch.Stopped();
      }),
      m_target(m_task.target, m_publication) {}

plugin::Outcome TranscodeWork::Do() {
    const AvLog log(m_host);
    return Conclude(Transcode());
}

Problem TranscodeWork::Transcode() {
    if (Problem problem = OpenSource()) return problem;
    if (Problem problem = ChooseStreams()) return problem;
    if (Problem problem = BeginTarget()) return problem;
    if (Problem problem = MakeTracks()) return problem;
    if (Problem problem = m_target.WriteHeader()) return problem;
    if (Problem problem = MakeCut()) return problem;
    LogPlan();
    if (Problem problem = Pump()) return problem;
    LogRemarks();
    m_isEarly = m_watch.Stopped();
    if (m_watch.Cancelled()) return std::nullopt;
    if (Problem problem = FinishTracks()) return problem;
    if (m_watch.Cancelled() || m_target.EndUs() == 0) return std::nullopt;
    return Publish();
}

Problem TranscodeWork::OpenSource() {
    // A target that is the source must not be touched, whatever else is wrong with it.
    if (m_task.source == m_task.target || task::IsSameFile(m_task.source, m_task.target))
        return FailureOf(task::kErrorTargetIsSource, Detail::kNone,
                         m_task.target + ": the target is the source " + m_task.source);
    return m_source.Open(m_task.source);
}

Problem TranscodeWork::ChooseStreams() {
    const auto isAsked = [](Handling handling) {
        return handling == Handling::kCopy || handling == Handling::kEncode;
    };
    if (isAsked(m_task.video.handling) && m_source.Video() == nullptr)
        return FailureOf(task::kErrorSourceLacksStream, Detail::kNoVideoInSource,
                         m_task.source + ": the source has no video");
    if (isAsked(m_task.audio.handling) && m_source.Audio() == nullptr)
        return FailureOf(task::kErrorSourceLacksStream, Detail::kNoAudioInSource,
                         m_task.source + ": the source has no audio");
    if (m_task.video.handling == Handling::kNone) m_source.DropVideo();
    if (m_task.audio.handling == Handling::kNone) m_source.DropAudio();
    if (m_source.Video() != nullptr || m_source.Audio() != nullptr) return std::nullopt;
    if (m_task.video.handling == Handling::kNone)
        return FailureOf(task::kErrorSourceLacksStream, Detail::kNoAudioInSource,
                         m_task.source + ": the source has no audio");
    if (m_task.audio.handling == Handling::kNone)
        return FailureOf(task::kErrorSourceLacksStream, Detail::kNoVideoInSource,
                         m_task.source + ": the source has no video");
    return FailureOf(task::kErrorSourceLacksStream, Detail::kNoVideoInSource,
                     m_task.source + ": the source has neither video nor audio");
}

Problem TranscodeWork::FromPublishing(const task::PublishFailure& failure) const {
    Detail detail = Detail::kNone;
    if (failure.problem == task::PublishProblem::kCreate) detail = Detail::kTargetCreate;
    if (failure.problem == task::PublishProblem::kWrite) detail = Detail::kTargetWrite;
    if (failure.problem == task::PublishProblem::kRename) detail = Detail::kTargetCreate;
    return FailureOf(task::TaskErrorOf(failure.problem), detail, failure.words);
}

Problem TranscodeWork::BeginTarget() {
    if (auto failure = m_publication.Begin(m_task.target, {m_task.source}, m_task.overwrite))
        return FromPublishing(*failure);
    return m_target.Open(m_task.container);
}

Problem TranscodeWork::MakeTracks() {
    if (AVStream* from = m_source.Video(); from != nullptr) {
        if (m_task.video.handling == Handling::kCopy) {
            m_video = std::make_unique<CopyTrack>(m_source, *from, m_target, m_watch, m_task.ignoreDamage);
        } else {
            m_video = std::make_unique<VideoTrack>(m_source, *from, m_target, m_watch, m_task.ignoreDamage,
                                                   m_task.video);
        }
        if (Problem problem = m_video->Begin()) return problem;
    }
    if (AVStream* from = m_source.Audio(); from != nullptr) {
        if (m_task.audio.handling == Handling::kCopy) {
            m_audio = std::make_unique<CopyTrack>(m_source, *from, m_target, m_watch, m_task.ignoreDamage);
        } else {
            m_audio = std::make_unique<AudioTrack>(m_source, *from, m_target, m_watch, m_task.ignoreDamage,
                                                   m_task.audio);
        }
        if (Problem problem = m_audio->Begin()) return problem;
    }
    return std::nullopt;
}

// The progress counts at the rate that the worker makes the speed of, also without pictures. It follows the
// video, and where that has ended, the audio: until then an encoder's look ahead keeps the video this much
// behind.
void TranscodeWork::BeginProgress() {
    m_watch.Begin(m_lengthUs, m_record.Units_per_s());
    if (m_video && m_audio) m_audio->LeadBehind(kAudioLag_us);
}

bool TranscodeWork::AllDone() const {
    return (!m_video || m_video->IsDone()) && (!m_audio || m_audio->IsDone());
}

Problem TranscodeWork::Pump() {
    const Packet packet(av_packet_alloc());
    if (!packet) return FailureOf(task::kErrorProcessing, Detail::kNoMemory, "not enough memory");
    while (!AllDone() && !m_watch.Stopped()) {
        if (Problem problem = CheckJumps()) return problem;
        if (!m_read.empty()) {
            const Packet early = std::move(m_read.front());
            m_read.pop_front();
            if (Problem problem = TakePacket(early.get())) return problem;
            continue;
        }
        const int code = m_source.Read(packet.get());
        if (code == AVERROR_EXIT) return std::nullopt;
        if (code == AVERROR_EOF) {
            m_atEnd = true;
            return std::nullopt;
        }
        if (code < 0) {
            m_atEnd = true;
            if (m_task.ignoreDamage) return std::nullopt;
            return FailureOf(task::kErrorSourceDamaged, Detail::kSourceRead,
                             m_task.source + ": reading fails after " + SecondsWords(m_target.EndUs()) +
                                 ": " + AvWordsWithLog(code));
        }
        Problem problem = TakePacket(packet.get());
        av_packet_unref(packet.get());
        if (problem) return problem;
    }
    return std::nullopt;
}

Problem TranscodeWork::TakePacket(AVPacket* packet) {
    const bool isVideo = m_source.Video() != nullptr && packet->stream_index == m_source.Video()->index;
    Track* track = isVideo ? m_video.get() : m_audio.get();
    if (Problem problem = track->Give(packet)) return problem;
    m_watch.Fraction(m_source.Fraction());
    m_watch.Tick();
    return std::nullopt;
}

// In a file whose clock does not jump, such a gap is damage; filling it could fill the disk.
Problem TranscodeWork::CheckJumps() const {
    const TimeLine* jumps = m_source.Jumps();
    if (jumps == nullptr || jumps->Jumps() == 0 || m_source.MayJump() || m_task.ignoreDamage)
        return std::nullopt;
    return FailureOf(task::kErrorSourceDamaged, Detail::kSourceRead,
                     m_task.source + ": the source has nothing between " +
                         SecondsWords(jumps->JumpFromUs() - m_source.StartUs()) + " and " +
                         SecondsWords(jumps->JumpToUs() - m_source.StartUs()) +
                         "; gaps of more than 600 s are not filled");
}

void TranscodeWork::LogRemarks() const {
    if (const auto* video = dynamic_cast<const VideoTrack*>(m_video.get());
        video != nullptr && video->LeftOut() > 0 && !m_task.video.frameRate_fps)
        m_host.Log(plugin::Level::kWarning,
                   "transcode: " + m_task.source +
                       ": pictures that found no place at the target's frame rate: " +
                       std::to_string(video->LeftOut()) + "; a higher one can be given with <FrameRate_fps>");
    const TimeLine* jumps = m_source.Jumps();
    if (jumps == nullptr || jumps->Jumps() == 0) return;
    m_host.Log(plugin::Level::kWarning,
               "transcode: " + m_task.source +
                   ": the time stamps jump, times: " + std::to_string(jumps->Jumps()) +
                   ", the last time from " + SecondsWords(jumps->JumpFromUs() - m_source.StartUs()) + " to " +
                   SecondsWords(jumps->JumpToUs() - m_source.StartUs()) + "; what follows is joined on");
}

// A file that was cut off ends before the length that stands in its head.
Problem TranscodeWork::CheckEnd() const {
    if (m_source.Changed())
        return FailureOf(task::kErrorSourceChanged, Detail::kSourceRead,
                         m_task.source + ": the file changed while it was read");
    if (!m_atEnd || m_task.ignoreDamage || m_source.LengthUs() < 0) return std::nullopt;
    std::int64_t reached_us = 0;
    for (const Track* track : {m_video.get(), m_audio.get()})
        if (track != nullptr) reached_us = std::max(reached_us, track->ReachedUs());
    if (reached_us + kEarlyEnd_us >= m_lengthUs) return std::nullopt;
    const std::int64_t before_us = m_source.LengthUs() - m_lengthUs;
    const std::string line = AvLog::TakeError();
    return FailureOf(task::kErrorSourceDamaged, Detail::kSourceRead,
                     m_task.source + ": the source is cut short: it tells a length of " +
                         SecondsWords(m_source.LengthUs()) + ", but ends after " +
                         SecondsWords(before_us + reached_us) + (line.empty() ? "" : " (" + line + ")"));
}

Problem TranscodeWork::FinishTracks() {
    const bool isCut = m_task.in_us > 0 || m_task.out_us;
    for (Track* track : {m_video.get(), m_audio.get()}) {
        if (track == nullptr) continue;
        const bool mayBeEmpty = m_watch.Stopped();
        if (isCut && !mayBeEmpty && !track->HasTaken()) return NothingInCut(track->From(), "");
        // What has hardly begun when the task is ended early may have nothing to give.
        Problem problem = track->Finish();
        if (problem && !(mayBeEmpty && track->Units() == 0)) return problem;
        if (isCut && !mayBeEmpty && !m_watch.Stopped() && track->Units() == 0)
            return NothingInCut(track->From(), "");
    }
    if (Problem problem = CheckEnd()) return problem;
    if (m_target.EndUs() == 0) {
        if (m_watch.Stopped()) return std::nullopt;
        return FailureOf(task::kErrorSourceDamaged, m_video ? Detail::kNoVideoFrame : Detail::kNoAudioFrame,
                         m_task.source + ": nothing of the source can be written");
    }
    return m_target.Finish();
}

Expected TranscodeWork::ExpectedTarget() const {
    Expected expected;
    expected.container = m_task.container;
    expected.duration_us = m_target.EndUs() - m_target.ShiftUs();
    if (m_video) {
        const AVCodecParameters& to = *m_video->To()->codecpar;
        expected.video = Expected::Video{avcodec_get_name(to.codec_id), to.width, to.height,
                                         m_target.Packets(m_video->To())};
        const AVRational rate = m_video->To()->avg_frame_rate;
        if (rate.num > 0) expected.frame_us = av_rescale_q(1, av_inv_q(rate), kMicroseconds);
    }
    if (m_audio) {
        const AVCodecParameters& to = *m_audio->To()->codecpar;
        expected.audio =
            Expected::Audio{avcodec_get_name(to.codec_id), to.sample_rate, to.ch_layout.nb_channels};
    }
    return expected;
}

Problem TranscodeWork::Look(const std::string& path, task::MediaFormat& format) const {
    Source written([this] { return m_watch.Cancelled(); });
    if (Problem problem = written.Open(path)) {
        problem->errorCode = task::kErrorOutputCheck;
        return problem;
    }
    format = Describe(written, m_publication.SizeBytes());
    const Expected expected = ExpectedTarget();
    // MP4 does not tell layer 2 from layer 3, and is read as the latter.
    for (task::MediaStream& stream : format.streams)
        if (expected.container == "mp4" && expected.audio && expected.audio->codec == "mp2" &&
            stream.codec == "mp3")
            stream.codec = "mp2";
    const std::int64_t frames = written.Video() == nullptr ? 0 : written.Video()->nb_frames;
    const std::string difference = Difference(format, frames, expected);
    if (difference.empty()) return std::nullopt;
    return m_target.Fail(task::kErrorOutputCheck, Detail::kTargetWrite,
                         "the written file is not as it should be: " + difference);
}

Problem TranscodeWork::Publish() {
    task::MediaFormat format;
    Problem found;
    const auto check = [&](const std::string& path) {
        if (!m_watch.Cancelled()) found = Look(path, format);
        return !found && !m_watch.Cancelled();
    };
    // Syncing what was written may take minutes: the task can be paused meanwhile, and a stop is seen by the
    // check.
    if (auto failure = m_watch.Aside([&] { return m_publication.Publish(check); }, kPublishing_s))
        return found ? found : FromPublishing(*failure);
    m_isPublished = true;
    const std::int64_t frames = m_video ? m_target.Packets(m_video->To()) : 0;
    const std::int64_t audio_us = m_audio ? m_target.EndUs(m_audio->To()) : 0;
    m_host.Log(plugin::Level::kInformation, "transcode: " + m_task.target + ": " + std::to_string(frames) +
                                                " frames, " + SecondsWords(m_target.EndUs()) + ", " +
                                                std::to_string(format.size_bytes) + " bytes");
    m_record.Publish(Clamped(frames), Clamped(audio_us / 1000), std::move(format));
    return std::nullopt;
}

void TranscodeWork::LogPlan() const {
    const auto words = [](const Track* track) -> std::string {
        if (track == nullptr) return "none";
        if (const auto* video = dynamic_cast<const VideoTrack*>(track)) return video->Describe();
        if (const auto* audio = dynamic_cast<const AudioTrack*>(track)) return audio->Describe();
        return std::string(avcodec_get_name(track->From().codecpar->codec_id)) + " copied";
    };
    m_host.Log(plugin::Level::kInformation, "transcode: " + m_task.source + " to " + m_task.target + ": " +
                                                m_task.container + "; video " + words(m_video.get()) +
                                                "; audio " + words(m_audio.get()));
    if (m_video && m_task.video.handling == Handling::kCopy && m_task.container == "mkv" &&
        RotationDegrees(m_video->From()) != 0)
        m_host.Log(plugin::Level::kWarning,
                   "transcode: " + m_task.source + ": the pictures were taken turned by " +
                       std::to_string(RotationDegrees(m_video->From())) +
                       " degrees, and mkv does not keep that; encode them, or choose mp4");
}

plugin::Outcome TranscodeWork::Conclude(const Problem& problem) {
    // The target has its name by then, and a stop comes too late for it.
    if (m_isPublished && m_isEarly) return ConcludeEarly();
    if (m_isPublished) {
        m_watch.Complete();
        return plugin::Outcome::kFinished;
    }
    m_target.Close();
    m_publication.Discard();
    if (m_watch.Cancelled()) return plugin::Outcome::kCancelled;
    if (m_watch.Stopped() && !problem) return ConcludeEarly();
    // Reading that a stop has ended is no failure of the source.
    if (m_watch.Stopped() && !m_video && !m_audio) return ConcludeEarly();
    m_host.Log(plugin::Level::kFailure, "transcode: " + problem->words);
    m_record.SetError(static_cast<std::uint32_t>(problem->detail), problem->errorCode, problem->words,
                      problem->words);
    return plugin::Outcome::kFailed;
}

plugin::Outcome TranscodeWork::ConcludeEarly() {
    std::string text = "ended early: nothing is written";
    if (m_isPublished) text = "ended early: " + SecondsWords(m_target.EndUs()) + " written";
    if (m_isPublished && m_lengthUs > 0) text += " of " + SecondsWords(m_lengthUs);
    m_record.SetFurtherText(text);
    return plugin::Outcome::kFinished;
}

}  // namespace rq::transcode
