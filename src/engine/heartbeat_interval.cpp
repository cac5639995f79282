#include "engine/heartbeat_interval.h"

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <sstream>

#include "base/paths.h"
#include "platform/files.h"

namespace rq::engine {

namespace {

constexpr int kDefault_s = 60;
constexpr int kActsFrom_s = 60;  // from here on the worker takes kActsAs_s
constexpr int kActsAs_s = 40;
constexpr std::size_t kFileLimit_bytes = 1024 * 1024;

int FromFile(const std::string& file) {
    platform::OsError error;
    const auto text = platform::ReadWholeFile(file, &error, kFileLimit_bytes);
    if (!text) return kDefault_s;
    try {
        std::istringstream stream(*text);
        boost::property_tree::ptree tree;
        boost::property_tree::read_xml(stream, tree);
        return tree.get<int>("RunningParameters.HeartbeatInterval", kDefault_s);
    } catch (const boost::property_tree::ptree_error&) {
        return kDefault_s;
    }
}

}  // namespace

std::chrono::milliseconds HeartbeatInterval(const std::string& stageFolder) {
    const int read_s = FromFile(Utf8FromPath(PathFromUtf8(stageFolder) / "actor.xml"));
    return std::chrono::seconds(read_s >= kActsFrom_s ? kActsAs_s : std::max(read_s, 1));
}

}  // namespace rq::engine
