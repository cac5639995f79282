// The run driver: checks the type, makes the one worker core, lets it initialise, work and release, and
// deletes it. Main thread; blocks until the work is over.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "worker/worker_base.h"

namespace rq {

// What the run driver needs of a worker core; the real one is CRQWorkerBase.
class IRunnableCore {
  public:
    virtual ~IRunnableCore() = default;
    virtual std::int32_t Init(const WorkerStartRecord* start) = 0;
    virtual std::int32_t DoWork(const std::string& text, std::int32_t type) = 0;
    virtual void Release() = 0;
};

// What the run driver takes from its surroundings; tests put something else in their place.
struct RunWorkerSeams {
    std::function<void()> installCrashFilter;
    std::function<std::string()> setDefaultLocale;
    std::function<void(std::string)> restoreLocale;
    std::function<IRunnableCore*()> allocateCore;  // null when there is no memory
    std::function<void()> freeIni;

    static RunWorkerSeams Real();
};

// 0 after a run, whatever the core reported; -1 for a rejected type or without memory for the core. A
// rejected type leaves the core as it is and the locale switched: the process is about to end.
std::int32_t RunWorker(std::string type, std::string parameters);
std::int32_t RunWorker(const std::string& type, const std::string& parameters, const RunWorkerSeams& seams);

// 300 and above are no types, nor is 0 unless it was meant ("0" or "tf"). Negative numbers pass.
bool IsRejectedType(std::int32_t number, const std::string& type);

// A new CRQWorkerBase; null when there is no memory. The run driver deletes it, except for a rejected type.
IRunnableCore* AllocateWorkerCore();

}  // namespace rq
