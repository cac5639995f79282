#include "util/console_capture.h"

#include "util/capture_hub.h"

namespace rq {

CaptureHub<ConsoleListener>& ConsoleHub() {
    static auto* hub = new CaptureHub<ConsoleListener>();  // texts may come until the very end of the process
    return *hub;
}

struct ConsoleCapture::State final : ConsoleListener {
    mutable Signal signal;
    std::string text RQ_GUARDED_BY(signal);

    void Receive(const std::string& utf8) override {
        Signal::Hold hold(signal);
        text += utf8;
        signal.Notify(hold);
    }
};

ConsoleCapture::ConsoleCapture() : m_state(std::make_unique<State>()) {
    ConsoleHub().Add(m_state.get());
}

ConsoleCapture::~ConsoleCapture() {
    ConsoleHub().Remove(m_state.get());
}

std::string ConsoleCapture::Text() const {
    Signal::Hold hold(m_state->signal);
    return m_state->text;
}

bool ConsoleCapture::Contains(std::string_view part) const {
    return Text().find(part) != std::string::npos;
}

std::size_t ConsoleCapture::Count(std::string_view part) const {
    if (part.empty()) return 0;
    const std::string text = Text();
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

void ConsoleCapture::Clear() {
    Signal::Hold hold(m_state->signal);
    m_state->text.clear();
}

bool ConsoleCapture::WaitForText(std::string_view part, std::chrono::milliseconds timeout) {
    const SteadyTime deadline = SystemClock().Steady() + timeout;
    Signal::Hold hold(m_state->signal);
    bool inTime = true;
    while (true) {
        if (m_state->text.find(part) != std::string::npos) return true;
        if (!inTime) return false;
        inTime = m_state->signal.WaitUntil(hold, deadline);
    }
}

}  // namespace rq
