#include "ctl/progress_line.h"

#include <gtest/gtest.h>

#include <cmath>

#include "records/engine_messages.h"

namespace rq::ctl {
namespace {

using std::chrono::seconds;

ProgressView View(double percent, double speed) {
    return {"running", percent, speed, RQ_TASK_MD5_COMPUTE, seconds(12), 0};
}

TEST(BarLine, ShowsBarPercentSpeedAndTimeLeft) {
    EXPECT_EQ(BarLine(View(50, 812.44), 80),
              "[" + std::string(15, '#') + std::string(15, ' ') + "]  50.0 %   812.4 MiB/s   0:12 left");
    EXPECT_EQ(BarLine(View(0, 0), 80), "[" + std::string(30, ' ') + "]   0.0 %   0:12 left");
}

TEST(BarLine, ShowsTheFramesOfATranscode) {
    const ProgressView view{"running", 50, 2.5, RQ_TASK_TRANSCODE, seconds(12), 62.34};
    EXPECT_EQ(BarLine(view, 80),
              "[" + std::string(15, '#') + std::string(15, ' ') + "]  50.0 %   62.3 fps   2.5x   0:12 left");
    EXPECT_EQ(PlainLine(view), "running, 50.0 %, 62.3 fps, 2.5x, 0:12 left");
}

TEST(FrameRateText, IsForTasksThatWorkOnFrames) {
    EXPECT_EQ(FrameRateText(62.34, RQ_TASK_TRANSCODE), "62.3 fps");
    EXPECT_EQ(FrameRateText(62.34, RQ_TASK_REALTIME_MERGE), "62.3 fps");
    EXPECT_EQ(FrameRateText(62.34, RQ_TASK_MD5_COMPUTE), "");
    EXPECT_EQ(FrameRateText(62.34, RQ_TASK_REVIEW), "");
    EXPECT_EQ(FrameRateText(0, RQ_TASK_TRANSCODE), "");
    EXPECT_EQ(FrameRateText(INFINITY, RQ_TASK_TRANSCODE), "");
    EXPECT_EQ(FrameRateText(std::nan(""), RQ_TASK_TRANSCODE), "");
}

TEST(BarLine, NeverFillsTheLastColumn) {
    for (unsigned columns = 1; columns < 200; ++columns) {
        for (const double percent : {0.0, 7.7, 99.99, 100.0})
            EXPECT_LT(BarLine(View(percent, 12345.6), columns).size(), std::max(2u, columns)) << columns;
    }
}

TEST(BarLine, LeavesOutWhatDoesNotFit) {
    EXPECT_EQ(BarLine(View(50, 800), 24), "[######       ]  50.0 %");
}

TEST(BarLine, SaysTheStateOfATaskThatDoesNotRun) {
    ProgressView view = View(0, 0);
    view.state = "queued";
    EXPECT_EQ(BarLine(view, 80), "[" + std::string(30, ' ') + "]   0.0 %   queued");
}

TEST(BarLine, IsNotFullBeforeTheEnd) {
    EXPECT_NE(BarLine(View(99.99, 0), 80).find(" 99.9 %"), std::string::npos);
    EXPECT_NE(BarLine(View(100, 0), 80).find("100.0 %"), std::string::npos);
    EXPECT_EQ(BarLine(View(99.99, 0), 80).find(std::string(30, '#')), std::string::npos);
}

TEST(PlainLine, HasTheSameInWords) {
    EXPECT_EQ(PlainLine(View(41.5, 812.44)), "running, 41.5 %, 812.4 MiB/s, 0:12 left");
    EXPECT_EQ(PlainLine({"queued", 0, 0, 3, {}, 0}), "queued");
    EXPECT_EQ(PlainLine({"running", 0, 0, 3, {}, 0}), "running, 0.0 %");
}

TEST(SpeedText, HasTheUnitOfTheType) {
    EXPECT_EQ(SpeedText(2, RQ_TASK_TRANSFER), "2.0 MiB/s");
    EXPECT_EQ(SpeedText(2, RQ_TASK_TRANSCODE), "2.0x");
    EXPECT_EQ(SpeedText(2, RQ_TASK_REVIEW), "2.0 /s");
    EXPECT_EQ(SpeedText(2, RQ_TASK_FRAMES), "2.0 /ms");
    EXPECT_EQ(SpeedText(0, 3), "");
    EXPECT_EQ(SpeedText(std::nan(""), 3), "");
    EXPECT_EQ(SpeedText(INFINITY, 3), "");
}

TEST(DurationText, HasHoursOnlyWhenNeeded) {
    EXPECT_EQ(DurationText(seconds(0)), "0:00");
    EXPECT_EQ(DurationText(seconds(-5)), "0:00");
    EXPECT_EQ(DurationText(seconds(754)), "12:34");
    EXPECT_EQ(DurationText(seconds(3723)), "1:02:03");
}

TEST(Pace, IsThatFromTheFirstValueToTheLatestChange) {
    Pace pace;
    const Pace::Time start{};
    EXPECT_FALSE(pace.Update(20, start));
    EXPECT_FALSE(pace.Update(30, start + std::chrono::milliseconds(500)));
    EXPECT_EQ(pace.Update(40, start + seconds(10)), 2.0);
    EXPECT_EQ(pace.Update(40, start + seconds(15)), 2.0);
    EXPECT_EQ(pace.Update(100, start + seconds(40)), 2.0);
}

TEST(Pace, SaysNothingWithoutMovementAndBeginsAnewAfterAStepBack) {
    Pace still;
    const Pace::Time start{};
    EXPECT_FALSE(still.Update(0, start));
    EXPECT_FALSE(still.Update(0, start + seconds(10)));
    Pace back;
    EXPECT_FALSE(back.Update(50, start));
    EXPECT_FALSE(back.Update(10, start + seconds(10)));
    EXPECT_EQ(back.Update(60, start + seconds(20)), 5.0);
}

TEST(TimeLeft, IsWhatIsMissingAtThatPace) {
    EXPECT_EQ(TimeLeft(40, 2), seconds(30));
    EXPECT_EQ(TimeLeft(100, 2), seconds(0));
    EXPECT_EQ(TimeLeft(0, 0), std::nullopt);
    EXPECT_EQ(TimeLeft(0, 1e-9), std::nullopt);
}

}  // namespace
}  // namespace rq::ctl
