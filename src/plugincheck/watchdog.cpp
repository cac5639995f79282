#include "plugincheck/watchdog.h"

#include <cstdlib>

namespace rq::plugincheck {
namespace {

constexpr std::chrono::milliseconds kLook(50);
constexpr int kBrokenOff = 3;

}  // namespace

Watchdog::Watchdog(JournalWriter& journal) : m_journal(journal), m_thread([this] { Run(); }) {}

Watchdog::~Watchdog() {
    {
        Signal::Hold hold(m_signal);
        m_isEnding = true;
        m_signal.Notify(hold);
    }
    m_thread.join();
}

void Watchdog::Watch(Lane lane, const std::string& what, std::chrono::milliseconds limit) {
    Signal::Hold hold(m_signal);
    m_calls[static_cast<std::size_t>(lane)] = Call{what, limit, MachineClock::now() + limit};
}

void Watchdog::Unwatch(Lane lane) {
    Signal::Hold hold(m_signal);
    m_calls[static_cast<std::size_t>(lane)].reset();
}

void Watchdog::Run() {
    Signal::Hold hold(m_signal);
    while (!m_isEnding) {
        m_signal.WaitFor(hold, kLook);
        const auto now = MachineClock::now();
        for (const auto& call : m_calls) {
            if (call && now > call->deadline) EndOverdue(*call);
        }
    }
}

// Nothing that the hanging call holds can be waited for: the process ends here and now.
void Watchdog::EndOverdue(const Call& call) {
    m_journal.Exercised(Check::NoReturn);
    m_journal.Tell(Check::NoReturn,
                   call.what + " had not returned after " + std::to_string(call.limit.count()) + " ms");
    std::_Exit(kBrokenOff);
}

}  // namespace rq::plugincheck
