#include "plugincheck/resource_watch.h"

#include <gtest/gtest.h>

namespace rq::plugincheck {
namespace {

std::vector<std::uint64_t> Memory(std::size_t tasks, std::uint64_t perTask) {
    std::vector<std::uint64_t> bytes;
    for (std::size_t i = 0; i < tasks; ++i) bytes.push_back(10'000'000 + i * perTask);
    return bytes;
}

TEST(JudgeMemory, TellsASteadyLeak) {
    const auto growth = JudgeMemory(Memory(1000, 200));
    ASSERT_TRUE(growth);
    EXPECT_NEAR(growth->perTask, 200, 1);
    EXPECT_TRUE(growth->breach);
}

TEST(JudgeMemory, LetsPassWhatStaysBelowTheLimit) {
    EXPECT_FALSE(JudgeMemory(Memory(1000, 100))->breach);  // 56 KB after 561 tasks
    EXPECT_TRUE(JudgeMemory(Memory(1000, 130))->breach);
}

TEST(JudgeMemory, LetsPassACacheThatFillsAtOnce) {
    std::vector<std::uint64_t> bytes = Memory(1000, 0);
    for (std::size_t i = 600; i < bytes.size(); ++i) bytes[i] += 5'000'000;
    EXPECT_FALSE(JudgeMemory(bytes)->breach);
}

TEST(JudgeMemory, LooksPastTheFirstQuarterAndSinglePeaks) {
    std::vector<std::uint64_t> bytes = Memory(400, 0);
    for (std::size_t i = 0; i < 100; ++i) bytes[i] = i * 90'000;
    for (std::size_t i = 100; i < bytes.size(); i += 10) bytes[i] += 900'000 * i;
    EXPECT_FALSE(JudgeMemory(bytes)->breach);
}

TEST(JudgeMemory, DoesNotJudgeAFewTasks) {
    EXPECT_FALSE(JudgeMemory(Memory(39, 1'000'000)));
    EXPECT_TRUE(JudgeMemory(Memory(40, 1'000'000)));
}

TEST(JudgeHandles, TellsAHandleForEachTask) {
    std::vector<std::size_t> handles;
    for (std::size_t i = 0; i < 100; ++i) handles.push_back(7 + i);
    const auto growth = JudgeHandles(handles);
    ASSERT_TRUE(growth);
    EXPECT_DOUBLE_EQ(growth->perTask, 1);
    EXPECT_TRUE(growth->breach);
}

TEST(JudgeHandles, LetsPassAFewThatAreOpenedOnce) {
    std::vector<std::size_t> handles(100, 7);
    for (std::size_t i = 50; i < handles.size(); ++i) handles[i] = 15;
    EXPECT_FALSE(JudgeHandles(handles)->breach);
    EXPECT_FALSE(JudgeHandles(std::vector<std::size_t>(39, 7)));
}

}  // namespace
}  // namespace rq::plugincheck
