#include "app/crash_filter.h"

#include "app/crash_report.h"

namespace rq {

void InstallCrashFilter() {
    BT_InstallSehFilter();
    BT_SetFlags(1);
}

}  // namespace rq
