#include "ctl/output.h"

#include "platform/console.h"

namespace rq::ctl {

namespace {
bool g_isLost = false;
}

void Print(const std::string& text) {
    if (!platform::WriteStandardOutput(text)) g_isLost = true;
}

bool IsOutputLost() {
    return g_isLost;
}

}  // namespace rq::ctl
