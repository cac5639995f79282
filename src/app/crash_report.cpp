#include "app/crash_report.h"

#include "platform/start_up.h"
#include "util/log_crash.h"

void BT_InstallSehFilter() {
    rq::platform::SetCrashHook(&rq::CrashFlushLog);
    rq::platform::InstallCrashHandler();
}

void BT_SetFlags(std::uint32_t flags) {
    rq::platform::SetCrashFlags(flags);
}
