// WorkerCoreSeams: what a test may put in the place of the worker core's surroundings. Fixed at construction.
// The functions are called on the main thread only; the clock by any.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <boost/thread/thread.hpp>

#include "base/clock.h"
#include "link/engine_communicate.h"
#include "plugin/work_runner.h"
#include "records/running_parameter.h"

namespace rq {

struct WorkerCoreSeams {
    Clock* clock = &SystemClock();

    std::function<IEngineCommunicate*()> createEngineClient;
    std::function<void(IEngineCommunicate**)> deleteEngineClient;
    std::function<std::unique_ptr<IWorkRunner>()> createRunner;
    std::function<std::int32_t(std::string, tagOVLCommunicationParam*)> readRunningParameter;
    std::function<std::int32_t(const tagOVLCommunicationParam*, std::wstring)> writeRunningParameter;
    // Throws when there can be no thread.
    std::function<boost::thread(std::function<void()>)> startThread;

    // What is still empty becomes the real thing.
    void FillIn();
};

}  // namespace rq
