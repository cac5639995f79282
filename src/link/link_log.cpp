#include "link/link_log.h"

#include <spdlog/details/null_mutex.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <cstdio>
#include <filesystem>
#include <system_error>

#include "base/paths.h"
#include "platform/environment.h"
#include "platform/files.h"

namespace rq::link {
namespace {

// A file by its wide path, which spdlog's own sinks do not take on every platform. LinkLog's lock guards it.
class WidePathSink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
  public:
    explicit WidePathSink(std::FILE* file) : m_file(file) {}
    ~WidePathSink() override { std::fclose(m_file); }
    WidePathSink(const WidePathSink&) = delete;
    WidePathSink& operator=(const WidePathSink&) = delete;

  protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        std::fwrite(line.data(), 1, line.size(), m_file);
    }
    void flush_() override { std::fflush(m_file); }

  private:
    std::FILE* m_file;
};

std::FILE* OpenForAppend(const std::wstring& path) {
    const std::filesystem::path native = PathFromWide(path);
    std::error_code ignored;
    std::filesystem::create_directories(native.parent_path(), ignored);
    return platform::OpenFile(Utf8FromPath(native), "ab");
}

spdlog::level::level_enum ToSpdlog(LogLevel level) {
    switch (level) {
        case LogLevel::Debug:
            return spdlog::level::debug;
        case LogLevel::Info:
            return spdlog::level::info;
        case LogLevel::Warning:
            break;
    }
    return spdlog::level::warn;
}

}  // namespace

LinkLog::LinkLog() = default;
LinkLog::~LinkLog() = default;

void LinkLog::Open(const std::wstring& path) {
    Close();
    std::FILE* file = path.empty() ? nullptr : OpenForAppend(path);
    if (file == nullptr) return;
    const bool debug = platform::GetEnvironment("RQ_LINK_DEBUG").value_or("") == "1";
    auto logger = std::make_shared<spdlog::logger>("link", std::make_shared<WidePathSink>(file));
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%f %l %v");
    logger->set_level(debug ? spdlog::level::debug : spdlog::level::info);
    logger->flush_on(spdlog::level::info);
    MutexLock lock(m_lock);
    m_logger = std::move(logger);
    m_debug = debug;
}

void LinkLog::Close() {
    MutexLock lock(m_lock);
    m_logger.reset();
    m_debug = false;
}

void LinkLog::Write(LogLevel level, const std::string& text) {
    MutexLock lock(m_lock);
    if (m_logger) m_logger->log(ToSpdlog(level), spdlog::string_view_t(text.data(), text.size()));
}

}  // namespace rq::link
