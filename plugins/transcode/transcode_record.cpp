#include "transcode_record.h"

namespace rq::transcode {

TranscodeRecord::TranscodeRecord(TranscodeTask task, const SourceFacts& facts)
    : TaskRecord(RQ_TYPE_TRANSCODE, task.id), m_task(std::move(task)), m_sources{&m_source} {
    m_source.size = sizeof m_source;
    m_source.hasVideo = facts.hasVideo ? 1 : 0;
    m_source.frameRateNumerator = static_cast<std::uint32_t>(facts.frameRate_fps.numerator);
    m_source.frameRateDenominator = static_cast<std::uint32_t>(facts.frameRate_fps.denominator);
    m_data.size = sizeof m_data;
    m_data.sourceCount = 1;
    m_data.sources = m_sources;
    m_data.verifications = m_verifications.Raw();
    m_data.outputs = m_outputs.Raw();
    SetTypeData(&m_data);
}

void TranscodeRecord::Publish(std::uint32_t frames, std::uint32_t audio_ms, task::MediaFormat format) {
    if (m_format) return;
    m_format = std::make_unique<task::MediaFormatView>(std::move(format));
    RQVerification verification{};  // no digests: nothing is compared
    verification.first = plugin::Borrow(m_task.source);
    verification.second = plugin::Borrow(m_task.target);
    m_verifications.Publish(verification);
    RQTranscodeOutput output{};
    output.frames = frames;
    output.audio_ms = audio_ms;
    output.size_bytes = m_format->Format().size_bytes;
    output.first = plugin::Borrow(m_task.target);
    output.second = plugin::Borrow(m_task.container);
    output.format = m_format->Raw();
    m_outputs.Publish(output);
}

}  // namespace rq::transcode
