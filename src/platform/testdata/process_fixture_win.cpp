#include "process_fixture.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "platform/crash.h"
#include "platform/crash_text.h"
#include "platform/end_request.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/noinline.h"
#include "platform/process.h"
#include "platform/start_up.h"
#include "platform/win_api.h"

namespace fixture {

namespace {

using namespace rq::platform;

constexpr int kEnded = 15;  // the number of the signal that a request is on Linux

std::unique_ptr<EndRequests> g_requests;

bool IsInJob() {
    BOOL isInJob = FALSE;
    return ::IsProcessInJob(::GetCurrentProcess(), nullptr, &isInJob) && isInJob;
}

const bool g_beganInItsTree = IsInJob();

void Hook() noexcept {
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), "hook\r\n", 6, &written, nullptr);
}

void HangingHook() noexcept {
    Hook();
    ::Sleep(INFINITE);
}

BOOL WINAPI DumpForEver() {
    ::Sleep(INFINITE);
    return TRUE;
}

BOOL WINAPI DumpNothing() {
    return FALSE;
}

BOOL WINAPI DumpAndCrash() {
    ::RaiseException(0xE0005678, 0, 0, nullptr);
    return TRUE;
}

// From now on the system's function for dumps is that one: it jumps there.
void DumpBy(BOOL(WINAPI* function)()) {
    unsigned char jump[] = {0x48, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xE0};  // mov rax, ...; jmp rax
    std::memcpy(jump + 2, &function, sizeof function);
    void* place =
        reinterpret_cast<void*>(::GetProcAddress(::LoadLibraryW(L"dbghelp.dll"), "MiniDumpWriteDump"));
    DWORD before = 0;
    ::VirtualProtect(place, sizeof jump, PAGE_EXECUTE_READWRITE, &before);
    std::memcpy(place, jump, sizeof jump);
    ::VirtualProtect(place, sizeof jump, before, &before);
    ::FlushInstructionCache(::GetCurrentProcess(), place, sizeof jump);
}

void WriteNowhere() {
    volatile int* nowhere = nullptr;
    *nowhere = 1;
}

void LogHook(std::string_view line, std::uint32_t thread) noexcept {
    CrashText text;
    text << "log: ";
    text.Decimal(thread) << " " << line << "\r\n";
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), text.Terminated(), static_cast<DWORD>(text.View().size()),
                &written, nullptr);
}

RQ_NOINLINE int Overflow(volatile int* depth) {
    volatile int room[1024] = {};
    room[0] = *depth + 1;
    if (room[0] == 0) return 0;  // after more rounds than any stack has room for
    return room[0] + Overflow(room);
}

}  // namespace

void PrintHandles(int count, char** numbers) {
    for (int i = 0; i < count; ++i) {
        DWORD flags = 0;
        const auto handle = reinterpret_cast<HANDLE>(std::strtoull(numbers[i], nullptr, 10));
        if (::GetHandleInformation(handle, &flags)) std::printf("%s\n", numbers[i]);
    }
}

void PrintSignals() {}

void PrintEnvironment() {
    wchar_t* block = ::GetEnvironmentStringsW();
    for (const wchar_t* at = block; *at != L'\0'; at += wcslen(at) + 1)
        std::printf("%s\n", Utf8Of(at).c_str());
    ::FreeEnvironmentStringsW(block);
}

void IgnoreEndRequests() {
    g_requests = EndRequests::Listen([] {});
}

void Hang() {
    if (!g_requests) g_requests = EndRequests::Listen([] { std::_Exit(kEnded); });
    ::Sleep(1000 * 1000);
}

int LeaveGrandchild(const std::string& file) {
    ProcessSpec spec;
    spec.program = ModuleFileName();
    spec.arguments = {"hang"};
    const auto child = ChildProcess::Start(spec);
    if (child == nullptr) return 1;
    return ReplaceWholeFile(file, std::to_string(child->Id()) + "\n", false) ? 0 : 1;
}

bool IsApart() {
    return !IsInJob();
}

bool BeganInItsTree() {
    return g_beganInItsTree;
}

void Crash(const std::string& how) {
    if (const auto folder = GetEnvironment("RQ_CRASH_FOLDER")) SetCrashFolder(*folder);
    if (const auto limit = GetEnvironment("RQ_CRASH_LIMIT_S"))
        SetCrashReporter({}, std::chrono::seconds(std::atoi(limit->c_str())));
    const std::string dump = GetEnvironment("RQ_CRASH_DUMP").value_or("");
    if (dump == "hangs") DumpBy(&DumpForEver);
    if (dump == "fails") DumpBy(&DumpNothing);
    if (dump == "crashes") DumpBy(&DumpAndCrash);
    InstallCrashHandler();
    SetCrashHook(how == "hook-hangs" ? &HangingHook : &Hook);
    SetCrashLog(&LogHook);
    if (how == "segv" || how == "hook-hangs") {
        WriteNowhere();
    } else if (how == "heap-locked") {
        ::HeapLock(::GetProcessHeap());
        WriteNowhere();
    } else if (how == "stack") {
        volatile int depth = 1;
        std::exit(Overflow(&depth));
    } else if (how == "throw") {
        throw std::runtime_error("nobody catches this");
    } else if (how == "abort") {
        std::abort();
    } else if (how == "silent") {
        SilenceAbort();
        std::abort();
    } else {
        ::RaiseException(static_cast<DWORD>(std::strtoul(how.c_str(), nullptr, 0)), 0, 0, nullptr);
    }
}

}  // namespace fixture
