// What of a session outlives its connection: the numbers of both sides, and the orders that the worker may
// not have. A connection holds it while it lasts; between two the scheduler does. Plain values; I/O thread.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "base/result.h"
#include "link/codec.h"

namespace rq::engine {

struct SessionMemory {
    struct KeptOrder {
        std::uint64_t seq = 0;  // 0: has never been sent
        std::uint32_t id = 0;
        std::string body;
    };

    std::uint64_t has = 0;           // highest seq of the worker's that the engine has
    std::uint64_t done = 0;          // the same, with those behind a final status that is not committed
    std::uint64_t sent = 0;          // seq of our latest numbered frame
    bool knowsSent = true;           // false: an earlier run of the engine sent frames, nobody knows how many
    std::uint64_t acknowledged = 0;  // highest of ours that the worker has
    std::deque<KeptOrder> orders = {};  // those that are not acknowledged, oldest first

    // For the next connection.
    Result<void> Keep(std::uint32_t id, const link::Order& order);
    // Forgets what the worker has.
    void TakeAck(std::uint64_t ack);
    // An earlier run of the engine may have acknowledged what it could not store (a full disk), or the store
    // is an older copy: what the worker says was acknowledged counts. True when that was more.
    bool CatchUp(const link::Hello& hello);
    // Why the numbers of a HELLO that resumes cannot be those of this session.
    std::optional<std::string> Contradiction(const link::Hello& hello) const;
    // The worker has received ours up to here: what is left gets the next numbers.
    void ContinueFrom(std::uint64_t received);
};

}  // namespace rq::engine
