// The file in which a worker leaves a final status that no engine has acknowledged, and from which the engine
// takes it (docs/engine-link.md, "The spool"): one frame with its length, then the CRC-32 of it. Pure
// functions without I/O; any thread. Sizes are bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/result.h"
#include "link/frame.h"
#include "records/engine_messages.h"

namespace rq::link {

// A file that has more is none of these.
inline constexpr std::size_t kSpoolLimit_bytes = kLengthBytes + kFrameLimit_bytes + 4;

// What stands behind the attempt in a file's name: the status, the same while it is written, and one that
// could not be read.
inline constexpr std::string_view kSpoolEnding = ".final";
inline constexpr std::string_view kSpoolTemporaryEnding = ".tmp";
inline constexpr std::string_view kSpoolBadEnding = ".bad";

// Whether files may be named after this attempt: 1 to 64 characters of 0-9 a-z A-Z _ - that the system takes
// for the name of a file. To be asked before it becomes one.
bool IsSpoolAttempt(std::string_view attempt);

struct SpooledStatus {
    std::uint64_t seq = 0;       // as it was sent
    std::uint64_t previous = 0;  // of the worker's status before it, final or not; 0: none
    bool isRepeat = false;       // it is marked as one
    EngineStateMessage message;
};

// The content of a file; `body` is that of the 4009 and fits into a frame. `previous`: as SpooledStatus's.
std::string EncodeSpoolFile(std::uint64_t seq, std::string_view body, std::uint64_t previous = 0);
// An error says what is wrong with the file: its length, its check, or what is in it.
Result<SpooledStatus> DecodeSpoolFile(std::string_view bytes);

}  // namespace rq::link
