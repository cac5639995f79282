// CRQWorkerBase: the worker core, one for each process. The run driver calls Init, DoWork (only after a successful Init)
// and Release (always), in this order on the main thread, and deletes it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace rq {

using SupervisionCallback = std::uint64_t (*)(std::uint32_t event, std::uint64_t a, std::uint64_t b);

// What the run driver gives to Init. The address and the port are kept for callers that read them; the engine that is
// used is chosen by the running parameters and the command line's port.
struct WorkerStartRecord {
    const char* serverAddress = nullptr;
    std::uint32_t serverPort = 8089;
    std::uint64_t reserved = 0;
    SupervisionCallback supervisionCallback = nullptr;
    std::string parameterText;  // UTF-8
    std::int32_t taskType = 0;
};

// Values of the command line that the core reads; set by app/ before the core exists.
struct CommandLineValues {
    std::wstring LogFilePrefix;
    std::uint32_t ServerPortOverride = 0;
    std::wstring CommandText;
};
CommandLineValues& ProcessCommandLine();

class CRQWorkerBase;
struct WorkerCoreSeams;  // clock, engine client factory, runner factory; for tests (worker_seams.h)

}  // namespace rq
