// A session under test, and its engine's hand.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "link/session.h"

namespace rq::link {

struct SessionTest {
    explicit SessionTest(SessionLimits limits = {})
        : session({1, "t", "a", 1, "v", 0, 0}, limits, now, false) {}

    std::vector<Frame> Take() {
        FrameReader reader;
        reader.Feed(session.TakeOutput(now));
        std::vector<Frame> frames;
        Frame frame;
        while (reader.Next(&frame) == FrameReader::Status::Ready) frames.push_back(frame);
        EXPECT_EQ(reader.Buffered(), 0u);
        return frames;
    }
    std::vector<Frame> Written() {
        std::vector<Frame> frames = Take();
        if (!frames.empty()) session.OnWritten(now);
        return frames;
    }
    void Receive(const Frame& frame) { session.OnBytes(*EncodeFrame(frame), now); }
    void Open(std::uint32_t ping_ms = 15'000, std::uint32_t silence_ms = 60'000) {
        OpenWith({1, 7, 0, ping_ms, silence_ms, {}});
    }
    void OpenWith(const Welcome& welcome) {
        session.OnConnected(now);
        Written();
        Receive({0, 0, kWelcomeId, EncodeWelcome(welcome)});
        session.TakeEvents();
    }
    std::uint64_t Queue(std::string body = "x") {
        std::string problem;
        return session.Queue(4008, std::move(body), &problem);
    }
    void Order(std::uint64_t seq) { Receive({seq, 0, 4014, {}}); }
    // The close event's reason, empty when there is none; *wasOpen as it says.
    std::string Closed(bool* wasOpen = nullptr) {
        for (const SessionEvent& event : session.TakeEvents())
            if (const auto* closed = std::get_if<SessionClosed>(&event)) {
                if (wasOpen != nullptr) *wasOpen = closed->wasOpen;
                return closed->reason;
            }
        return {};
    }

    SteadyTime now{std::chrono::hours(100)};
    Session session;
};

}  // namespace rq::link
