#include "engine/heartbeat_interval.h"

#include <algorithm>

#include "base/paths.h"
#include "util/utility.h"

namespace rq::engine {

namespace {

constexpr int kActsFrom_s = 60;  // from here on the worker takes kActsAs_s
constexpr int kActsAs_s = 40;

}  // namespace

std::chrono::milliseconds HeartbeatInterval(const std::string& stageFolder) {
    tagOVLCommunicationParam parameter;  // a file that is not there or no good leaves the defaults
    KWOVL_UTILITY::OVLReadRunningParameter(Utf8FromPath(PathFromUtf8(stageFolder) / "actor.xml"), &parameter);
    const int read_s = parameter.heartbeatInterval_s;
    return std::chrono::seconds(read_s >= kActsFrom_s ? kActsAs_s : std::max(read_s, 1));
}

}  // namespace rq::engine
