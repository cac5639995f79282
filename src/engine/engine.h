// Engine: everything that rqengine is, in one object: data folder with its lock and token, store, link
// server, HTTP API, launcher and scheduler, on one I/O thread (the one that calls Run).
//
// Create, then Run on one thread; RequestEnd from any thread. Run returns when the orderly end is through;
// after that no worker of this engine and no "engine.json" are left.
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
    virtual void RequestEnd() = 0;
    // Why the engine ended by itself, after Run; empty after an end that was asked for.
    virtual const std::string& Failure() const = 0;

    virtual std::uint16_t LinkPort() const = 0;
    virtual std::uint16_t HttpPort() const = 0;
    virtual const std::string& Token() const = 0;

  protected:
    Engine() = default;
};

}  // namespace rq::engine
