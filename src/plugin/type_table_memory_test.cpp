// The type table when memory does not suffice. A program of its own: it replaces operator new.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

#include "base/paths.h"
#include "kit/temp_dir.h"
#include "platform/noinline.h"
#include "plugin/worker_type_table.h"
#include "util/log_capture.h"

namespace {

constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();
std::atomic<std::size_t> g_largest_bytes{kUnlimited};  // what a single allocation may ask for

}  // namespace

// Not inlined, since the compiler would take malloc and free at one place for a pair that does not fit.
RQ_NOINLINE void* operator new(std::size_t size_bytes) {
    if (size_bytes > g_largest_bytes) throw std::bad_alloc();
    void* memory = std::malloc(size_bytes > 0 ? size_bytes : 1);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

RQ_NOINLINE void operator delete(void* memory) noexcept {
    std::free(memory);
}

RQ_NOINLINE void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
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
