// The description of a media file, as the plug-ins build it, over the contract's RQMediaFormat. Texts are
// UTF-8. A value while it is built; Raw() gives the contract's view of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "rqworker/plugin.h"

namespace rq::task {

struct MediaStream {
    std::uint32_t kind = RQ_STREAM_OTHER;
    std::string codec;
    std::uint32_t width_px = 0;
    std::uint32_t height_px = 0;
    std::uint32_t frameRateNumerator = 0;
    std::uint32_t frameRateDenominator = 0;
    std::uint32_t sampleRate_Hz = 0;
    std::uint32_t channels = 0;
    std::uint64_t bitRate_bps = 0;
    std::int64_t duration_us = -1;
};

struct MediaFormat {
    std::string container;
    std::int64_t duration_us = -1;
    std::uint64_t size_bytes = 0;
    std::uint64_t bitRate_bps = 0;
    std::vector<MediaStream> streams;
};

// Holds a description and the contract's view of it, which borrows from it: neither moves nor changes.
class MediaFormatView {
  public:
    explicit MediaFormatView(MediaFormat format);
    MediaFormatView(const MediaFormatView&) = delete;
    MediaFormatView& operator=(const MediaFormatView&) = delete;

    const MediaFormat& Format() const { return m_format; }
    const RQMediaFormat* Raw() const { return &m_raw; }

  private:
    MediaFormat m_format;
    std::vector<RQMediaStream> m_streams;
    std::vector<const RQMediaStream*> m_pointers;
    RQMediaFormat m_raw{};
};

}  // namespace rq::task
