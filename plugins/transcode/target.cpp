#include "target.h"

extern "C" {
#include <libavutil/mem.h>
}

#include <algorithm>

#include "av_log.h"
#include "plugin_common/codes.h"
#include "plugin_common/file.h"

namespace rq::transcode {
namespace {

constexpr int kBuffer_bytes = 256 << 10;

}  // namespace

Failure Target::Fail(std::int32_t errorCode, Detail detail, const std::string& words) const {
    return Failure{errorCode, detail, m_path + ": " + words};
}

int Target::OnWrite(void* self, std::uint8_t* bytes, int size) {
    auto& target = *static_cast<Target*>(self);
    const std::uint32_t code = target.m_file.WriteAt(static_cast<std::uint64_t>(target.m_offsetBytes), bytes,
                                                     static_cast<std::size_t>(size));
    if (code != 0) {
        if (target.m_systemCode == 0) target.m_systemCode = code;
        return AVERROR(static_cast<int>(code));
    }
    target.m_offsetBytes += size;
    return size;
}

std::int64_t Target::OnSeek(void* self, std::int64_t offset, int whence) {
    auto& target = *static_cast<Target*>(self);
    const auto size = static_cast<std::int64_t>(target.m_file.SizeBytes());
    if ((whence & AVSEEK_SIZE) != 0) return size;
    const int from = whence & ~AVSEEK_FORCE;
    const std::int64_t place = offset + (from == SEEK_CUR   ? target.m_offsetBytes
                                         : from == SEEK_END ? size
                                                            : 0);
    if (place < 0) return AVERROR(EINVAL);
    return target.m_offsetBytes = place;
}

Problem Target::Open(const std::string& container) {
    m_container = container;
    const char* name = container == "mp4" ? "mp4" : "matroska";
    if (avformat_alloc_output_context2(&m_format, nullptr, name, nullptr) < 0)
        return Fail(task::kErrorProcessing, Detail::kMuxerMissing,
                    "this build of FFmpeg cannot write " + container + " (it has no muxer \"" + name + "\")");
    auto* buffer = static_cast<unsigned char*>(av_malloc(kBuffer_bytes));
    m_io.reset(avio_alloc_context(buffer, kBuffer_bytes, 1, this, nullptr, &OnWrite, &OnSeek));
    if (!m_io) return Fail(task::kErrorProcessing, Detail::kNoMemory, "not enough memory");
    m_format->pb = m_io.get();
    return std::nullopt;
}

bool Target::Takes(AVCodecID codec) const {
    // Matroska takes more than its list says; WriteHeader finds what it does not.
    return m_container == "mkv" || avformat_query_codec(m_format->oformat, codec, FF_COMPLIANCE_NORMAL) == 1;
}

AVStream* Target::AddStream() {
    m_written.emplace_back();
    return avformat_new_stream(m_format, nullptr);
}

Problem Target::WriteHeader() {
    const int code = avformat_write_header(m_format, nullptr);
    if (code >= 0) return Look(0);
    if (Problem problem = Look(0)) return problem;
    return Fail(task::kErrorProcessing, Detail::kUnsupportedTargetFormat,
                "the container takes these streams not: " + AvWordsWithLog(code));
}

Problem Target::Write(AVPacket* packet, AVStream* stream, AVRational base) {
    av_packet_rescale_ts(packet, base, stream->time_base);
    packet->stream_index = stream->index;
    packet->pos = -1;
    Written& written = m_written[Index(stream)];
    ++written.packets;
    if (packet->pts != AV_NOPTS_VALUE) {
        written.end_us =
            std::max(written.end_us, ToMicroseconds(packet->pts + packet->duration, stream->time_base));
        written.begin_us = std::min(written.begin_us, ToMicroseconds(packet->pts, stream->time_base));
    }
    return Look(av_interleaved_write_frame(m_format, packet));
}

Problem Target::Finish() {
    const int code = av_write_trailer(m_format);
    avio_flush(m_io.get());
    return Look(code);
}

Problem Target::Look(int code) {
    // Some writers go on after a failed write: the first one counts.
    if (m_systemCode != 0)
        return Fail(task::kErrorTargetUnwritable, Detail::kTargetWrite, task::SystemWords(m_systemCode));
    if (m_io->error < 0 && code >= 0) code = m_io->error;
    if (code >= 0) return std::nullopt;
    return Fail(task::kErrorProcessing, Detail::kTargetWrite, AvWordsWithLog(code));
}

std::int64_t Target::EndUs() const {
    std::int64_t end = 0;
    for (const Written& written : m_written) end = std::max(end, written.end_us);
    return end;
}

std::int64_t Target::ShiftUs() const {
    std::int64_t begin = 0;
    for (const Written& written : m_written) begin = std::min(begin, written.begin_us);
    return m_container == "mkv" ? begin : 0;
}

void Target::Close() {
    avformat_free_context(m_format);
    m_format = nullptr;
    m_io.reset();
    m_written.clear();
}

}  // namespace rq::transcode
