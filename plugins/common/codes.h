// Result codes that the plug-ins share. The task error codes (TaskInfo.errorCode) travel to the engine, which
// shows them with a name; the analysis codes are what RQWorkerAnalyseTask returns.
#pragma once

#include <cstdint>

namespace rq::task {

// Task error codes.
constexpr auto kErrorTargetExists = static_cast<std::int32_t>(0x84100000);    // "Target File has been exist!"
constexpr auto kErrorTargetIsSource = static_cast<std::int32_t>(0x84100001);  // "... is Same As Source File!"
constexpr std::int32_t kErrorMd5Differs = 7;                                  // "MD5 Verify Error!"
constexpr auto kErrorSourceUnreadable = static_cast<std::int32_t>(0x84100010);
constexpr auto kErrorSourceChanged = static_cast<std::int32_t>(0x84100011);
constexpr auto kErrorNoDigest = static_cast<std::int32_t>(0x84100012);  // the system offers no MD5
constexpr auto kErrorTargetUnwritable = static_cast<std::int32_t>(0x84100013);
constexpr auto kErrorSourceNotMedia =
    static_cast<std::int32_t>(0x84100014);  // or media that is not supported
constexpr auto kErrorSourceDamaged = static_cast<std::int32_t>(0x84100015);
constexpr auto kErrorSourceLacksStream = static_cast<std::int32_t>(0x84100016);
constexpr auto kErrorProcessing = static_cast<std::int32_t>(0x84100017);   // a filter, encoder or muxer
constexpr auto kErrorOutputCheck = static_cast<std::int32_t>(0x84100018);  // the written file is not as asked
constexpr auto kErrorNotAllowed = static_cast<std::int32_t>(0x84100030);   // the node does not allow it
constexpr auto kErrorThroughLink = static_cast<std::int32_t>(0x84100031);  // the path leads through a link
constexpr auto kErrorNotDeleted = static_cast<std::int32_t>(0x84100032);
constexpr auto kErrorReport = static_cast<std::int32_t>(0x84100033);          // the report cannot be written
constexpr auto kErrorConfiguration = static_cast<std::int32_t>(0x84100034);   // of the node: missing or wrong
constexpr auto kErrorNotComplete = static_cast<std::int32_t>(0x84100035);     // still written to
constexpr auto kErrorSourceSize = static_cast<std::int32_t>(0x84100036);      // another size than asked
constexpr auto kErrorTargetReadOnly = static_cast<std::int32_t>(0x84100037);  // or no right to write there
constexpr auto kErrorTargetFull = static_cast<std::int32_t>(0x84100038);
constexpr auto kErrorSourceVanished = static_cast<std::int32_t>(0x84100039);
constexpr auto kErrorSourceNotRemoved =
    static_cast<std::int32_t>(0x8410003A);  // of a move that is otherwise done
constexpr auto kErrorRemote =
    static_cast<std::int32_t>(0x8410003B);  // the other side of a URL: not there, refuses, breaks off

// Analysis codes.
constexpr auto kAnalysisTaskText =
    static_cast<std::int32_t>(0x84100020);  // the task text does not fit its schema

}  // namespace rq::task
