#include "engine/heartbeat_interval.h"

#include <gtest/gtest.h>

#include "kit/temp_dir.h"

namespace rq::engine {
namespace {

using namespace std::chrono_literals;

TEST(HeartbeatInterval, IsTheWorkersOwn) {
    kit::TempDir stage;
    EXPECT_EQ(HeartbeatInterval(stage.Utf8()), 40s);
    const auto with = [&](const std::string& value) {
        stage.Write("actor.xml",
                    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<RunningParameters>\n"
                    "<Value01>1</Value01><HeartbeatInterval>" +
                        value + "</HeartbeatInterval></RunningParameters>\n");
        return HeartbeatInterval(stage.Utf8());
    };
    EXPECT_EQ(with("59"), 59s);
    EXPECT_EQ(with("60"), 40s);
    EXPECT_EQ(with("3600"), 40s);
    EXPECT_EQ(with(" 5 "), 5s);
    EXPECT_EQ(with("0"), 1s);
    EXPECT_EQ(with("-4"), 1s);
    EXPECT_EQ(with("often"), 40s);
    stage.Write("actor.xml", "<RunningParameters><Heart");
    EXPECT_EQ(HeartbeatInterval(stage.Utf8()), 40s);
    // A file that the worker calls damaged gives it the default, whatever stands in it.
    stage.Write("actor.xml",
                "<RunningParameters><HeartbeatInterval>3</HeartbeatIntervall></RunningParameters>");
    EXPECT_EQ(HeartbeatInterval(stage.Utf8()), 40s);
}

}  // namespace
}  // namespace rq::engine
