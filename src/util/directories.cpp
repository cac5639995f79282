#include "util/directories.h"

#include <fmt/format.h>

#include <filesystem>
#include <optional>
#include <system_error>

#include "base/clock.h"
#include "base/paths.h"
#include "base/result.h"
#include "base/sync.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/identity.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {
namespace {

std::string Separator() {
    return NarrowUtf8(WideText(1, PathSeparator()));
}

// An empty variable counts as one that is not there.
std::string EnvironmentOr(const char* name, const std::string& otherwise) {
    const std::optional<std::string> value = platform::GetEnvironment(name);
    return value && !value->empty() ? *value : otherwise;
}

// [Log] Root of "RQWorker.ini"; else below the data folder of the user that runs the process.
std::string ConfiguredLogRoot(const std::string& iniFolder) {
    const KWOVL_UTILITY::OVLIniHandle file = KWOVL_UTILITY::OVLIniLoad(iniFolder + "RQWorker.ini");
    std::wstring root;
    KWOVL_UTILITY::OVLIniGetString(file, "Log:Root", "", root);
    KWOVL_UTILITY::OVLIniFree(file);
    if (!root.empty()) return NarrowUtf8(root);
    return platform::DefaultDataFolder() + Separator() + "logs";
}

struct Cache {
    Mutex mutex;
    std::optional<Directories> directories RQ_GUARDED_BY(mutex);
};

Cache& TheCache() {
    static auto* cache = new Cache();
    return *cache;
}

}  // namespace

Directories ProcessDirectories() {
    Cache& cache = TheCache();
    MutexLock lock(cache.mutex);
    if (!cache.directories) {
        const std::string modules = NarrowUtf8(GetModuleDirectory());
        const std::string iniFolder = AbsoluteFolder(EnvironmentOr("RQ_CONFIG_DIR", modules));
        const std::string logs = EnvironmentOr("RQ_LOG_DIR", ConfiguredLogRoot(iniFolder));
        cache.directories = Directories{AbsoluteFolder(logs), iniFolder};
    }
    return *cache.directories;
}

void ForgetProcessDirectories() {
    Cache& cache = TheCache();
    MutexLock lock(cache.mutex);
    cache.directories.reset();
}

std::string AbsoluteFolder(std::string_view path) {
    std::error_code error;
    const std::filesystem::path given = PathFromUtf8(path);
    const std::filesystem::path absolute = std::filesystem::absolute(given, error);
    const std::string folder = Utf8FromPath((error ? given : absolute).lexically_normal());
    const bool isClosed = folder.ends_with('/') || folder.ends_with(Separator());
    return isClosed ? folder : folder + Separator();
}

WideText CutToDirectory(const WideText& modulePath) {
    const std::size_t separator = FindLastSeparator(modulePath);
    if (separator == WideText::npos) return modulePath + PathSeparator();
    return modulePath.substr(0, separator + 1);
}

WideText DailyLogDir(const WideText& logRoot, int year, unsigned month, unsigned day) {
    const std::string date = fmt::format("{:04}{:02}{:02}", year, month, day);
    return logRoot + L"RQWorker" + PathSeparator() + WidenUtf8(date) + PathSeparator();
}

WideText GetDailyLogDir() {
    std::string root;
    KWOVL_UTILITY::OVLGetLogDir(root);
    const auto today = SystemClock().Local().date().year_month_day();
    return DailyLogDir(KWOVL_UTILITY::OVLStringToTString(root), today.year, today.month.as_number(),
                       today.day.as_number());
}

WideText GetModuleDirectory() {
    return CutToDirectory(WidenUtf8(platform::ModuleFileName()));
}

}  // namespace rq

namespace KWOVL_UTILITY {

std::int32_t OVLGetLogDir(std::string& directory) {
    directory = rq::ProcessDirectories().logRoot;
    return rq::kStatusOk;
}

std::int32_t OVLIniGetPath(std::string& directory) {
    directory = rq::ProcessDirectories().iniFolder;
    return rq::kStatusOk;
}

}  // namespace KWOVL_UTILITY
