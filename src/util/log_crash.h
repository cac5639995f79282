// The log's last words. OVLFlushLog is for every orderly end (abort() in the restart routine included); this
// one is for a handler of unhandled crashes, where the crashed thread may hold any lock.
#pragma once

#include <cstdint>
#include <string_view>

namespace rq {

// Both: no lock, no allocation, plain writes. The first registration must be over (LogRegistry exists from
// then on).
//
// Writes what the log files have buffered. A line may then stand in a file twice.
void CrashFlushLog() noexcept;
// One line of level 5 to the file registered first, tag "ACT", module "MAIN", at once; lines that are
// buffered come after it, so CrashFlushLog goes first. `thread` is the system's number of the crashed thread.
void CrashLogLine(std::string_view text, std::uint32_t thread) noexcept;

}  // namespace rq
