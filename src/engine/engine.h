// Engine: everything that rqengine is, in one object: data folder with its lock and token, store, link
// server, HTTP API, launcher and scheduler, on one I/O thread (the one that calls Run).
//
// Create, then Run on one thread; RequestEnd from any thread. Run returns when the orderly end is through;
// after that no "engine.json" is left, and either no worker, or those that wait for the next engine.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/result.h"
#include "engine/settings.h"

namespace rq::engine {

class Engine {
  public:
    // Listens on both ports and has written "engine.json" when it returns.
    static Result<std::unique_ptr<Engine>> Create(const EngineSettings& settings);
    virtual ~Engine() = default;

    virtual void Run() = 0;
    // What becomes of the workers: they wait for the next engine, as long as its link is configured to have
    // them resume; or they are told to cancel their tasks, waited for, and ended.
    enum class End { LeaveWorkers, CancelTasks };
    virtual void RequestEnd(End how = End::LeaveWorkers) = 0;
    // What a person should know after Run: workers that wait. Empty: nothing.
    virtual const std::string& Farewell() const = 0;
    // Why the engine ended by itself, after Run; empty after an end that was asked for.
    virtual const std::string& Failure() const = 0;

    virtual std::uint16_t LinkPort() const = 0;
    virtual std::uint16_t HttpPort() const = 0;
    virtual const std::string& Token() const = 0;

  protected:
    Engine() = default;
};

}  // namespace rq::engine
