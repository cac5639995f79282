#include "md5_work.h"

#include <algorithm>

#include "plugin_common/codes.h"

namespace rq::md5 {
namespace {

constexpr task::Md5Digest kPlaceholder{};

std::string Hex(const task::Md5Digest& digest) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : digest) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

}  // namespace

Md5Work::Md5Work(Md5Record& record, plugin::Run& run, const plugin::Host& host)
    : m_record(record), m_run(run), m_host(host), m_buffer(new unsigned char[kBuffer_bytes]) {}

plugin::Outcome Md5Work::Do() {
    MeasureFiles();
    ReportNow(0);
    const Md5Task& task = m_record.Task();
    for (std::size_t i = 0; i < task.files.size() && m_run.Stop() == RQ_STOP_NONE; ++i) {
        Reading reading = ReadFile(task.files[i], m_plannedBytes[i]);
        if (!reading.digest && !reading.failure) break;
        Compare(task.files[i], reading);
        if (reading.failure) NoteFailure(task.files[i], *reading.failure);
        m_record.Publish(reading.digest ? &*reading.digest : nullptr,
                         reading.failure ? reading.failure->words : "");
        m_baseBytes += m_plannedBytes[i];
        ReportSometimes(m_baseBytes);
    }
    return m_run.Stop() == RQ_STOP_NONE ? Conclude() : ConcludeEarly();
}

void Md5Work::MeasureFiles() {
    const std::vector<TaskFile>& files = m_record.Task().files;
    m_plannedBytes.resize(files.size());
    m_reportedAt = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < files.size() && m_run.Stop() == RQ_STOP_NONE; ++i) {
        m_plannedBytes[i] = static_cast<std::int64_t>(task::PlainFileSize(files[i].path));
        m_totalBytes += m_plannedBytes[i];
        // Many files on a slow share take their time, and the total is not known before the last.
        if (std::chrono::steady_clock::now() - m_reportedAt < kReport_ms) continue;
        m_run.QuietFor(kMeasuring_s);
        m_reportedAt = std::chrono::steady_clock::now();
    }
}

Md5Work::Reading Md5Work::ReadFile(const TaskFile& file, std::int64_t planned_bytes) {
    task::InputFile input;
    if (const std::uint32_t code = input.Open(file.path); code != 0)
        return {std::nullopt, Failure{code, task::kErrorSourceUnreadable, task::SystemWords(code)}};
    if (!m_md5.Start())
        return {std::nullopt, Failure{0, task::kErrorNoDigest, "MD5 is not available on this system"}};
    return ReadOpened(input, planned_bytes);
}

Md5Work::Reading Md5Work::ReadOpened(task::InputFile& input, std::int64_t planned_bytes) {
    const Failure changed{0, task::kErrorSourceChanged, "the file changed while it was read"};
    std::uint64_t read_bytes = 0;
    for (std::size_t got = kBuffer_bytes; got == kBuffer_bytes;) {
        if (m_run.Stop() != RQ_STOP_NONE) return {};
        if (const std::uint32_t code = input.Read(m_buffer.get(), kBuffer_bytes, got); code != 0)
            return {std::nullopt, Failure{code, task::kErrorSourceUnreadable, task::SystemWords(code)}};
        read_bytes += got;
        // A file that grows as fast as it is read would never end.
        if (read_bytes > input.Size()) return {std::nullopt, changed};
        if (!m_md5.Add(m_buffer.get(), got))
            return {std::nullopt, Failure{0, task::kErrorNoDigest, "computing the MD5 failed"}};
        ReportSometimes(m_baseBytes + std::min(planned_bytes, static_cast<std::int64_t>(read_bytes)));
    }
    if (read_bytes != input.Size() || input.Changed()) return {std::nullopt, changed};
    task::Md5Digest digest{};
    if (!m_md5.Finish(digest))
        return {std::nullopt, Failure{0, task::kErrorNoDigest, "computing the MD5 failed"}};
    return {digest, std::nullopt};
}

void Md5Work::Compare(const TaskFile& file, Reading& reading) const {
    // An expected digest of zeros only stands for "not known": computed, but not compared.
    if (!reading.digest || !file.expected || *file.expected == kPlaceholder) return;
    if (*reading.digest != *file.expected)
        reading.failure = Failure{0, task::kErrorMd5Differs,
                                  "the MD5 is " + Hex(*reading.digest) + ", not " + Hex(*file.expected)};
}

void Md5Work::NoteFailure(const TaskFile& file, const Failure& failure) {
    const std::string text = file.path + ": " + failure.words;
    m_host.Log(plugin::Level::kFailure, "md5: " + text);
    if (m_failureCount++ == 0) {
        m_firstFailure = failure;
        m_firstFailureText = text;
    }
    if (m_furtherText.size() + text.size() + 1 > kMaxFurtherText_bytes) {
        ++m_unlisted;
    } else {
        m_furtherText += m_furtherText.empty() ? text : "\n" + text;
    }
}

void Md5Work::ReportNow(std::int64_t done_bytes) {
    m_reportedBytes = done_bytes;
    m_run.Progress(m_totalBytes, done_bytes);
    m_reportedAt = std::chrono::steady_clock::now();
}

void Md5Work::ReportSometimes(std::int64_t done_bytes) {
    if (done_bytes - m_reportedBytes >= kReport_bytes ||
        std::chrono::steady_clock::now() - m_reportedAt >= kReport_ms)
        ReportNow(done_bytes);
}

plugin::Outcome Md5Work::Conclude() {
    ReportNow(std::max<std::int64_t>(m_totalBytes, 1));  // empty files only: 1 of 1
    // The last report may have been held by a pause that a stop ended.
    if (m_run.Stop() != RQ_STOP_NONE) return ConcludeEarly();
    if (!m_firstFailure) return plugin::Outcome::kFinished;
    if (m_unlisted != 0) m_furtherText += "\nand " + std::to_string(m_unlisted) + " more";
    m_record.SetError(m_firstFailure->systemCode, m_firstFailure->errorCode, m_firstFailureText,
                      m_furtherText);
    return plugin::Outcome::kFailed;
}

plugin::Outcome Md5Work::ConcludeEarly() {
    if (m_run.Stop() != RQ_STOP_FINISH) return plugin::Outcome::kCancelled;
    std::string text = "ended early: " + std::to_string(m_record.PublishedCount()) + " of " +
                       std::to_string(m_record.Task().files.size()) + " files done";
    if (m_unlisted != 0) m_furtherText += "\nand " + std::to_string(m_unlisted) + " more";
    m_record.SetFurtherText(m_furtherText.empty() ? text : text + "\n" + m_furtherText);
    return plugin::Outcome::kFinished;
}

}  // namespace rq::md5
