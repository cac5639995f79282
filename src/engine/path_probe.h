// Whether a path can be reached, asked of the system on a thread of its own: a share that is away can hold
// the asker for minutes, and nobody waits for it longer than the limit. Call it on the I/O thread; `done`
// comes there, once.
#pragma once

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace rq::engine {

struct PathFacts {
    bool isReached = false;
    std::string kind;                         // "file", "folder", "other"; empty when it was not reached
    std::optional<std::uint64_t> size_bytes;  // of a file
    bool isReadable = false;                  // it was opened, or a folder's list begun
    std::string problem;                      // why not, in words; empty when all is well
};

// What the thread does; waits as long as the system does.
PathFacts LookAtPath(const std::string& path);

// Four at a time in this process; `done` gets the refusal of a further one at once.
void ProbePath(boost::asio::io_context& io, const std::string& path, std::chrono::milliseconds limit,
               std::function<void(const PathFacts&)> done,
               std::function<PathFacts(const std::string&)> look = LookAtPath);

}  // namespace rq::engine
