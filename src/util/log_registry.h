// Which log file a tag means. Looking a tag up takes no lock: registering is rare and leaves a new table. Any
// thread; the one registry lives until the process has ended.
#pragma once

#include <spdlog/logger.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/sync.h"
#include "log/log_file.h"

namespace rq {

class LogRegistry {
  public:
    static LogRegistry& Instance();

    // Lines under this tag go to this file from now on. The file of the first tag ever registered is also the
    // one for all tags that are not registered. The same path given twice is one file.
    void Register(const std::string& tag, const std::string& path) RQ_EXCLUDES(m_mutex);

    // Null before the first registration.
    spdlog::logger* Find(std::string_view tag) const;

    void Flush() RQ_EXCLUDES(m_mutex);
    // For a crash handler: no lock is waited for.
    void CrashFlush() noexcept;
    void CrashLine(std::string_view text, std::uint32_t thread) noexcept;

  private:
    struct Entry {
        std::string tag;
        spdlog::logger* logger;
    };
    using Table = std::vector<Entry>;  // in the order of their first registration

    struct OpenFile {
        std::shared_ptr<LogFile> file;
        std::shared_ptr<spdlog::logger> logger;
    };

    LogRegistry() = default;
    spdlog::logger* OpenLogger(const std::string& path) RQ_REQUIRES(m_mutex);

    static constexpr std::size_t kCrashFiles = 16;

    mutable Mutex m_mutex;
    std::vector<OpenFile> m_files RQ_GUARDED_BY(m_mutex);  // never closed
    std::vector<std::unique_ptr<const Table>> m_tables
        RQ_GUARDED_BY(m_mutex);  // a reader may still hold an old one
    std::atomic<const Table*> m_table{nullptr};
    std::atomic<LogFile*> m_crashFiles[kCrashFiles] = {};
};

}  // namespace rq
