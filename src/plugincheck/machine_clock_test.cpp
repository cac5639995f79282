#include "plugincheck/machine_clock.h"

#include <gtest/gtest.h>

namespace rq::plugincheck {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

TEST(MachineClock, StandsStillWhileNobodyCounts) {
    const auto before = MachineClock::now();
    std::this_thread::sleep_for(milliseconds(120));  // no thread ticks
    EXPECT_LE(MachineClock::now() - before, milliseconds(31));
}

TEST(MachineClock, GoesOnWhileItsThreadDoesAndNeverFasterThanTime) {
    const MachineClockThread thread;
    const auto begin = steady_clock::now();
    const auto before = MachineClock::now();
    while (MachineClock::now() - before < milliseconds(200)) std::this_thread::sleep_for(milliseconds(1));
    EXPECT_GE(steady_clock::now() - begin, milliseconds(199));
}

}  // namespace
}  // namespace rq::plugincheck
