#include "util/log_capture.h"

#include <algorithm>

#include "util/capture_hub.h"

namespace rq {

CaptureHub<LogListener>& LogHub() {
    static auto* hub = new CaptureHub<LogListener>();  // lines may come until the very end of the process
    return *hub;
}

struct LogCapture::State final : LogListener {
    mutable Signal signal;
    std::vector<LogLine> lines RQ_GUARDED_BY(signal);

    void Receive(const LogLine& line) override {
        Signal::Hold hold(signal);
        lines.push_back(line);
        signal.Notify(hold);
    }
};

LogCapture::LogCapture() : m_state(std::make_unique<State>()) {
    LogHub().Add(m_state.get());
}

LogCapture::~LogCapture() {
    LogHub().Remove(m_state.get());
}

std::vector<LogLine> LogCapture::Lines() const {
    Signal::Hold hold(m_state->signal);
    return m_state->lines;
}

std::vector<std::string> LogCapture::Texts() const {
    std::vector<std::string> texts;
    for (const LogLine& line : Lines()) texts.push_back(line.text);
    return texts;
}

std::size_t LogCapture::Count(std::string_view text) const {
    const std::vector<LogLine> lines = Lines();
    return static_cast<std::size_t>(
        std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) { return line.text == text; }));
}

std::size_t LogCapture::Count(int level, std::string_view text) const {
    const std::vector<LogLine> lines = Lines();
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) {
        return line.level == level && line.text == text;
    }));
}

bool LogCapture::Contains(std::string_view part) const {
    const std::vector<LogLine> lines = Lines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const LogLine& line) { return line.text.find(part) != std::string::npos; });
}

void LogCapture::Clear() {
    Signal::Hold hold(m_state->signal);
    m_state->lines.clear();
}

bool LogCapture::WaitForText(std::string_view part, std::chrono::milliseconds timeout) {
    return WaitFor([part](const LogLine& line) { return line.text.find(part) != std::string::npos; },
                   timeout);
}

bool LogCapture::WaitFor(const std::function<bool(const LogLine&)>& wanted,
                         std::chrono::milliseconds timeout) {
    const SteadyTime deadline = SystemClock().Steady() + timeout;
    State& state = *m_state;
    Signal::Hold hold(state.signal);
    bool inTime = true;
    while (true) {
        if (std::any_of(state.lines.begin(), state.lines.end(), wanted)) return true;
        if (!inTime) return false;
        inTime = state.signal.WaitUntil(hold, deadline);
    }
}

}  // namespace rq
