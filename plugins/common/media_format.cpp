#include "plugin_common/media_format.h"

namespace rq::task {
namespace {

RQText Borrow(const std::string& text) {
    return {text.data(), text.size()};
}

RQMediaStream ViewOf(const MediaStream& from) {
    RQMediaStream to{};
    to.size = sizeof to;
    to.kind = from.kind;
    to.codec = Borrow(from.codec);
    to.width_px = from.width_px;
    to.height_px = from.height_px;
    to.frameRateNumerator = from.frameRateNumerator;
    to.frameRateDenominator = from.frameRateDenominator;
    to.sampleRate_Hz = from.sampleRate_Hz;
    to.channels = from.channels;
    to.bitRate_bps = from.bitRate_bps;
    to.duration_us = from.duration_us;
    return to;
}

}  // namespace

MediaFormatView::MediaFormatView(MediaFormat format) : m_format(std::move(format)) {
    for (const MediaStream& stream : m_format.streams) m_streams.push_back(ViewOf(stream));
    for (const RQMediaStream& stream : m_streams) m_pointers.push_back(&stream);
    m_raw.size = sizeof m_raw;
    m_raw.streamCount = static_cast<std::uint32_t>(m_pointers.size());
    m_raw.streams = m_pointers.data();
    m_raw.container = Borrow(m_format.container);
    m_raw.duration_us = m_format.duration_us;
    m_raw.size_bytes = m_format.size_bytes;
    m_raw.bitRate_bps = m_format.bitRate_bps;
}

}  // namespace rq::task
