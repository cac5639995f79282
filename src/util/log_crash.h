// The log's last words. OVLFlushLog is for every orderly end (abort() in the restart routine included); this
// one is for a handler of unhandled crashes, where the crashed thread may hold any lock.
#pragma once

namespace rq {

// Writes what the log files have buffered: no lock, no allocation, plain writes. A line may then stand in a
// file twice. The first registration must be over (LogRegistry exists from then on).
void CrashFlushLog() noexcept;

}  // namespace rq
