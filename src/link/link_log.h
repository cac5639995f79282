// The engine link's own log: connects, losses and refused frames, at its debug level also each frame's id and
// size. A file like the worker's (log/log_file.h: shared by any number of processes, rolled when full; log/
// log_text.h: one readable line whatever a peer sent), with the tag and module "LINK" and the levels 1
// debug, 2 information, 3 warning. Every line is written at once. Any thread. A file that cannot be opened
// stops nothing: one line on standard error says so and the log's lines are dropped.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "base/sync.h"
#include "link/session.h"

namespace rq {
class LogFile;
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
    // Throws nothing; a line for which there is no memory is lost.
    void Write(LogLevel level, const std::string& text) noexcept;
    // Whether debug lines are wanted (RQ_LINK_DEBUG=1 at Open).
    bool IsDebug() const { return m_debug; }

  private:
    Mutex m_lock;
    std::unique_ptr<LogFile> m_file RQ_GUARDED_BY(m_lock);
    std::atomic<bool> m_debug{false};
};

}  // namespace rq::link
