// "rqctl replay": the engine's side of a link journal, played to a worker (docs/link-journal.md).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ctl/engine_access.h"
#include "ctl/journal_file.h"

namespace rq::ctl {

// Which order is due, by what the worker has sent so far. Pure.
class ReplayScript {
  public:
    explicit ReplayScript(const JournalConnection& connection);

    // The body of the engine's answer to HELLO: WELCOME or REFUSE; null when the journal has none.
    const link::Frame* Answer() const { return m_answer ? &*m_answer : nullptr; }
    void Took(std::uint32_t id) { ++m_taken[id]; }
    // The next order when everything that stood before it has come; it is taken off.
    std::optional<link::Frame> NextDue();
    bool IsDone() const;
    // What is waited for, in words; empty when nothing is.
    std::string Missing() const;

  private:
    using Counts = std::map<std::uint32_t, int>;
    struct Step {
        Counts before;      // of the worker's frames
        link::Frame order;  // id 0: the journal's end
    };

    bool HasCome(const Counts& counts) const;

    std::optional<link::Frame> m_answer;
    std::vector<Step> m_steps;
    std::size_t m_next = 0;
    Counts m_taken;
};

struct ReplayOptions {
    std::uint16_t port = 0;  // 0: a free one
    std::size_t connection = 1;
    std::chrono::seconds wait{120};
    bool print = false;
};

// Prints as it goes. `onListening` is told the port.
Outcome<int> Replay(const std::string& path, const ReplayOptions& options);
Outcome<int> Play(const JournalConnection& connection, const ReplayOptions& options,
                  const std::function<void(std::uint16_t port)>& onListening);

}  // namespace rq::ctl
