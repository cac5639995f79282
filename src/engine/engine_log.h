// The engine's own log: "engine.log" in the log folder, five files of 10 MiB, warnings and above at once on
// the disk and on standard error. Any thread.
#pragma once

#include <memory>
#include <string>

namespace spdlog {
class logger;
}

namespace rq::engine {

class EngineLog {
  public:
    // An empty folder: standard error only. A file that cannot be opened stops nothing.
    explicit EngineLog(const std::string& folder);
    ~EngineLog();

    void Info(const std::string& text);
    void Warn(const std::string& text);

  private:
    std::shared_ptr<spdlog::logger> m_logger;
};

}  // namespace rq::engine
