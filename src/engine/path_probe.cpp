#include "engine/path_probe.h"

#include <atomic>
#include <boost/asio/steady_timer.hpp>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>
#include <thread>

#include "base/clock.h"
#include "base/paths.h"
#include "engine/retry.h"
#include "platform/error_text.h"
#include "platform/files.h"

namespace rq::engine {

namespace fs = std::filesystem;

namespace {

constexpr int kMostThreads = 4;
constexpr std::chrono::milliseconds kLook(5);

std::atomic<int> g_threads{0};

struct Probe {
    std::atomic<bool> isDone{false};
    PathFacts facts;  // the thread's, until isDone
};

// Looks again and again whether the thread has ended: it may end long after the I/O thread has.
void Await(const std::shared_ptr<boost::asio::steady_timer>& timer, const std::shared_ptr<Probe>& probe,
           SteadyTime until, const std::string& tooLate, std::function<void(const PathFacts&)> done) {
    timer->expires_after(kLook);
    timer->async_wait([=, done = std::move(done)](const boost::system::error_code& error) {
        if (error) return;
        if (probe->isDone.load(std::memory_order_acquire)) return done(probe->facts);
        if (std::chrono::steady_clock::now() < until) return Await(timer, probe, until, tooLate, done);
        PathFacts late;
        late.problem = tooLate;
        done(late);
    });
}

}  // namespace

PathFacts LookAtPath(const std::string& path) {
    PathFacts facts;
    std::error_code error;
    const fs::path native = PathFromUtf8(path);
    const auto status = fs::status(native, error);
    if (status.type() == fs::file_type::not_found) {
        facts.problem = "nothing is there";
        return facts;
    }
    if (error || status.type() == fs::file_type::none) {
        facts.problem = platform::ErrorText(error);
        return facts;
    }
    facts.isReached = true;
    facts.kind = fs::is_regular_file(status) ? "file" : fs::is_directory(status) ? "folder" : "other";
    if (facts.kind == "file") {
        const auto size = fs::file_size(native, error);
        if (!error) facts.size_bytes = size;
        std::FILE* file = platform::OpenFile(path, "rb");
        facts.isReadable = file != nullptr;
        if (file != nullptr)
            std::fclose(file);
        else
            facts.problem = "it cannot be opened for reading";
    } else if (facts.kind == "folder") {
        const fs::directory_iterator list(native, error);
        facts.isReadable = !error;
        if (error) facts.problem = "it cannot be listed: " + platform::ErrorText(error);
    } else {
        facts.problem = "it is neither a file nor a folder";
    }
    return facts;
}

void ProbePath(boost::asio::io_context& io, const std::string& path, std::chrono::milliseconds limit,
               std::function<void(const PathFacts&)> done,
               std::function<PathFacts(const std::string&)> look) {
    PathFacts refusal;
    if (g_threads.fetch_add(1) >= kMostThreads) {
        --g_threads;
        refusal.problem =
            "as many paths as may be looked at at a time have not answered yet; try again later";
        return done(refusal);
    }
    const auto probe = std::make_shared<Probe>();
    try {
        std::thread([probe, path, look = std::move(look)] {
            probe->facts = look(path);
            probe->isDone.store(true, std::memory_order_release);
            --g_threads;
        }).detach();
    } catch (const std::system_error& problem) {
        --g_threads;
        refusal.problem = platform::ErrorText(problem.code());
        return done(refusal);
    }
    Await(std::make_shared<boost::asio::steady_timer>(io), probe, std::chrono::steady_clock::now() + limit,
          "the system has not answered for " + DurationText(limit), std::move(done));
}

}  // namespace rq::engine
