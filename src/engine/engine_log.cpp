#include "engine/engine_log.h"

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include "base/paths.h"
#include "base/text.h"

namespace rq::engine {

namespace {

constexpr std::size_t kFileSize_bytes = 10u * 1024 * 1024;
constexpr std::size_t kFiles = 5;

// Texts come from workers too: what would break a line is shown instead.
std::string OneLine(const std::string& text) {
    std::string line;
    for (const char c : RepairUtf8(text)) line += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
    return line;
}

}  // namespace

EngineLog::EngineLog(const std::string& folder) {
    auto errors = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    errors->set_level(spdlog::level::warn);
    m_logger = std::make_shared<spdlog::logger>("engine", errors);
    m_logger->set_pattern("%Y-%m-%dT%H:%M:%S.%f%z %P %L %v");
    m_logger->flush_on(spdlog::level::warn);
    if (folder.empty()) return;
    try {
        const auto file = (PathFromUtf8(folder) / "engine.log").native();
        auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(file, kFileSize_bytes, kFiles);
        sink->set_pattern("%Y-%m-%dT%H:%M:%S.%f%z %P %L %v");
        m_logger->sinks().push_back(std::move(sink));
    } catch (const spdlog::spdlog_ex& problem) {
        Warn(std::string("the log file cannot be opened: ") + problem.what());
    }
}

EngineLog::~EngineLog() {
    m_logger->flush();
}

void EngineLog::Info(const std::string& text) {
    m_logger->log(spdlog::level::info, "{}", OneLine(text));
    m_logger->flush();
}

void EngineLog::Warn(const std::string& text) {
    m_logger->log(spdlog::level::warn, "{}", OneLine(text));
}

}  // namespace rq::engine
