#include "engine/path_probe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <vector>

#include "kit/files.h"
#include "kit/temp_dir.h"

namespace rq::engine {
namespace {

using namespace std::chrono_literals;

TEST(PathProbe, TellsWhatIsThere) {
    kit::TempDir folder;
    folder.Write("a", "123");
    const PathFacts file = LookAtPath(folder.Utf8("a"));
    EXPECT_TRUE(file.isReached && file.isReadable);
    EXPECT_EQ(file.kind, "file");
    EXPECT_EQ(file.size_bytes, 3u);
    EXPECT_EQ(file.problem, "");
    const PathFacts list = LookAtPath(folder.Utf8());
    EXPECT_TRUE(list.isReached && list.isReadable);
    EXPECT_EQ(list.kind, "folder");
    EXPECT_FALSE(list.size_bytes);
    const PathFacts none = LookAtPath(folder.Utf8("a/b"));
    EXPECT_FALSE(none.isReached);
    EXPECT_NE(none.problem, "");
}

// Shares that are away hold their askers, of which there are only so many.
TEST(PathProbe, NobodyWaitsForAShareThatIsAway) {
    boost::asio::io_context io;
    std::promise<void> back;
    const std::shared_future<void> isBack = back.get_future();
    std::atomic<int> ended{0};
    const auto hang = [isBack, &ended](const std::string&) {
        isBack.wait();
        ++ended;
        return PathFacts{};
    };
    std::vector<std::string> problems;
    const auto note = [&](const PathFacts& facts) { problems.push_back(facts.problem); };
    for (int i = 0; i < 4; ++i) ProbePath(io, "/away", 10ms, note, hang);
    EXPECT_TRUE(problems.empty());
    ProbePath(io, "/away", 10ms, note, hang);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0],
              "as many paths as may be looked at at a time have not answered yet; try again later");
    io.run_for(20s);
    ASSERT_EQ(problems.size(), 5u);
    EXPECT_EQ(problems[4], "the system has not answered for 10 ms");
    EXPECT_EQ(ended, 0);
    back.set_value();
    EXPECT_TRUE(kit::WaitUntil([&] { return ended == 4; }));
    // Their places are free again a moment later; who finds none is told at once.
    int refused = 0, answered = 0;
    EXPECT_TRUE(kit::WaitUntil([&] {
        const int before = refused;
        ProbePath(io, "/", 20s, [&](const PathFacts& facts) { ++(facts.isReached ? answered : refused); });
        return refused == before;
    }));
    io.restart();
    io.run_for(20s);
    EXPECT_EQ(answered, 1);
}

TEST(PathProbe, AnAnswerComesOnce) {
    boost::asio::io_context io;
    kit::TempDir folder;
    int answers = 0;
    ProbePath(io, folder.Utf8(), 20s, [&](const PathFacts& facts) {
        ++answers;
        EXPECT_EQ(facts.kind, "folder");
    });
    EXPECT_EQ(answers, 0);
    io.run_for(20s);
    EXPECT_EQ(answers, 1);
}

}  // namespace
}  // namespace rq::engine
