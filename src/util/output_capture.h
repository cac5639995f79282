// OutputCapture: a test's view of log and console in one row, for orders between the two; while one is alive
// it takes the console's texts as ConsoleCapture does. A line of the log is "<level> <text>", what is written
// to the console "> <text>", and Note adds a step of the test's own. One thread logs, writes and asks.
#pragma once

#include <string>
#include <vector>

#include "util/capture_hub.h"
#include "util/log_capture.h"

namespace rq {

class OutputCapture final : LogListener, ConsoleListener {
  public:
    OutputCapture() {
        LogHub().Add(this);
        ConsoleHub().Add(this);
    }
    ~OutputCapture() override {
        LogHub().Remove(this);
        ConsoleHub().Remove(this);
    }
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    void Note(const std::string& step) { m_row.push_back(step); }
    const std::vector<std::string>& Row() const { return m_row; }

  private:
    void Receive(const LogLine& line) override { Note(std::to_string(line.level) + " " + line.text); }
    void Receive(const std::string& utf8) override { Note("> " + utf8); }

    std::vector<std::string> m_row;
};

}  // namespace rq
