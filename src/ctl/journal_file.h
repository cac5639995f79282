// Reading a link journal (docs/link-journal.md), and its frames in words. Pure.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "link/frame.h"

namespace rq::ctl {

struct JournalFrame {
    std::string time;
    bool fromWorker = false;
    link::Frame frame;
};

struct JournalConnection {
    std::string time;
    std::int64_t processId = 0;
    std::string workerVersion;
    std::vector<JournalFrame> frames;
    std::vector<std::string> endings;  // "bad: ...", "close: ...", in their order
};

// Lines that are not of the format are passed over and counted; an error for a text without any connection.
struct Journal {
    std::vector<JournalConnection> connections;
    std::size_t strangeLines = 0;
};
Result<Journal> ParseJournal(std::string_view text);

// Those connections that resume a session (docs/engine-link.md, section 4) joined with the one that they
// resume, each frame once: what crossed the link as if it had never broken.
std::vector<JournalConnection> JournalSessions(const Journal& journal);

// "4009 state: 0 finished" and the like, one line of UTF-8. A body that cannot be decoded is told so.
std::string FrameWords(std::uint32_t id, std::string_view body);

// "2025-01-31T10:00:00.001200Z  -> 3/1  4009 ...": one line for each frame of each connection.
std::string PrintJournal(const Journal& journal);

}  // namespace rq::ctl
