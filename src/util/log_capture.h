// LogCapture: a test's view of the log. While one is alive it receives every line that any thread gives to
// OVLWriteLog or rq::Log, whether or not a log file is registered; the lines still go where they would go
// without it. Several may be alive at once and each gets every line. Production code pays one relaxed atomic
// read a line.
//
// Any thread may log while it lives; the capture's own functions are called by the thread that owns it.
// Nothing is delivered after the destructor has returned.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace rq {

struct LogLine {
    std::string tag;     // as given by the caller; empty for the untagged form
    int level = 0;       // 1 to 5
    std::string text;    // UTF-8, before anything is escaped for the file
    std::string module;  // UTF-8

    bool operator==(const LogLine&) const = default;
};

class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Everything so far, in the order in which the lines came.
    std::vector<LogLine> Lines() const;
    std::vector<std::string> Texts() const;
    // How many lines have exactly this text; with a level: exactly this level too.
    std::size_t Count(std::string_view text) const;
    std::size_t Count(int level, std::string_view text) const;
    // A line whose text contains `part` is there.
    bool Contains(std::string_view part) const;
    void Clear();

    // Waits until a line is there whose text contains `part` (or that satisfies `wanted`), lines already
    // there included. False when the time ran out; the time is a bound for a failing test only.
    bool WaitForText(std::string_view part, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    bool WaitFor(const std::function<bool(const LogLine&)>& wanted,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10));

  private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace rq
