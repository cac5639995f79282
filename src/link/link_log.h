// The engine link's own log: connects, losses and refused frames, at its debug level also each frame's id and
// size. Any thread. A file that cannot be opened stops nothing; the lines are then dropped.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "base/sync.h"
#include "link/session.h"

namespace spdlog {
class logger;
}

namespace rq::link {

class LinkLog {
  public:
    LinkLog();
    ~LinkLog();
    LinkLog(const LinkLog&) = delete;
    LinkLog& operator=(const LinkLog&) = delete;

    // Opens (appends to) the file, making missing folders. An empty path closes.
    void Open(const std::wstring& path);
    void Close();
    void Write(LogLevel level, const std::string& text);
    // Whether debug lines are wanted (RQ_LINK_DEBUG=1 at Open).
    bool IsDebug() const { return m_debug; }

  private:
    Mutex m_lock;
    std::shared_ptr<spdlog::logger> m_logger RQ_GUARDED_BY(m_lock);
    std::atomic<bool> m_debug{false};
};

}  // namespace rq::link
