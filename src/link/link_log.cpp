#include "link/link_log.h"

#include "base/text.h"
#include "log/log_file.h"
#include "log/log_text.h"
#include "platform/environment.h"

namespace rq::link {
namespace {

constexpr const char* kLinkTag = "LINK";

// The library's debug, info and warn are the levels 1 to 3 of a line.
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
    if (path.empty()) return;
    auto file = std::make_unique<LogFile>(NarrowUtf8(path));
    MutexLock lock(m_lock);
    m_file = std::move(file);
    m_debug = platform::GetEnvironment("RQ_LINK_DEBUG").value_or("") == "1";
}

void LinkLog::Close() {
    MutexLock lock(m_lock);
    m_file.reset();
    m_debug = false;
}

void LinkLog::Write(LogLevel level, const std::string& text) noexcept try {
    if (level == LogLevel::Debug && !m_debug) return;
    const std::string readable = MakeLogText(text);
    MutexLock lock(m_lock);
    if (!m_file) return;
    const spdlog::source_loc place{kLinkTag, 1, kLinkTag};
    m_file->log(spdlog::details::log_msg(place, "link", ToSpdlog(level), readable));
    m_file->flush();
} catch (...) {
}

}  // namespace rq::link
