#include "util/log_registry.h"

#include <spdlog/spdlog.h>

#include <chrono>
#include <cstdlib>

#include "util/utility.h"

namespace rq {
namespace {

// Buffered lines reach the file within this time.
constexpr std::chrono::seconds kFlushInterval{1};
// ...and at once from this level on (3).
constexpr spdlog::level::level_enum kFlushLevel = spdlog::level::warn;

void FlushAtExit() {
    KWOVL_UTILITY::OVLFlushLog();
}

}  // namespace

LogRegistry& LogRegistry::Instance() {
    static auto* registry = new LogRegistry();  // threads may log until the process has ended
    return *registry;
}

void LogRegistry::Register(const std::string& tag, const std::string& path) {
    MutexLock lock(m_mutex);
    spdlog::logger* logger = OpenLogger(path);
    const Table* old = m_table.load();
    auto table = std::make_unique<Table>(old == nullptr ? Table{} : *old);
    bool known = false;
    for (Entry& entry : *table) {
        if (entry.tag != tag) continue;
        entry.logger->flush();
        entry.logger = logger;
        known = true;
    }
    if (!known) table->push_back({tag, logger});
    m_table.store(table.get());
    m_tables.push_back(std::move(table));
}

spdlog::logger* LogRegistry::OpenLogger(const std::string& path) {
    for (const OpenFile& open : m_files) {
        if (open.file->Path() == path) return open.logger.get();
    }
    if (m_files.empty()) {
        spdlog::flush_every(kFlushInterval);
        std::atexit(FlushAtExit);
    }
    auto file = std::make_shared<LogFile>(path);
    auto logger = std::make_shared<spdlog::logger>("log" + std::to_string(m_files.size()), file);
    logger->set_level(spdlog::level::trace);
    logger->flush_on(kFlushLevel);
    logger->set_error_handler([](const std::string&) {});  // a failed log call must not reach the console
    spdlog::register_logger(logger);                       // flush_every reaches the loggers known here
    if (m_files.size() < kCrashFiles) m_crashFiles[m_files.size()].store(file.get());
    m_files.push_back({file, logger});
    return logger.get();
}

spdlog::logger* LogRegistry::Find(std::string_view tag) const {
    const Table* table = m_table.load(std::memory_order_acquire);
    if (table == nullptr) return nullptr;
    for (const Entry& entry : *table) {
        if (entry.tag == tag) return entry.logger;
    }
    return table->front().logger;
}

void LogRegistry::Flush() {
    MutexLock lock(m_mutex);
    for (const OpenFile& open : m_files) open.file->flush();
}

void LogRegistry::CrashFlush() noexcept {
    for (std::atomic<LogFile*>& slot : m_crashFiles) {
        if (LogFile* file = slot.load()) file->CrashFlush();
    }
}

// The first file is that of unregistered tags too.
void LogRegistry::CrashLine(std::string_view text, std::uint32_t thread) noexcept {
    if (LogFile* file = m_crashFiles[0].load()) file->CrashLine(text, thread);
}

}  // namespace rq
