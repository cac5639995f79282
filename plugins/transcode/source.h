// One media source: opened through this plug-in's own reading, so that only plain files are read, playlists
// cannot pull in others, and a stop ends it at the next read. The thread that made it.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "av.h"
#include "failure.h"
#include "plugin_common/file.h"
#include "time_line.h"

namespace rq::transcode {

// The frame rate that FFmpeg's two findings mean: `average`, and `real`, the lowest at which every time stamp
// that was seen has a place. Either may be 0/0.
AVRational RateOf(AVRational average, AVRational real, bool isInterlaced);
// Clockwise, of pictures that were taken with the camera turned; 0, 90, 180 or 270.
int RotationDegrees(const AVStream& video);

class Source {
  public:
    // `interrupted` is asked with every read; when it says true, reading ends with AVERROR_EXIT.
    using Interrupted = std::function<bool()>;
    explicit Source(Interrupted interrupted) : m_interrupted(std::move(interrupted)) {}
    ~Source() { Close(); }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    Problem Open(const std::string& path);
    void Close();

    AVFormatContext* Format() const { return m_format; }
    // The streams that are worked on: the best of each kind; null when there is none. Pictures that accompany
    // music are no video.
    AVStream* Video() const { return m_video; }
    AVStream* Audio() const { return m_audio; }
    // What the demuxer need not deliver.
    void DropVideo();
    void DropAudio();

    // Frames per second of the video, 0/1 without: of even ones theirs, of uneven ones the rate that has a
    // place for every picture.
    AVRational FrameRate() const;
    // Whether the packets tell their times. Bare streams have none: their frames only follow each other. Of
    // pictures that come seldom a container's beginning may not be known, but its length is.
    bool HasTimes() const {
        return m_format->start_time != AV_NOPTS_VALUE ||
               m_format->duration_estimation_method == AVFMT_DURATION_FROM_STREAM;
    }
    // Time of the beginning on the source's own time line.
    std::int64_t StartUs() const;
    // How much later than the file the stream begins.
    std::int64_t LateUs(const AVStream* stream) const;
    // End of the stream, or of the file when the stream tells none, since the beginning; -1 when only guessed
    // (from bit rate or last time stamps) or not known.
    std::int64_t LengthUs(const AVStream* stream) const;
    // The longest of the streams that are worked on, -1 when not known.
    std::int64_t LengthUs() const;

    // The next packet of those streams. AVERROR_EOF at the end, AVERROR_EXIT when interrupted. Where the time
    // stamps jump, what follows is moved to the end of what came before.
    int Read(AVPacket* packet);
    // The jumps that were met since the beginning or the last SeekBefore; null when the packets tell no
    // times.
    const TimeLine* Jumps() const { return m_timeLine ? &*m_timeLine : nullptr; }
    // Whether jumps belong to this kind of file, as to transport streams. In others one is damage.
    bool MayJump() const { return (m_format->iformat->flags & AVFMT_TS_DISCONT) != 0; }
    // So that the next packets begin at a place that lets the streams be decoded from `time_us` (since the
    // beginning) on.
    Problem SeekBefore(std::int64_t time_us);
    // How much of the file, from the place of the last SeekBefore on, the packets read so far are; 0 to 1.
    double Fraction() const;
    bool Changed() const { return m_file.Changed(); }
    const std::string& Path() const { return m_path; }

  private:
    static int OnRead(void* self, std::uint8_t* buffer, int size);
    static std::int64_t OnSeek(void* self, std::int64_t offset, int whence);
    static int OnInterrupt(void* self);
    Problem OpenFormat();
    AVStream* Best(AVMediaType kind) const;
    void Drop(AVStream*& stream);
    void BeginTimeLine();
    void Mend(AVPacket& packet);
    int ReadOne(Packet& packet);
    // A packet from the file on its way to the one who reads.
    void Pass(Packet packet);
    void PassWaiting(std::deque<Packet>& waiting);
    Failure Fail(std::int32_t errorCode, Detail detail, const std::string& words) const;

    Interrupted m_interrupted;
    std::string m_path;
    task::InputFile m_file;
    std::int64_t m_offsetBytes = 0;
    std::int64_t m_firstBytes = -1;  // place of the first packet, -1 when there is none or it does not tell
    std::int64_t m_lastBytes = -1;   // of the farthest
    std::optional<TimeLine> m_timeLine;
    std::deque<Packet> m_ready;
    std::map<int, std::deque<Packet>> m_waiting;  // by stream: the last ones, when they may be cut short
    Io m_io;
    AVFormatContext* m_format = nullptr;
    AVStream* m_video = nullptr;
    AVStream* m_audio = nullptr;
};

}  // namespace rq::transcode
