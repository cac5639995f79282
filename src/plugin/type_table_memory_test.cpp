// The type table when memory does not suffice. A program of its own: it replaces operator new.

#include <gtest/gtest.h>

#include <atomic>
#include <limits>

#include "base/paths.h"
#include "kit/temp_dir.h"
#include "kit/watched_new.h"
#include "plugin/worker_type_table.h"
#include "util/log_capture.h"

namespace {

constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();
std::atomic<std::size_t> g_largest_bytes{kUnlimited};  // what a single allocation may ask for

}  // namespace

bool rq::kit::MayAllocate(std::size_t size_bytes) {
    return size_bytes <= g_largest_bytes;
}

namespace rq {
namespace {

TEST(TypeTableMemory, ThatDoesNotSufficeIsATableThatDoesNotLoad) {
    const kit::TempDir folder;
    std::string text =
        "<c>" + std::string(1 << 20, ' ') + "<WORKER><TYPE>1</TYPE><PATH>a</PATH></WORKER></c>";
    folder.Write("RQWorkerConfig.xml", text);
    WorkerTypeTable table(WideFromPath(folder.Path()) + PathSeparator());
    LogCapture log;
    WideText path;
    ASSERT_TRUE(table.GetWorkerDllPath(1, path));
    g_largest_bytes = 1 << 19;
    const bool isFound = table.GetWorkerDllPath(1, path);
    g_largest_bytes = kUnlimited;
    EXPECT_FALSE(isFound);
    const std::vector<LogLine> lines = log.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "File [" + folder.Utf8("RQWorkerConfig.xml") + "] load failed.");
    EXPECT_EQ(lines[1].text, "RQWorkerConfig.xml: there is not enough memory for it");
}

}  // namespace
}  // namespace rq
