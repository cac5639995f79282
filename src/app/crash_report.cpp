#include "app/crash_report.h"

#include <filesystem>
#include <string>
#include <system_error>

#include "base/paths.h"
#include "base/text.h"
#include "platform/crash.h"
#include "util/log_crash.h"
#include "util/worker_util.h"

void BT_InstallSehFilter() {
    namespace platform = rq::platform;
    const std::string folder = rq::NarrowUtf8(rq::GetDailyLogDir());
    std::error_code ignored;
    std::filesystem::create_directories(rq::PathFromUtf8(folder), ignored);
    platform::SetCrashFolder(folder);
    platform::SetCrashReporter(rq::NarrowUtf8(rq::GetModuleDirectory()) + "rqcrash-report");
    platform::SetCrashHook(&rq::CrashFlushLog);
    platform::SetCrashLog(&rq::CrashLogLine);
    platform::InstallCrashHandler();
}

void BT_SetFlags(std::uint32_t flags) {
    rq::platform::SetCrashFlags(flags);
}
