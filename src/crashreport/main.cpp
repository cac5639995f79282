// rqcrash-report: what a crashed worker starts to have the stacks of all its threads written
// (platform/crash.h). Called as "rqcrash-report PROCESS THREAD CONTEXT": THREAD is the one that crashed,
// CONTEXT where its memory holds its registers at that moment (a ucontext_t); 0: as they are. The text goes
// to standard output, which is the report's file. 0 when the crashed thread's stack is in it, else 1; 2 for a
// wrong call. Good for a look at a process that hangs, too: it runs on afterwards.
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string_view>

#include "crashreport/process_stacks.h"

namespace {

template <class Number>
std::optional<Number> NumberOf(std::string_view text) {
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

}  // namespace

int main(int argc, char** argv) {
    const auto process = NumberOf<pid_t>(argc == 4 ? argv[1] : "");
    const auto thread = NumberOf<pid_t>(argc == 4 ? argv[2] : "");
    const auto context = NumberOf<std::uint64_t>(argc == 4 ? argv[3] : "");
    if (!process || *process <= 0 || !thread || *thread <= 0 || !context) {
        std::fputs("usage: rqcrash-report PROCESS THREAD CONTEXT\n", stderr);
        return 2;
    }
    const bool isRead = rq::crashreport::WriteStacks({*process, *thread, *context}, stdout);
    return std::fflush(stdout) == 0 && isRead ? 0 : 1;
}
