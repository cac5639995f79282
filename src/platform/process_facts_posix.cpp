// Linux: /proc for threads and descriptors, the allocator for memory.
#include "platform/process_facts.h"

#include <malloc.h>

#include <filesystem>
#include <system_error>

// The sanitizers' allocators count by themselves; elsewhere the function is not there.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace rq::platform {
namespace {

std::size_t CountEntries(const char* folder) {
    std::error_code error;
    std::size_t count = 0;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error))
        ++count;
    return count;
}

}  // namespace

std::size_t ThreadCount() {
    return CountEntries("/proc/self/task");
}

std::size_t HandleCount() {
    const std::size_t count = CountEntries("/proc/self/fd");
    return count == 0 ? 0 : count - 1;  // the folder itself is open while it is read
}

std::uint64_t AllocatedBytes() {
    if (&__sanitizer_get_current_allocated_bytes != nullptr) return __sanitizer_get_current_allocated_bytes();
    const struct mallinfo2 info = ::mallinfo2();
    return static_cast<std::uint64_t>(info.uordblks) + info.hblkhd;
}

std::vector<std::pair<std::string, std::string>> MarkFreedMemory() {
    return {{"MALLOC_PERTURB_", "165"}};
}

}  // namespace rq::platform
