#include "app/crash_report.h"

#include "base/text.h"
#include "platform/start_up.h"
#include "util/log_crash.h"
#include "util/worker_util.h"

void BT_InstallSehFilter() {
    rq::platform::SetCrashFolder(rq::NarrowUtf8(rq::GetDailyLogDir()));
    rq::platform::SetCrashHook(&rq::CrashFlushLog);
    rq::platform::InstallCrashHandler();
}

void BT_SetFlags(std::uint32_t flags) {
    rq::platform::SetCrashFlags(flags);
}
