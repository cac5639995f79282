// The report that a crash leaves on Linux: a text file with what happened and the stacks of every thread. The
// crashed thread makes the file and writes its head; then it starts the reporter, which writes the stacks
// into it from outside. Inside the crash handler; PrepareCrashReport before it.
#pragma once

#include <signal.h>

#include <chrono>
#include <cstdint>
#include <string_view>

#include "platform/crash_text.h"

namespace rq::platform {

struct CrashFacts {
    int number = 0;
    std::string_view signalName;
    std::uint32_t thread = 0;
    const siginfo_t& info;
    const void* context = nullptr;  // the thread's registers at that moment, as the system saved them
};

// Takes what the report needs and no crash handler can ask for.
void PrepareCrashReport();
// Leaves the report's path in `path`, or nothing when there is no report; the crashed thread's frames are
// then on standard error.
void WriteCrashReport(const CrashFacts& facts, CrashText& path);
std::chrono::seconds ReportLimit();

void WriteAll(int descriptor, std::string_view text);

}  // namespace rq::platform
