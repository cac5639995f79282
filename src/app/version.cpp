#include "app/version.h"

#include "util/worker_util.h"

namespace rq {

namespace {

constexpr const char* kWorkerName = "RQWorkerU.exe ";
// The variant with a window; this console program is not it.
[[maybe_unused]] constexpr const char* kWindowWorkerName = "RQWorkerWindowU.exe ";
constexpr const char* kVersionLabel = "Version:";
constexpr const char* kVersion = "1.13.0.0 build20170531";

}  // namespace

std::string GetWorkerVersion() {
    return std::string(kWorkerName) + kVersionLabel + kVersion;
}

void LogWorkerVersion() {
    Log(2, GetWorkerVersion());
}

}  // namespace rq
