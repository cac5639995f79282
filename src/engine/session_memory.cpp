#include "engine/session_memory.h"

#include <algorithm>

namespace rq::engine {

Result<void> SessionMemory::Keep(std::uint32_t id, const link::Order& order) {
    auto body = link::EncodeOrder(id, order);
    if (!body) return body.error();
    orders.push_back({0, id, std::move(*body)});
    return {};
}

void SessionMemory::TakeAck(std::uint64_t ack) {
    acknowledged = std::max(acknowledged, ack);
    while (!orders.empty() && orders.front().seq != 0 && orders.front().seq <= ack) orders.pop_front();
}

bool SessionMemory::CatchUp(const link::Hello& hello) {
    if (knowsSent || hello.resumeAcknowledged <= has) return false;
    has = hello.resumeAcknowledged;
    return true;
}

std::optional<std::string> SessionMemory::Contradiction(const link::Hello& hello) const {
    if (hello.resumeAcknowledged > has)
        return "frame " + std::to_string(hello.resumeAcknowledged) + " was not acknowledged, only up to " +
               std::to_string(has);
    if (knowsSent && hello.resumeReceived > sent)
        return "frame " + std::to_string(hello.resumeReceived) + " was not sent, only up to " +
               std::to_string(sent);
    if (hello.resumeReceived < acknowledged)
        return "frame " + std::to_string(acknowledged) + " was acknowledged before";
    return std::nullopt;
}

void SessionMemory::ContinueFrom(std::uint64_t received) {
    TakeAck(received);
    sent = received;
    knowsSent = true;
    for (auto& order : orders) order.seq = ++sent;
}

}  // namespace rq::engine
