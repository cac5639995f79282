#include "platform/end_request.h"

namespace rq::platform {

namespace {

class NothingToHear final : public EndRequests {};

}  // namespace

std::unique_ptr<EndRequests> EndRequests::Listen(std::function<void()> /*onRequest*/) {
    return std::make_unique<NothingToHear>();
}

bool AskToEnd(std::uint64_t /*processId*/) {
    return false;
}

}  // namespace rq::platform
