// Result codes that the plug-ins share. The task error codes (TaskInfo.errorCode) travel to the engine, which
// shows them with a name; the analysis codes are what RQWorkerAnalyseTask returns.
#pragma once

#include <cstdint>

namespace rq::task {

// Task error codes.
constexpr std::int32_t kErrorMd5Differs = 7;  // "MD5 Verify Error!"
constexpr auto kErrorSourceUnreadable = static_cast<std::int32_t>(0x84100010);
constexpr auto kErrorSourceChanged = static_cast<std::int32_t>(0x84100011);
constexpr auto kErrorNoDigest = static_cast<std::int32_t>(0x84100012);  // the system offers no MD5

// Analysis codes.
constexpr auto kAnalysisTaskText =
    static_cast<std::int32_t>(0x84100020);  // the task text does not fit its schema

}  // namespace rq::task
