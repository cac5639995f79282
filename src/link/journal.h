// The link's journal: every frame of a worker's connections with its time, for "rqctl replay"
// (docs/link-journal.md gives the format). The bytes are cut into frames here, apart from the session, so
// that what the session refuses is seen too.
//
// One thread at a time (the I/O thread, once it runs). A journal that cannot be opened or written stops
// nothing.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "link/frame.h"
#include "platform/append_file.h"

namespace rq::link {

// A file that has grown to this size is full: a line says so, and nothing more is written to it.
inline constexpr std::uint64_t kJournalLimit_bytes = std::uint64_t{512} * 1024 * 1024;

class LinkJournal {
  public:
    // Microseconds since 1970, UTC; for tests.
    using Clock = std::function<std::int64_t()>;
    explicit LinkJournal(Clock clock = {}, std::uint64_t limit_bytes = kJournalLimit_bytes);

    // Continues the file, or makes it for its owner alone; "%p" in the path becomes the process ID. Why not,
    // or empty. A file that is full is not continued, nor one that is no plain file (a pipe might wait for a
    // reader for ever). `onProblem` is told once why nothing more is written.
    std::string Open(const std::string& path, std::function<void(const std::string&)> onProblem = {});
    bool IsOpen() const { return m_file != nullptr; }

    void Connected(const std::string& workerVersion);
    void Sent(std::string_view bytes);
    void Received(std::string_view bytes);
    void Closed(const std::string& reason);
    // Of a session that is to be resumed, between two connections: the loss, an attempt that failed.
    void Interrupted(std::uint32_t sessionId, std::size_t kept, std::chrono::milliseconds window);
    void Failed(std::size_t attempt, const std::string& reason);
    void Resumed(std::uint32_t sessionId, std::size_t again, std::chrono::milliseconds away);

  private:
    struct Direction {
        const char* way;
        FrameReader reader;
        bool isBad = false;
    };

    void Feed(Direction& direction, std::string_view bytes);
    void WriteFrame(const char* way, const Frame& frame);
    void WriteEvent(const std::string& event, const std::string& more);
    void WriteLine(const std::string& rest);
    void Append(const std::string& line);
    std::string LineOf(const std::string& rest) const;

    const Clock m_clock;
    const std::uint64_t m_limit_bytes;
    std::unique_ptr<platform::AppendFile> m_file;
    std::string m_name;
    std::function<void(const std::string&)> m_onProblem;
    Direction m_out{"out", FrameReader()};
    Direction m_in{"in", FrameReader()};
    bool m_isConnected = false;
};

}  // namespace rq::link
