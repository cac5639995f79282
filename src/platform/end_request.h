// Being asked to end by somebody outside: the console (Ctrl-C, Ctrl-Break, its window closed, log-off,
// shutdown) and ChildProcess::RequestEnd. On Linux all of that comes as signals, which a program takes with
// the library that it runs on; there a listener hears nothing. On Windows there are no signals between
// processes: a listener is a console handler and an event that bears the process's number.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace rq::platform {

class EndRequests {
  public:
    // `onRequest` runs on a thread of the listener's or the system's, at each request, until the object is
    // gone. A console that closes, a log-off and a shutdown leave the process a few seconds after that. One
    // listener at a time. Null when the system has no room for it.
    static std::unique_ptr<EndRequests> Listen(std::function<void()> onRequest);
    virtual ~EndRequests() = default;
};

// Asks the process. False when it does not listen. Any thread. On Linux always false: signals are used there.
bool AskToEnd(std::uint64_t processId);

}  // namespace rq::platform
