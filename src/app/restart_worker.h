// The end of the process by its own hand: a patrol time-out starts a fresh copy of the executable and aborts
// this one. Any thread; other threads go on until the abort.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace rq {

// The supervision callback: event 0 restarts and does not return, any other does nothing; 0. Neither value is
// read.
std::uint64_t OnSupervisionEvent(std::uint32_t event, std::uint64_t a, std::uint64_t b);

// Lets go of the lock on "worker.uid", starts the executable (without any argument, so that it shows its
// usage text) and aborts. Never returns. A missing "worker.uid" throws before anything is started, and nobody
// catches that.
void RestartWorker();

// What a restart takes from its surroundings; tests put something else in their place. Returns only when
// abort does.
struct RestartSeams {
    std::function<void()> releaseInstanceLock;
    std::function<std::string()> moduleFileName;
    std::function<unsigned(const std::string& commandLine)> startProgram;  // above 31 on success, as WinExec
    std::function<void()> silenceAbort;
    std::function<void()> abort;

    static RestartSeams Real();
};
void RestartWorker(const RestartSeams& seams);

}  // namespace rq
