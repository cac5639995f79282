// KWOVL::tagAVFormat: the description of a media file that RQAVFormatToXmlString turns into XML. Texts are
// UTF-8.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace KWOVL {

struct tagAVStream {
    std::uint32_t kind = 0;  // 1 video, 2 audio, 0 other
    std::string codec;
    std::uint32_t width_px = 0;
    std::uint32_t height_px = 0;
    std::uint32_t frameRateNumerator = 0;
    std::uint32_t frameRateDenominator = 0;
    std::uint32_t sampleRate_Hz = 0;
    std::uint32_t channels = 0;
    std::uint64_t bitRate_bps = 0;
    std::int64_t duration_us = 0;
};

struct tagAVFormat {
    std::string container;
    std::int64_t duration_us = 0;
    std::uint64_t size_bytes = 0;
    std::uint64_t bitRate_bps = 0;
    std::vector<tagAVStream> streams;
};

}  // namespace KWOVL
