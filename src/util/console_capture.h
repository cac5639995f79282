// ConsoleCapture: a test's view of the console. While one is alive it receives the UTF-8 text of every
// ConsoleWrite, and nothing of it reaches standard output. Of several alive at once each gets all. Production
// code pays one relaxed atomic read a call.
//
// Any thread may write while it lives; the capture's own functions are called by the thread that owns it.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace rq {

class ConsoleCapture {
  public:
    ConsoleCapture();
    ~ConsoleCapture();
    ConsoleCapture(const ConsoleCapture&) = delete;
    ConsoleCapture& operator=(const ConsoleCapture&) = delete;

    // Everything so far, the calls' texts one after the other.
    std::string Text() const;
    bool Contains(std::string_view part) const;
    // How often `part` occurs, not overlapping.
    std::size_t Count(std::string_view part) const;
    void Clear();

    // Waits until the text contains `part`. False when the time ran out; the time is a bound for a failing
    // test only.
    bool WaitForText(std::string_view part, std::chrono::milliseconds timeout = std::chrono::seconds(10));

  private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace rq
