// A call of the system that nobody can divide and that may take long: a sync, a rename on a share. It is made
// on a thread of its own, and the perform call's thread, which calls this, goes on calling the progress
// callback: the task can be paused, and counts as alive for `limit`. After that it is silent, so that the
// worker's patrol finds a disk that hangs for ever.
#pragma once

#include <chrono>
#include <future>
#include <utility>

#include "rqworker/plugin.hpp"

namespace rq::task {

constexpr std::chrono::seconds kLongCall_s{60};
constexpr std::chrono::milliseconds kLongCallTold_ms{250};

// What `call` returns or throws. Without a thread to be had it is made on this one.
template <class Call>
auto MakeLongCall(plugin::Run& run, Call call, std::chrono::seconds limit = kLongCall_s) {
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + limit;
    auto made = std::async(std::launch::async | std::launch::deferred, std::move(call));
    while (made.wait_for(kLongCallTold_ms) == std::future_status::timeout) {
        const auto left = std::chrono::duration_cast<std::chrono::seconds>(end - steady_clock::now());
        if (left.count() > 0) run.QuietFor(left.count());
    }
    return made.get();
}

}  // namespace rq::task
