// LogFile: one log file as a sink of the logging library. It forms the lines, buffers them and appends whole
// lines in one write, so that any number of threads and processes may share a file.
//
// A line is
//   2017-05-31 10:15:30.250000 [3] [ACT] [MAIN] [812/815] Eos Called!
// that is local time to the microsecond, level, tag, module, process/thread, text; UTF-8, each ended by "\n".
//
// A file that reaches its limit is left and the lines go on in a file of the next number: "a_W.log",
// "a_W.1.log", "a_W.2.log". Nothing is renamed, so that several processes can roll the same file without
// talking to each other. The first file (it tells how the work began) and the newest continuations are kept,
// older continuations are removed.
//
// Any thread. Lines that cannot be written (full disk) are lost and nothing else happens. Whoever creates a
// LogFile keeps it for the life of the process.
#pragma once

#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/sink.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/sync.h"
#include "platform/append_file.h"

namespace rq {

struct LogLimits {
    std::uint64_t fileSize_bytes = 64ull * 1024 * 1024;
    unsigned continuations = 7;  // kept beside the first file
};

class LogFile final : public spdlog::sinks::sink {
  public:
    // Makes missing folders and opens the file. When that fails one line on standard error says so and every
    // log line given later is dropped.
    LogFile(std::string path, LogLimits limits = {});
    ~LogFile() override;

    // As the logging library calls them. A message carries its module in source.filename and its tag in
    // source.funcname; its payload must already be one readable line (log_text.h).
    void log(const spdlog::details::log_msg& message) override;
    void flush() override;
    void set_pattern(const std::string&) override {}                    // the form is fixed
    void set_formatter(std::unique_ptr<spdlog::formatter>) override {}  // likewise

    // For a crash handler, on one thread: writes what is buffered and no earlier call has written, without
    // waiting for a lock. Other threads may log and flush meanwhile; a line may then stand in the file twice.
    void CrashFlush() noexcept;
    // For a crash handler, on one thread: one line of level 5, tag "ACT", module "MAIN", written at once.
    void CrashLine(std::string_view text, std::uint32_t thread) noexcept;

    bool IsOpen() const { return m_file.load() != nullptr; }
    const std::string& Path() const { return m_path; }

  private:
    static constexpr std::size_t kBufferSize_bytes = 64 * 1024;
    // What the buffer holds, as one atomic value: `size` bytes, the first of which is number `begin` of all
    // that were ever logged here.
    struct Held {
        std::uint64_t begin : 47;
        std::uint64_t size : 17;
    };
    static_assert(std::atomic<Held>::is_always_lock_free);

    void FlushLocked() noexcept RQ_REQUIRES(m_mutex);
    std::string_view Unwritten(Held held) const noexcept;
    void AppendLocked(std::string_view lines) noexcept RQ_REQUIRES(m_mutex);
    void RollWhenFull() RQ_REQUIRES(m_mutex);
    bool OpenNumber(unsigned number) RQ_REQUIRES(m_mutex);
    std::string NumberedPath(unsigned number) const;
    unsigned HighestNumber() const;

    const std::string m_path;
    const LogLimits m_limits;
    const std::uint64_t m_processId;
    Mutex m_mutex;
    spdlog::pattern_formatter m_formatter RQ_GUARDED_BY(m_mutex);
    spdlog::memory_buf_t m_line RQ_GUARDED_BY(m_mutex);
    unsigned m_number RQ_GUARDED_BY(m_mutex) = 0;
    // The file before the one in use: a crash handler that has just read the pointer may still write to it.
    std::unique_ptr<platform::AppendFile> m_previous RQ_GUARDED_BY(m_mutex);
    // The crash handler reads these four without the lock: complete lines are there before m_held counts
    // them.
    const std::unique_ptr<char[]> m_buffer;
    std::atomic<Held> m_held{Held{0, 0}};
    std::atomic<std::uint64_t> m_writtenByCrash{0};      // of all bytes ever logged: up to this one
    std::atomic<platform::AppendFile*> m_file{nullptr};  // owned
    // And this one: asking the C library takes a lock.
    std::atomic<int> m_utcOffset_min{0};
};

}  // namespace rq
