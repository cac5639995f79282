// Status reports (message 4009): one entry with the task's status, its error codes and texts, and for a
// finished or failed task its result. A finished or failed one is sent until the engine link accepts it.
#pragma once

#include <cstdint>

#include "supervision/worker_core.h"

namespace rq {

// A message with the kind, sender and receiver of every report.
template <class Message>
Message MakeReport(const char* kind) {
    Message message;
    message.kind = kind;
    message.sender = "Worker";
    message.receiver = "Lite/Agent";
    return message;
}

// The error text of a code as the engine gets it, UTF-8 (families: errors/error_text.h).
std::string ReportedErrorText(std::uint32_t code, std::uint32_t family);

// Reports `status` (a TaskStatus) on the caller's thread. 0 when it was handled: sent, or given up since
// there is no connection; -1 without a runner. With status 0 or 4 it blocks, trying once a second, until the
// link accepts the message or the connection is lost.
std::int32_t ReportStatus(IWorkerCore& core, std::uint32_t status);

}  // namespace rq
