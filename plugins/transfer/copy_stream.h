// Brings the bytes of one file to another, and digests them as they pass. Without a digest the system copies
// where it can (copy_file_range). Otherwise reading, each digest and writing run side by side, on the
// caller's thread and one thread each, over kBuffers buffers of kBuffer_bytes: 16 MiB whatever the size.
// Holes are not written. The threads end before Run returns.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "plugin_common/digest.h"
#include "plugin_common/file.h"
#include "plugin_common/publish.h"

namespace rq::transfer {

constexpr std::size_t kBuffer_bytes = 1u << 20;
constexpr std::size_t kBuffers = 16;
// What the system is asked to copy at a time: the stop flag is read in between.
constexpr std::uint64_t kOffload_bytes = 8u << 20;

struct Digests {
    std::optional<task::Md5Digest> md5;
    std::optional<task::Sha256Digest> sha256;
};

struct StreamResult {
    enum class End { kDone, kStopped, kRead, kWrite, kDigest, kSize } end = End::kDone;
    std::uint32_t systemCode = 0;  // with kRead, kWrite
    Digests digests;
};

// Lets bytes pass at no more than a number a second; a pause is not made up for by more than a second's
// worth.
class RateLimit {
  public:
    explicit RateLimit(std::uint64_t limit_Bps) : m_limit_Bps(limit_Bps) {}
    bool IsSet() const { return m_limit_Bps != 0; }
    // What may be asked for at a time, so that a slow rate is even.
    std::uint64_t Portion(std::uint64_t most_bytes) const;
    // Waits until these bytes were due; `goOn` is asked meanwhile, and false ends the wait.
    bool Pass(std::uint64_t bytes, const std::function<bool()>& goOn);

  private:
    std::uint64_t m_limit_Bps;
    std::chrono::steady_clock::time_point m_due{};
};

struct StreamJob {
    task::InputFile& source;
    task::Publication* target = nullptr;  // null: only digested
    bool md5 = false;
    bool sha256 = false;
    RateLimit* limit = nullptr;                            // not null
    std::function<bool(std::uint64_t done_bytes)> goOn{};  // called often; false stops
};

StreamResult RunStream(StreamJob job);

}  // namespace rq::transfer
