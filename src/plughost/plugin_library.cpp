#include "plughost/plugin_library.h"

#include <cstddef>

#include "base/paths.h"
#include "platform/library.h"
#include "plughost/plugin_text.h"

namespace rq {
namespace {

template <class Func>
void Find(void* library, const char* name, Func& func) {
    func = reinterpret_cast<Func>(platform::FindSymbol(library, name));
}

// The two fields that every contract version begins with.
constexpr std::uint32_t kVersionedSize =
    offsetof(RQPluginDescription, contractVersion) + sizeof(RQPluginDescription::contractVersion);
static_assert(offsetof(RQPluginDescription, size) == 0);
static_assert(offsetof(TaskInfo, size) == 0);
static_assert(offsetof(TaskInfo, contractVersion) == offsetof(RQPluginDescription, contractVersion));

std::string Versions(std::uint32_t theirs) {
    return "contract version " + std::to_string(theirs) + ", this worker speaks version " +
           std::to_string(RQ_CONTRACT_VERSION);
}

std::string TooSmall(std::uint32_t size, std::size_t needed) {
    return "is too small: " + std::to_string(size) + " bytes, at least " + std::to_string(needed) +
           " are needed";
}

std::optional<std::string> CheckDescription(const RQPluginDescription& description,
                                            const std::string& library) {
    if (description.size < kVersionedSize)
        return "plug-in library " + library + ": its description " +
               TooSmall(description.size, kVersionedSize);
    if (description.contractVersion != RQ_CONTRACT_VERSION)
        return "plug-in library " + library + " was built for " + Versions(description.contractVersion);
    if (description.size < sizeof(RQPluginDescription))
        return "plug-in library " + library + ": its description " +
               TooSmall(description.size, sizeof(RQPluginDescription));
    if (description.typeCount > 0 && description.types == nullptr)
        return "plug-in library " + library + ": its description counts " +
               std::to_string(description.typeCount) + " task types and lists none";
    return std::nullopt;
}

}  // namespace

bool LoadPluginLibrary(WorkerPlugin& plugin, platform::OsError* error) {
    plugin.hModule = platform::LoadPlainLibrary(NarrowUtf8(plugin.dllPath), error);
    return plugin.hModule != nullptr;
}

bool FindEntryPoints(WorkerPlugin& plugin) {
    Find(plugin.hModule, "RQWorkerAnalyseTask", plugin.pAnalyseTaskFunc);
    Find(plugin.hModule, "RQWorkerPerformTask", plugin.pPerformTaskFunc);
    Find(plugin.hModule, "RQWorkerInit", plugin.pInitFunc);
    Find(plugin.hModule, "RQWorkerRelease", plugin.pReleaseFunc);
    Find(plugin.hModule, "RQWorkerDescribe", plugin.pDescribeFunc);
    return plugin.pAnalyseTaskFunc != nullptr && plugin.pPerformTaskFunc != nullptr;
}

Result<PluginDescription> DescribePlugin(const WorkerPlugin& plugin, const RQHostServices* host) {
    PluginDescription copy;
    copy.name = PluginFileStem(plugin.dllPath);
    const RQPluginDescription* given = plugin.pDescribeFunc == nullptr ? nullptr : plugin.pDescribeFunc(host);
    if (given == nullptr) return copy;
    if (std::optional<std::string> problem = CheckDescription(*given, copy.name))
        return Fail(*std::move(problem));

    copy.isGiven = true;
    if (std::string name = RepairUtf8(PluginTextView(given->name)); !name.empty())
        copy.name = std::move(name);
    copy.version = RepairUtf8(PluginTextView(given->version));
    copy.types.assign(given->types, given->types + given->typeCount);
    copy.abilities = given->abilities;
    return copy;
}

std::string PluginFileStem(const std::wstring& dllPath) {
    const std::size_t separator = FindLastSeparator(dllPath);
    std::wstring name = separator == std::wstring::npos ? dllPath : dllPath.substr(separator + 1);
    const std::size_t dot = name.rfind(L'.');
    if (dot != std::wstring::npos && dot > 0) name.resize(dot);
    return NarrowUtf8(name);
}

std::wstring PluginFolder(const std::wstring& dllPath) {
    const std::size_t separator = FindLastSeparator(dllPath);
    if (separator == std::wstring::npos) return {};
    return dllPath.substr(0, separator);
}

std::optional<std::string> CheckTaskInfo(const TaskInfo& info, const std::string& pluginName) {
    const std::string subject = "plug-in " + pluginName + ": its task information record ";
    if (info.size < kVersionedSize) return subject + TooSmall(info.size, kVersionedSize);
    if (info.contractVersion != RQ_CONTRACT_VERSION)
        return subject + "is of " + Versions(info.contractVersion);
    if (info.size < sizeof(TaskInfo)) return subject + TooSmall(info.size, sizeof(TaskInfo));
    return std::nullopt;
}

}  // namespace rq
