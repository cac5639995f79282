// Does one MD5 task: reads each file once, from beginning to end, and publishes its digest. A file that fails
// does not keep the others from being done. Lives as long as one perform call, on its thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "md5_record.h"
#include "plugin_common/digest.h"
#include "plugin_common/file.h"

namespace rq::md5 {

constexpr std::size_t kBuffer_bytes = 1u << 20;
// The progress callback is called when either has gone by since the last call; the stop flag is read with
// each buffer.
constexpr std::int64_t kReport_bytes = 8 << 20;
constexpr std::chrono::milliseconds kReport_ms{50};
// How long one look at a file's size may take before the task counts as stalled.
constexpr std::int64_t kMeasuring_s = 60;
// Longer lists of failed files are cut.
constexpr std::size_t kMaxFurtherText_bytes = 64u << 10;

class Md5Work {
  public:
    Md5Work(Md5Record& record, plugin::Run& run, const plugin::Host& host);
    plugin::Outcome Do();

  private:
    struct Failure {
        std::uint32_t systemCode = 0;
        std::int32_t errorCode = 0;
        std::string words;
    };
    // How reading one file ended; `failure` and `digest` both empty when the stop flag ended it.
    struct Reading {
        std::optional<task::Md5Digest> digest;
        std::optional<Failure> failure;
    };

    void MeasureFiles();
    Reading ReadFile(const TaskFile& file, std::int64_t planned_bytes);
    Reading ReadOpened(task::InputFile& input, std::int64_t planned_bytes);
    void Compare(const TaskFile& file, Reading& reading) const;
    void NoteFailure(const TaskFile& file, const Failure& failure);
    void ReportNow(std::int64_t done_bytes);
    void ReportSometimes(std::int64_t done_bytes);
    plugin::Outcome Conclude();
    plugin::Outcome ConcludeEarly();

    Md5Record& m_record;
    plugin::Run& m_run;
    const plugin::Host& m_host;
    task::Md5 m_md5;
    std::unique_ptr<unsigned char[]> m_buffer;

    std::vector<std::int64_t>
        m_plannedBytes;  // sizes at the start; progress counts in these, whatever the files do later
    std::int64_t m_totalBytes = 0;
    std::int64_t m_baseBytes = 0;  // of the files that are done with
    std::int64_t m_reportedBytes = 0;
    std::chrono::steady_clock::time_point m_reportedAt;

    std::optional<Failure> m_firstFailure;
    std::string m_firstFailureText;
    std::string m_furtherText;
    std::size_t m_failureCount = 0;
    std::size_t m_unlisted = 0;  // failures that m_furtherText has no room for
};

}  // namespace rq::md5
