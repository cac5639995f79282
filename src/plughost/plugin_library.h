// The loaded plug-in library: its handle, its entry points, and whether it speaks this worker's contract.
//
// The steps are separate functions, since the runner logs between them: LoadPluginLibrary, FindEntryPoints,
// DescribePlugin. The library is never unloaded. Main thread, once per process; the record is only read after
// that.
//
// CheckTaskInfo may be called on any thread that holds a task information record still in use.
#pragma once

#include <rqworker/plugin.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/result.h"
#include "platform/os_error.h"

namespace rq {

struct WorkerPlugin {
    std::wstring dllPath;                                // module directory followed by the type table's path
    void* hModule = nullptr;                             // null when loading failed
    RQWorkerAnalyseTaskFunc pAnalyseTaskFunc = nullptr;  // null when not exported, as all of these
    RQWorkerPerformTaskFunc pPerformTaskFunc = nullptr;
    RQWorkerInitFunc pInitFunc = nullptr;
    RQWorkerReleaseFunc pReleaseFunc = nullptr;
    RQWorkerDescribeFunc pDescribeFunc = nullptr;
};

// What RQWorkerDescribe told, copied. Texts are valid UTF-8.
struct PluginDescription {
    bool isGiven = false;  // false: no such export, or it returned NULL ("does not say")
    std::string name;      // the file name's stem when not given
    std::string version;
    std::vector<std::int32_t> types;
    std::uint64_t abilities = 0;  // RQ_ABILITY_...
};

// Loads plugin.dllPath (plain search order) into plugin.hModule. False on failure, with the reason in *error.
bool LoadPluginLibrary(WorkerPlugin& plugin, platform::OsError* error = nullptr);

// Looks up RQWorkerAnalyseTask, RQWorkerPerformTask, RQWorkerInit, RQWorkerRelease and then RQWorkerDescribe.
// False when one of the first two is missing; all that were found are set in every case.
bool FindEntryPoints(WorkerPlugin& plugin);

// Calls RQWorkerDescribe, when there is one, and checks what it returns. An error is the whole line for the
// log: it names the library and, for another contract version, both versions. A plug-in that is refused must
// not be called again.
Result<PluginDescription> DescribePlugin(const WorkerPlugin& plugin, const RQHostServices* host);

// The file name without folder and extension ("md5"): what a plug-in is called until it says its name.
std::string PluginFileStem(const std::wstring& dllPath);

// What stands before the last separator: the folder that becomes the current directory. Empty when there is
// none, or when it is the first character.
std::wstring PluginFolder(const std::wstring& dllPath);

// Nothing when `info` can be used; otherwise the line for the log, naming the plug-in. A null pointer is not
// this function's business.
std::optional<std::string> CheckTaskInfo(const TaskInfo& info, const std::string& pluginName);

}  // namespace rq
