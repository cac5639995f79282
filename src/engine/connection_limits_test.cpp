#include "engine/connection_limits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace rq::engine {
namespace {

EngineSettings WithWorkers(unsigned workers) {
    EngineSettings settings;
    settings.maxWorkers = workers;
    return settings;
}

TEST(ConnectionLimits, AreThoseOfTheSettingsWhenThereIsRoom) {
    const auto limits = LimitConnections(WithWorkers(8), 20'000);
    ASSERT_TRUE(limits);
    EXPECT_EQ(limits->link.strangers, 256u);
    EXPECT_EQ(limits->link.guests, 4096u);
    EXPECT_EQ(limits->http.strangers, 256u);
    EXPECT_EQ(limits->http.guests, 512u);
    EXPECT_FALSE(limits->link.guestsGiveWay);
    EXPECT_TRUE(limits->http.guestsGiveWay);
}

TEST(ConnectionLimits, LeaveFilesForTheEngineAndItsWorkers) {
    for (const std::uint64_t files : {128u, 160u, 256u, 1024u, 4096u, 5000u}) {
        for (const unsigned workers : {1u, 2u, 8u}) {
            const auto limits = LimitConnections(WithWorkers(workers), files);
            ASSERT_TRUE(limits) << files;
            const auto taken =
                limits->link.strangers + limits->link.guests + limits->http.strangers + limits->http.guests;
            EXPECT_GE(limits->link.guests, workers);
            EXPECT_GE(limits->http.guests, 8u);
            // Three small ones may be raised to what is needed at least.
            EXPECT_LE(taken, files - 48 - 4 * workers + 24) << files;
        }
    }
}

TEST(ConnectionLimits, StrangersGetUpToAQuarterWhenFilesAreFew) {
    const auto limits = LimitConnections(WithWorkers(2), 1024);  // 968 of them for connections
    ASSERT_TRUE(limits);
    EXPECT_EQ(limits->link.strangers, 121u);
    EXPECT_EQ(limits->http.strangers, 121u);
    EXPECT_EQ(limits->link.guests, 645u);
    EXPECT_EQ(limits->http.guests, 80u);
}

TEST(ConnectionLimits, TooFewFilesAreRefusedWithARemedy) {
    const auto limits = LimitConnections(WithWorkers(100), 256);
    ASSERT_FALSE(limits);
    EXPECT_THAT(limits.error().message, testing::HasSubstr("ulimit -n"));
}

}  // namespace
}  // namespace rq::engine
