#include "platform/crash_help_win.h"

#include <atomic>

namespace rq::platform {

namespace {

constexpr SIZE_T kStack_bytes = 256 * 1024;

struct Watch {
    HANDLE begin = nullptr;
    // Both written before `begin` is set.
    std::atomic<UINT> exitCode{0};
    std::atomic<ULONGLONG> deadline_ms{0};
} g_watch;

struct Help {
    HANDLE begin = nullptr;
    HANDLE end = nullptr;
    DWORD thread = 0;
    std::atomic<void (*)()> work{nullptr};
    std::atomic<bool> isDone{false};
} g_help;

HANDLE g_began = nullptr;  // set by the thread that is being started; never closed, it may be late

DWORD WINAPI Watcher(void*) {
    ::SetEvent(g_began);
    ::WaitForSingleObject(g_watch.begin, INFINITE);
    const ULONGLONG deadline_ms = g_watch.deadline_ms.load();
    for (;;) {
        const ULONGLONG now_ms = ::GetTickCount64();
        if (now_ms >= deadline_ms) break;
        ::Sleep(static_cast<DWORD>(deadline_ms - now_ms));
    }
    ::TerminateProcess(::GetCurrentProcess(), g_watch.exitCode.load());
    return 0;
}

DWORD WINAPI Helper(void*) {
    ::SetEvent(g_began);
    ::WaitForSingleObject(g_help.begin, INFINITE);
    g_help.work.load()();
    g_help.isDone.store(true);
    ::SetEvent(g_help.end);
    return 0;
}

HANDLE NewEvent() {
    return ::CreateEventW(nullptr, TRUE, FALSE, nullptr);  // once set, it stays so
}

// Returns when the thread runs: while it begins, it takes the locks of the loader and the heap, and a crash
// that holds one of them would wait for it.
DWORD StartThread(LPTHREAD_START_ROUTINE routine) {
    constexpr DWORD kBeginLimit_ms = 5000;
    DWORD id = 0;
    g_began = NewEvent();
    const HANDLE thread =
        ::CreateThread(nullptr, kStack_bytes, routine, nullptr, STACK_SIZE_PARAM_IS_A_RESERVATION, &id);
    if (thread == nullptr) return 0;
    ::CloseHandle(thread);
    if (g_began != nullptr) ::WaitForSingleObject(g_began, kBeginLimit_ms);
    return id;
}

}  // namespace

void StartCrashHelp() {
    if (g_watch.begin != nullptr) return;
    g_watch.begin = NewEvent();
    g_help.begin = NewEvent();
    g_help.end = NewEvent();
    if (g_watch.begin != nullptr) StartThread(&Watcher);
    if (g_help.begin != nullptr && g_help.end != nullptr) g_help.thread = StartThread(&Helper);
}

void WatchTheEnd(UINT exitCode, std::chrono::milliseconds limit) {
    g_watch.exitCode.store(exitCode);
    g_watch.deadline_ms.store(::GetTickCount64() + static_cast<ULONGLONG>(limit.count()));
    if (g_watch.begin != nullptr) ::SetEvent(g_watch.begin);
}

bool HaveHelperDo(void (*work)()) {
    if (g_help.thread == 0) return false;
    g_help.work.store(work);
    ::SetEvent(g_help.begin);
    ::WaitForSingleObject(g_help.end, INFINITE);  // the watcher's limit holds
    return g_help.isDone.load();
}

void StopIfHelper() {
    if (g_help.thread != ::GetCurrentThreadId()) return;
    ::SetEvent(g_help.end);
    ::Sleep(INFINITE);
}

}  // namespace rq::platform
