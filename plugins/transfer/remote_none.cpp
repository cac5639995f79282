// A build without libcurl.
#include "plugin_common/codes.h"
#include "remote.h"

namespace rq::transfer {

bool TakesUrls() {
    return false;
}

struct Remote::Curl {};

namespace {
Failure None() {
    return {task::kErrorRemote, 0, "this build transfers no URLs"};
}
}  // namespace

Remote::Remote(Settings settings) : m_settings(std::move(settings)) {}
Remote::~Remote() = default;
Problem Remote::Look(RemoteFacts&) {
    return None();
}
Problem Remote::LookAt(const std::string&, RemoteFacts&) {
    return None();
}
Problem Remote::Get(const std::string&, Sink&, std::uint64_t&) {
    return None();
}
Problem Remote::Download(Sink&, std::uint64_t&) {
    return None();
}
Problem Remote::Upload(Supply&, bool) {
    return None();
}
Problem Remote::ReadBack(Sink&, std::uint64_t&) {
    return None();
}
Problem Remote::Publish(bool) {
    return None();
}
void Remote::Discard() {}

Problem FindCredential(const std::string&, const std::string&, Credential&) {
    return None();
}

}  // namespace rq::transfer
