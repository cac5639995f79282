#include "source.h"

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/display.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "av_log.h"
#include "plugin_common/codes.h"

namespace rq::transcode {
namespace {

constexpr int kBuffer_bytes = 256 << 10;
// Decoding begins this much before the in point: sound needs a run-up, and what lies before is dropped.
constexpr std::int64_t kRunUp_us = 1'000'000;
// In formats without an index a seek lands anywhere, and the next picture that stands alone may be far.
constexpr std::int64_t kRunUpWithoutIndex_us = 10'000'000;
// A longer gap in all streams is a jump of the time stamps: in files that may have such jumps, and in others.
constexpr std::int64_t kLongestGap_us = 10'000'000;
constexpr std::int64_t kLongestFixedGap_us = 600'000'000;
// A picture an hour.
constexpr double kLeastRate_fps = 1.0 / 3600;
// A higher one was not found, but is that of the clock.
constexpr double kMostUnevenRate_fps = 120;
constexpr AVRational kUsualRate{25, 1};
// The last packets before a join, which seem to be cut short.
constexpr std::size_t kJoin_packets = 2;

double Value(AVRational rate) {
    return rate.den == 0 ? 0 : av_q2d(rate);
}

bool IsRate(AVRational rate) {
    return rate.num > 0 && rate.den > 0 && Value(rate) >= kLeastRate_fps && Value(rate) <= 240;
}

bool IsAbout(double value, double wanted) {
    return std::abs(value / wanted - 1) < 0.02;
}

// The exact rate that a measured one means.
AVRational Nearest(AVRational measured) {
    constexpr AVRational kRates[] = {{24000, 1001}, {24, 1},       {25, 1}, {30000, 1001}, {30, 1}, {48, 1},
                                     {50, 1},       {60000, 1001}, {60, 1}, {100, 1},      {120, 1}};
    for (const AVRational rate : kRates)
        if (std::abs(Value(measured) / Value(rate) - 1) < 0.0004) return rate;
    int number = 0;
    int below = 1;
    av_reduce(&number, &below, measured.num, measured.den, 1'000'000);
    return {number, below};
}

}  // namespace

AVRational RateOf(AVRational average, AVRational real, bool isInterlaced) {
    if (!IsRate(average)) return IsRate(real) && Value(real) <= kMostUnevenRate_fps ? real : kUsualRate;
    const double ratio = IsRate(real) ? Value(real) / Value(average) : 0;
    if (IsAbout(ratio, 1)) return real;
    // Fields were counted.
    if (isInterlaced && IsAbout(ratio, 2)) return Nearest(average);
    if (ratio > 1 && Value(real) <= kMostUnevenRate_fps) return real;
    // Times that lie on no grid: a usual one for those that come seldom, as in a show of slides.
    const bool isUneven = real.num > 0 && Value(real) > kMostUnevenRate_fps;
    return isUneven && Value(average) < Value(kUsualRate) ? kUsualRate : Nearest(average);
}

int RotationDegrees(const AVStream& video) {
    const auto* matrix = reinterpret_cast<const std::int32_t*>(
        av_stream_get_side_data(&video, AV_PKT_DATA_DISPLAYMATRIX, nullptr));
    if (matrix == nullptr) return 0;
    const double degrees = av_display_rotation_get(matrix);
    if (std::isnan(degrees)) return 0;
    return ((static_cast<int>(std::lround(-degrees / 90)) % 4 + 4) % 4) * 90;
}

Failure Source::Fail(std::int32_t errorCode, Detail detail, const std::string& words) const {
    return Failure{errorCode, detail, m_path + ": " + words};
}

int Source::OnRead(void* self, std::uint8_t* buffer, int size) {
    auto& source = *static_cast<Source*>(self);
    if (source.m_interrupted()) return AVERROR_EXIT;
    std::size_t got = 0;
    const std::uint32_t code = source.m_file.ReadAt(static_cast<std::uint64_t>(source.m_offsetBytes), buffer,
                                                    static_cast<std::size_t>(size), got);
    if (code != 0) return AVERROR(static_cast<int>(code));
    source.m_offsetBytes += static_cast<std::int64_t>(got);
    return got == 0 ? AVERROR_EOF : static_cast<int>(got);
}

std::int64_t Source::OnSeek(void* self, std::int64_t offset, int whence) {
    auto& source = *static_cast<Source*>(self);
    const auto size = static_cast<std::int64_t>(source.m_file.Size());
    if ((whence & AVSEEK_SIZE) != 0) return size;
    const int from = whence & ~AVSEEK_FORCE;
    const std::int64_t place = offset + (from == SEEK_CUR   ? source.m_offsetBytes
                                         : from == SEEK_END ? size
                                                            : 0);
    if (place < 0) return AVERROR(EINVAL);
    return source.m_offsetBytes = place;
}

int Source::OnInterrupt(void* self) {
    return static_cast<Source*>(self)->m_interrupted() ? 1 : 0;
}

Problem Source::Open(const std::string& path) {
    Close();
    m_path = path;
    if (const std::uint32_t code = m_file.Open(path); code != 0)
        return Fail(task::kErrorSourceUnreadable, Detail::kSourceOpen, task::SystemWords(code));
    if (m_file.Size() == 0) return Fail(task::kErrorSourceNotMedia, Detail::kSourceSize, "the file is empty");
    if (Problem problem = OpenFormat()) return problem;
    m_video = Best(AVMEDIA_TYPE_VIDEO);
    m_audio = Best(AVMEDIA_TYPE_AUDIO);
    for (unsigned i = 0; i < m_format->nb_streams; ++i) {
        AVStream* stream = m_format->streams[i];
        if (stream != m_video && stream != m_audio) stream->discard = AVDISCARD_ALL;
    }
    BeginTimeLine();
    return std::nullopt;
}

Problem Source::OpenFormat() {
    auto* buffer = static_cast<unsigned char*>(av_malloc(kBuffer_bytes));
    m_io.reset(avio_alloc_context(buffer, kBuffer_bytes, 0, this, &OnRead, nullptr, &OnSeek));
    m_format = avformat_alloc_context();
    if (!m_io || m_format == nullptr)
        return Fail(task::kErrorProcessing, Detail::kNoMemory, "not enough memory");
    m_format->pb = m_io.get();
    m_format->interrupt_callback = {&OnInterrupt, this};
    // Whatever a file names in its inside is not opened.
    m_format->protocol_whitelist = av_strdup("none");
    // The content decides what it is; the name would make video of a text file.
    if (const int code = avformat_open_input(&m_format, "", nullptr, nullptr); code < 0)
        return Fail(code == AVERROR_INVALIDDATA || code == AVERROR_EOF ? task::kErrorSourceNotMedia
                                                                       : task::kErrorSourceUnreadable,
                    Detail::kUnknownSourceFormat, AvWordsWithLog(code));
    if (const int code = avformat_find_stream_info(m_format, nullptr); code < 0)
        return Fail(task::kErrorSourceDamaged, Detail::kUnknownSourceFormat, AvWordsWithLog(code));
    return std::nullopt;
}

void Source::Close() {
    m_video = nullptr;
    m_audio = nullptr;
    avformat_close_input(&m_format);
    m_io.reset();
    m_offsetBytes = 0;
    m_timeLine.reset();
    m_ready.clear();
    m_waiting.clear();
    m_file.Close();
}

AVStream* Source::Best(AVMediaType kind) const {
    const int index = av_find_best_stream(m_format, kind, -1, -1, nullptr, 0);
    if (index < 0 || (m_format->streams[index]->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0)
        return nullptr;
    return m_format->streams[index];
}

void Source::Drop(AVStream*& stream) {
    if (stream != nullptr) stream->discard = AVDISCARD_ALL;
    stream = nullptr;
}
void Source::DropVideo() {
    Drop(m_video);
}
void Source::DropAudio() {
    Drop(m_audio);
}

AVRational Source::FrameRate() const {
    if (m_video == nullptr) return {0, 1};
    const AVFieldOrder order = m_video->codecpar->field_order;
    return RateOf(m_video->avg_frame_rate, m_video->r_frame_rate,
                  order != AV_FIELD_UNKNOWN && order != AV_FIELD_PROGRESSIVE);
}

std::int64_t Source::StartUs() const {
    return m_format->start_time != AV_NOPTS_VALUE ? m_format->start_time : 0;
}

std::int64_t Source::LateUs(const AVStream* stream) const {
    if (!HasTimes() || stream->start_time == AV_NOPTS_VALUE) return 0;
    return std::max<std::int64_t>(0, ToMicroseconds(stream->start_time, stream->time_base) - StartUs());
}

std::int64_t Source::LengthUs(const AVStream* stream) const {
    if (m_format->duration_estimation_method != AVFMT_DURATION_FROM_STREAM) return -1;
    if (stream->duration > 0) return LateUs(stream) + ToMicroseconds(stream->duration, stream->time_base);
    return m_format->duration > 0 ? m_format->duration : -1;
}

std::int64_t Source::LengthUs() const {
    std::int64_t longest = -1;
    for (const AVStream* stream : {m_video, m_audio})
        if (stream != nullptr) longest = std::max(longest, LengthUs(stream));
    return longest;
}

void Source::BeginTimeLine() {
    m_firstBytes = m_lastBytes = -1;
    m_ready.clear();
    m_waiting.clear();
    m_timeLine.reset();
    if (HasTimes())
        m_timeLine.emplace(m_format->nb_streams, MayJump() ? kLongestGap_us : kLongestFixedGap_us, MayJump());
}

void Source::Mend(AVPacket& packet) {
    const auto index = static_cast<std::size_t>(packet.stream_index);
    const AVRational base = m_format->streams[index]->time_base;
    const std::int64_t time = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
    const std::int64_t move_us =
        time == AV_NOPTS_VALUE
            ? m_timeLine->Move(index)
            : m_timeLine->Move(index, ToMicroseconds(time, base), ToMicroseconds(packet.duration, base));
    // No picture waits that long for those it is decoded for: its time is wrong, and is guessed by the
    // others'.
    if (packet.dts != AV_NOPTS_VALUE && packet.pts != AV_NOPTS_VALUE &&
        ToMicroseconds(packet.pts - packet.dts, base) > (MayJump() ? kLongestGap_us : kLongestFixedGap_us))
        packet.pts = AV_NOPTS_VALUE;
    const std::int64_t move = av_rescale_q(move_us, kMicroseconds, base);
    if (packet.pts != AV_NOPTS_VALUE) packet.pts += move;
    if (packet.dts != AV_NOPTS_VALUE) packet.dts += move;
}

int Source::ReadOne(Packet& packet) {
    packet.reset(av_packet_alloc());
    if (!packet) return AVERROR(ENOMEM);
    for (;;) {
        const int code = av_read_frame(m_format, packet.get());
        if (code < 0) return m_interrupted() ? AVERROR_EXIT : code;
        const AVStream* stream = m_format->streams[packet->stream_index];
        if (stream == m_video || stream == m_audio) return 0;
        av_packet_unref(packet.get());
    }
}

// Where two recordings were joined, the demultiplexer takes the last packet of the first one for cut short,
// since the counters do not go on, and may say so one packet earlier. Whether it stands there, the next
// packets of the stream tell.
void Source::Pass(Packet packet) {
    const int index = packet->stream_index;
    const auto stream = static_cast<std::size_t>(index);
    if (m_firstBytes < 0) m_firstBytes = packet->pos;
    m_lastBytes = std::max(m_lastBytes, packet->pos);
    if (!m_timeLine || !MayJump()) {
        if (m_timeLine) Mend(*packet);
        m_ready.push_back(std::move(packet));
        return;
    }
    const std::size_t before = m_timeLine->SectionOf(stream);
    Mend(*packet);
    std::deque<Packet>& waiting = m_waiting[index];
    if (m_timeLine->SectionOf(stream) != before) {
        for (const Packet& old : waiting) old->flags &= ~AV_PKT_FLAG_CORRUPT;
        PassWaiting(waiting);
    }
    const bool isCut = (packet->flags & AV_PKT_FLAG_CORRUPT) != 0;
    if (!isCut && waiting.empty()) {
        m_ready.push_back(std::move(packet));
        return;
    }
    waiting.push_back(std::move(packet));
    if (waiting.size() > kJoin_packets) PassWaiting(waiting);
}

void Source::PassWaiting(std::deque<Packet>& waiting) {
    for (Packet& packet : waiting) m_ready.push_back(std::move(packet));
    waiting.clear();
}

int Source::Read(AVPacket* packet) {
    while (m_ready.empty()) {
        Packet read;
        const int code = ReadOne(read);
        if (code >= 0) Pass(std::move(read));
        if (code >= 0) continue;
        for (auto& [stream, waiting] : m_waiting) PassWaiting(waiting);
        if (m_ready.empty()) return code;
    }
    av_packet_move_ref(packet, m_ready.front().get());
    m_ready.pop_front();
    return 0;
}

Problem Source::SeekBefore(std::int64_t time_us) {
    const std::int64_t place_us = time_us - (MayJump() ? kRunUpWithoutIndex_us : kRunUp_us);
    if (place_us <= 0 || !HasTimes()) return std::nullopt;
    const std::int64_t to = StartUs() + place_us;
    const int code = avformat_seek_file(m_format, -1, INT64_MIN, to, to, 0);
    BeginTimeLine();
    if (code >= 0) return std::nullopt;
    return Fail(task::kErrorProcessing, Detail::kInPoint,
                "the in point cannot be found: " + AvWordsWithLog(code));
}

double Source::Fraction() const {
    const auto size = static_cast<std::int64_t>(m_file.Size());
    const std::int64_t first = std::max<std::int64_t>(0, m_firstBytes);
    const std::int64_t there = m_lastBytes < 0 ? m_offsetBytes : m_lastBytes;
    return static_cast<double>(there - first) / static_cast<double>(std::max<std::int64_t>(1, size - first));
}

}  // namespace rq::transcode
