#include "plugin_common/long_call.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>

namespace rq::task {
namespace {

// Counts signs of life; anything else is a failure.
struct Calls {
    std::atomic<int> signs{0};
    std::atomic<std::int64_t> last_s{-1};
    std::thread::id thread;
};

std::uint32_t Count(std::int64_t total, std::int64_t done, void* context) {
    auto& calls = *static_cast<Calls*>(context);
    EXPECT_EQ(total, 0);
    EXPECT_EQ(std::this_thread::get_id(), calls.thread);
    calls.last_s = done;
    ++calls.signs;
    return 0;
}

TEST(LongCall, TellsFromTheCallersThreadThatItGoesOn) {
    Calls calls;
    calls.thread = std::this_thread::get_id();
    const volatile std::uint32_t stop = RQ_STOP_NONE;
    plugin::Run run(&stop, Count, &calls, nullptr);
    const std::string result = MakeLongCall(run, [&] {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (calls.signs < 3 && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return std::string("done");
    });
    EXPECT_EQ(result, "done");
    EXPECT_GE(calls.signs, 3);
    EXPECT_GT(calls.last_s, 0);
    EXPECT_LT(calls.last_s, kLongCall_s.count());
}

TEST(LongCall, PromisesNoMoreThanItsLimit) {
    Calls calls;
    calls.thread = std::this_thread::get_id();
    const volatile std::uint32_t stop = RQ_STOP_NONE;
    plugin::Run run(&stop, Count, &calls, nullptr);
    const auto wait = [&] {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (calls.signs == 0 && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return 0;
    };
    MakeLongCall(run, wait, std::chrono::seconds(600));
    EXPECT_GT(calls.last_s, kLongCall_s.count());
    EXPECT_LT(calls.last_s, 600);
}

TEST(LongCall, SaysNothingOfAShortOneAndPassesOnWhatItThrows) {
    Calls calls;
    calls.thread = std::this_thread::get_id();
    const volatile std::uint32_t stop = RQ_STOP_NONE;
    plugin::Run run(&stop, Count, &calls, nullptr);
    EXPECT_THROW(MakeLongCall(run, []() -> int { throw std::runtime_error("x"); }), std::runtime_error);
}

}  // namespace
}  // namespace rq::task
