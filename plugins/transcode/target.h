// The output while it is written: a muxer over a publication's temporary file. Streams are added, the header
// is written, packets come in any order between the streams and are interleaved by their times, the trailer
// ends it. One thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "av.h"
#include "failure.h"
#include "plugin_common/publish.h"

namespace rq::transcode {

class Target {
  public:
    Target(std::string path, task::Publication& file) : m_path(std::move(path)), m_file(file) {}
    ~Target() { Close(); }
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    // "mp4" or "mkv".
    Problem Open(const std::string& container);
    bool WantsGlobalHeader() const { return (m_format->oformat->flags & AVFMT_GLOBALHEADER) != 0; }
    // Whether the container can hold the codec.
    bool Takes(AVCodecID codec) const;
    // Null when there is no memory.
    AVStream* AddStream();
    Problem WriteHeader();
    // Takes the packet, whose times are in `base`.
    Problem Write(AVPacket* packet, AVStream* stream, AVRational base);
    // Trailer and what is still in buffers.
    Problem Finish();
    void Close();

    // What has been written of a stream: packets, and the end of the last one in the target's time (0 without
    // any).
    std::int64_t Packets(const AVStream* stream) const { return m_written[Index(stream)].packets; }
    std::int64_t EndUs(const AVStream* stream) const { return m_written[Index(stream)].end_us; }
    std::int64_t EndUs() const;
    // What begins before the target does (an encoder's run-in, leading pictures): Matroska moves everything
    // by that. 0 or less.
    std::int64_t ShiftUs() const;

    const std::string& Path() const { return m_path; }
    const std::string& Container() const { return m_container; }
    Failure Fail(std::int32_t errorCode, Detail detail, const std::string& words) const;

  private:
    struct Written {
        std::int64_t packets = 0;
        std::int64_t end_us = 0;
        std::int64_t begin_us = 0;  // 0 or less
    };
    static int OnWrite(void* self, std::uint8_t* bytes, int size);
    static std::int64_t OnSeek(void* self, std::int64_t offset, int whence);
    static std::size_t Index(const AVStream* stream) { return static_cast<std::size_t>(stream->index); }
    // The problem of a write that did not go well; none when it did.
    Problem Look(int code);

    std::string m_path;
    std::string m_container;
    task::Publication& m_file;
    std::int64_t m_offsetBytes = 0;
    std::uint32_t m_systemCode = 0;  // of the first write that failed
    Io m_io;
    AVFormatContext* m_format = nullptr;
    std::vector<Written> m_written;
};

}  // namespace rq::transcode
