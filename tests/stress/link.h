// The worker's link to its engine, as the run sees it: a client for the core, and the engine's side of it for
// the thread that gives the orders.
#pragma once

#include <memory>
#include <vector>

#include "link/engine_communicate.h"
#include "stress/draw.h"

namespace rq::stress {

class Link {
  public:
    virtual ~Link() = default;

    // The main thread's.
    virtual IEngineCommunicate& Client() = 0;

    // ---- for the thread that gives the orders ----
    // Until the engine can be heard. Bounded; false when nobody came.
    virtual bool WaitForWorker() = 0;
    // 12306 is a loss.
    virtual void Give(const PlannedOrder& order) = 0;
    // From now on final statuses are acknowledged.
    virtual void LetFinalsPass() = 0;
    // What was given so far, without losses.
    virtual const std::vector<std::uint32_t>& Given() const = 0;
};

// The client is the engine: orders reach the handler on the thread that gives them, at any moment from the
// middle of Connect on.
std::unique_ptr<Link> MakeDirectLink(const Draw& draw);
// EngineClient and an engine on a socket. Sets the port of the process's command line.
std::unique_ptr<Link> MakeSocketLink(const Draw& draw);

}  // namespace rq::stress
