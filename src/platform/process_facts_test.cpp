#include "platform/process_facts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

namespace rq::platform {
namespace {

TEST(ProcessFacts, CountsAThreadWhileItRuns) {
    const std::size_t before = ThreadCount();
    ASSERT_GE(before, 1u);
    std::atomic<bool> goOn{false};
    std::thread thread([&] {
        while (!goOn) std::this_thread::yield();
    });
    EXPECT_EQ(ThreadCount(), before + 1);
    goOn = true;
    thread.join();
    for (int i = 0; i < 1000 && ThreadCount() > before; ++i) std::this_thread::yield();
    EXPECT_EQ(ThreadCount(), before);
}

TEST(ProcessFacts, CountsAnOpenFile) {
    const std::size_t before = HandleCount();
    ASSERT_GE(before, 1u);
    std::FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    EXPECT_GT(HandleCount(), before);
    std::fclose(file);
    EXPECT_LE(HandleCount(), before);
}

TEST(ProcessFacts, SeesMemoryThatIsHeld) {
    constexpr std::size_t kBlock = 64 * 1024;
    constexpr std::size_t kBlocks = 256;
    const std::uint64_t before = AllocatedBytes();
    ASSERT_GT(before, 0u);
    std::vector<std::unique_ptr<char[]>> held;
    for (std::size_t i = 0; i < kBlocks; ++i) held.push_back(std::make_unique<char[]>(kBlock));
    EXPECT_GE(AllocatedBytes(), before + kBlock * kBlocks);
    held.clear();
    EXPECT_LT(AllocatedBytes(), before + kBlock);
}

}  // namespace
}  // namespace rq::platform
