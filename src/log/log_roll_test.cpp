// Several processes that fill one log file beyond its limit at the same time.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <regex>

#include "base/paths.h"
#include "kit/child.h"
#include "kit/files.h"
#include "kit/temp_dir.h"

namespace rq {
namespace {

TEST(LogRoll, ProcessesThatShareAFileRollItWithoutLosingOrTearingALine) {
    constexpr int kProcesses = 3, kThreads = 2, kLines = 1000;
    constexpr std::uintmax_t kLimit_bytes = 20'000;
    const kit::TempDir folder;
    std::vector<std::unique_ptr<kit::Child>> children;
    for (int p = 0; p < kProcesses; ++p) {
        children.push_back(std::make_unique<kit::Child>(
            RQ_LOG_ROLLER, std::vector<std::string>{folder.Utf8("_W.log"), std::to_string(kLimit_bytes),
                                                    "p" + std::to_string(p), std::to_string(kThreads),
                                                    std::to_string(kLines)}));
    }
    for (auto& child : children) ASSERT_EQ(child->ExitCode(), 0) << child->Errors();

    const auto files = kit::FindFiles(folder.Path(), ".log");
    EXPECT_GT(files.size(), 5u) << "it did not roll";
    const std::regex form(R"(\d{4}-\d\d-\d\d .* \[2\] \[ACT\] \[MAIN\] \[\d+/\d+\] (p\d\.\d\.\d+))");
    std::map<std::string, int> seen;
    for (const auto& file : files) {
        // One buffer of each process may come on top of the limit, no more.
        EXPECT_LT(std::filesystem::file_size(file), kLimit_bytes + kProcesses * kThreads * 10 * 80);
        for (const std::string& line : kit::ReadLines(file)) {
            std::smatch parts;
            ASSERT_TRUE(std::regex_match(line, parts, form)) << line;
            ++seen[parts[1]];
        }
    }
    EXPECT_EQ(seen.size(), std::size_t{kProcesses * kThreads * kLines});
    for (const auto& [line, count] : seen) ASSERT_EQ(count, 1) << line;
}

}  // namespace
}  // namespace rq
