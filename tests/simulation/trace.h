// Trace: what happened in a schedule, line by line, with fake time and thread. Two runs of one seed give the
// same bytes. Whoever holds the scheduler's baton may write.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace rq::sim {

class Trace {
  public:
    // `number` names the schedule in a report of failure.
    void Begin(std::uint64_t seed);
    void Line(std::int64_t now_ns, std::string_view thread, std::string_view text);
    // The baton goes to another thread.
    void Switch(std::string_view to);

    std::uint64_t Seed() const { return m_seed; }
    const std::string& Text() const { return m_text; }
    // FNV-1a over the text.
    std::uint64_t Digest() const;

  private:
    std::uint64_t m_seed = 0;
    std::string m_text;
};

// Prints the trace's end, what was violated and the command line that repeats the schedule, and ends the
// process: the threads of a schedule that went wrong cannot be unwound.
[[noreturn]] void FailSchedule(const Trace& trace, const std::string& what);
// Set once by main: how this program was called, and whether to print the whole trace.
void SetFailureReport(std::string program, bool wholeTrace);

}  // namespace rq::sim
