// What the engine bears of connections that nobody has shown the token on, and of senders that never finish.
#include "engine/engine_fixture.h"

namespace rq::engine {
namespace {

using LinkLimitsTest = EngineTest;

TEST_F(LinkLimitsTest, WhoSaysNothingMakesWayForWhoSpeaks) {
    Start();
    std::vector<std::unique_ptr<LinkClient>> silent;
    for (int i = 0; i < 300; ++i) {
        silent.push_back(std::make_unique<LinkClient>());
        ASSERT_TRUE(silent.back()->Connect(m_engine->LinkPort()));
    }
    LinkClient worker;
    ASSERT_TRUE(worker.Connect(m_engine->LinkPort()));
    EXPECT_EQ(worker.Greet(m_engine->Token(), ""), 0u);
    EXPECT_FALSE(silent.front()->ReadFrame());  // closed without a word
}

TEST_F(LinkLimitsTest, WorkersThatAreThereKeepTheirPlaces) {
    m_settings.maxConnections = 2;
    Start();
    LinkClient one, two, three;
    for (LinkClient* worker : {&one, &two}) {
        ASSERT_TRUE(worker->Connect(m_engine->LinkPort()));
        EXPECT_EQ(worker->Greet(m_engine->Token(), ""), 0u);
    }
    ASSERT_TRUE(three.Connect(m_engine->LinkPort()));
    EXPECT_EQ(three.Greet(m_engine->Token(), ""), link::kRefuseEnding);
    EXPECT_TRUE(one.SendFrame({0, 0, link::kPingId, ""}));
    const auto answer = one.ReadFrame();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->id, link::kAckId);
}

TEST_F(LinkLimitsTest, AFrameThatNeverComesWholeIsNotAwaitedForEver) {
    m_settings.silenceLimit = 400ms;
    Start();
    LinkClient worker;
    ASSERT_TRUE(worker.Connect(m_engine->LinkPort()));
    EXPECT_EQ(worker.Greet(m_engine->Token(), ""), 0u);
    // Never silent, and never done.
    ASSERT_TRUE(worker.SendBytes(std::string("\xFF\xFF\x00\x00", 4)));
    std::thread sender([&] {
        while (worker.SendBytes("\x22")) std::this_thread::sleep_for(50ms);
    });
    while (worker.ReadFrame()) {
    }
    sender.join();
    const json tasks = Ask("GET", "/api/v1/tasks")["tasks"];
    ASSERT_EQ(tasks.size(), 1u);
    bool isSaid = false;
    const auto events = EventsUntil(tasks[0]["id"], "disconnected");
    for (const auto& event : events)
        isSaid = isSaid || event["data"].dump().find("did not come whole") != std::string::npos;
    EXPECT_TRUE(isSaid) << json(events);
}

}  // namespace
}  // namespace rq::engine
