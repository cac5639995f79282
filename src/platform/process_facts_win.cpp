// Windows: a snapshot of threads, the process's handle count, its heaps.
#include "platform/process_facts.h"

#include "platform/win_api.h"

// After the system's own header.
#include <tlhelp32.h>

#include <algorithm>

namespace rq::platform {
namespace {

// Asks for every value that a handle can have. They are multiples of 4, and the lowest free one is given away
// first: a long row of free ones is the end of the table. Not NtQuerySystemInformation's table of all
// handles: Wine 8 does not implement GetProcessHandleCount, and its server crashes when it lists the handles
// of a process that has none (yet).
std::size_t CountByAsking() {
    constexpr std::size_t kFreeAtTheEnd = 256;
    std::size_t count = 0;
    std::size_t free = 0;
    for (std::uintptr_t value = 4; free < kFreeAtTheEnd; value += 4) {
        DWORD flags = 0;
        if (::GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) {
            ++count;
            free = 0;
        } else {
            ++free;
        }
    }
    return count;
}

}  // namespace

std::size_t ThreadCount() {
    const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot == INVALID_HANDLE_VALUE) return 0;
    const DWORD self = ::GetCurrentProcessId();
    std::size_t count = 0;
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = ::Thread32First(snapshot, &entry); more; more = ::Thread32Next(snapshot, &entry)) {
        if (entry.th32OwnerProcessID == self) ++count;
    }
    ::CloseHandle(snapshot);
    return count;
}

std::size_t HandleCount() {
    DWORD count = 0;
    if (::GetProcessHandleCount(::GetCurrentProcess(), &count) && count > 0) return count;
    return CountByAsking();  // where the call above tells nothing
}

// The blocks of every heap of the process, counted one by one.
std::uint64_t AllocatedBytes() {
    HANDLE heaps[64];
    const DWORD count = std::min<DWORD>(::GetProcessHeaps(64, heaps), 64);
    std::uint64_t bytes = 0;
    for (DWORD i = 0; i < count; ++i) {
        if (!::HeapLock(heaps[i])) continue;
        PROCESS_HEAP_ENTRY entry{};
        while (::HeapWalk(heaps[i], &entry))
            if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0) bytes += entry.cbData;
        ::HeapUnlock(heaps[i]);
    }
    return bytes;
}

std::vector<std::pair<std::string, std::string>> MarkFreedMemory() {
    return {};
}

}  // namespace rq::platform
