#include "engine/connection_limits.h"

#include <algorithm>
#include <string>
#include <thread>

namespace rq::engine {

namespace {

// Store, logs, ports, a backup, and what libraries open.
constexpr std::uint64_t kOwnFiles = 48;
constexpr std::uint64_t kFilesOfWorker = 4;
constexpr std::uint64_t kLeast = 8;  // of each kind of connection

constexpr std::uint64_t kStrangers = 256;  // at each of the two ports
constexpr std::uint64_t kHttpMemory_bytes = std::uint64_t{256} * 1024 * 1024;

}  // namespace

Result<ConnectionLimits> LimitConnections(const EngineSettings& settings, std::uint64_t openFiles) {
    const std::uint64_t workers =
        settings.maxWorkers != 0 ? settings.maxWorkers : std::max(1u, std::thread::hardware_concurrency());
    const std::uint64_t kept = kOwnFiles + kFilesOfWorker * workers;
    // Each of the workers needs a connection, too.
    const std::uint64_t least = kept + 3 * kLeast + std::max(kLeast, workers);
    if (openFiles < least)
        return Fail("this process may have only " + std::to_string(openFiles) + " files open, and " +
                    std::to_string(workers) + " workers at a time need at least " + std::to_string(least) +
                    "; raise the limit (ulimit -n, LimitNOFILE), or lower --max-workers");
    const std::uint64_t room = openFiles - kept;
    // Few places for strangers would be taken anew faster than an honest one shows its token, so they get up
    // to a quarter; the rest is shared in proportion to the settings.
    const std::uint64_t strangers = std::clamp(room / 8, kLeast, kStrangers);
    const std::uint64_t left = room - 2 * strangers;
    const std::uint64_t wanted = settings.maxConnections + settings.maxHttpConnections;
    const auto share = [&](std::uint64_t number) -> std::size_t {
        return left >= wanted ? number : std::max(kLeast, left * number / wanted);
    };
    ConnectionLimits limits;
    limits.link = {strangers, std::max<std::size_t>(share(settings.maxConnections), workers)};
    limits.http = {strangers, share(settings.maxHttpConnections), kHttpMemory_bytes, true};
    return limits;
}

}  // namespace rq::engine
