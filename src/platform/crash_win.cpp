// What a crash leaves behind: a line on standard error with the exception and where it happened, a dump of
// the process (when a folder was named), and an exit status that is the exception's code. An abort (an
// exception that nobody catches ends in one) leaves the same, with the C run-time library's exit code 3.
#include <signal.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "platform/crash.h"
#include "platform/crash_text.h"
#include "platform/win_api.h"

// After the system's own header.
#include <dbghelp.h>

namespace rq::platform {

namespace {

std::atomic<std::uint32_t> g_flags{0};
std::atomic<void (*)() noexcept> g_hook{nullptr};
static_assert(decltype(g_hook)::is_always_lock_free);
std::atomic_flag g_crashing = ATOMIC_FLAG_INIT;
std::atomic<DWORD> g_crashedThread{0};

constexpr ULONG kRoomForTheFilter_bytes = 65536;
constexpr DWORD kSpareTime_ms = 5000;  // beside the dump's: for all else that the handler does
constexpr UINT kAborted = 3;           // as the C run-time library's abort ends a process

std::atomic<void (*)(std::string_view, std::uint32_t) noexcept> g_log{nullptr};
using DumpFunction = decltype(&::MiniDumpWriteDump);
DumpFunction g_writeDump = nullptr;
// Written before the handler is installed. "C:\\folder\\RQWorkerU_" comes before the time in a dump's path.
CrashText g_pathHead;
std::chrono::seconds g_limit = kCrashReportLimit;

// What the crashed thread has the helping thread do.
struct Help {
    HANDLE asked = nullptr;  // by the crashed thread: once to watch it, and once more to write the dump
    HANDLE done = nullptr;   // by the helping one
    std::atomic<UINT> exitCode{0};
    std::atomic<bool> wantsDump{false};
    EXCEPTION_POINTERS* exception = nullptr;
    DWORD thread = 0;
    HANDLE file = nullptr;
    bool isGood = false;
} g_help;

void Say(const CrashText& line) {
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), line.Terminated(), static_cast<DWORD>(line.View().size()),
                &written, nullptr);
}

const char* NameOf(DWORD code) {
    switch (code) {
        case EXCEPTION_ACCESS_VIOLATION:
            return "EXCEPTION_ACCESS_VIOLATION";
        case EXCEPTION_STACK_OVERFLOW:
            return "EXCEPTION_STACK_OVERFLOW";
        case EXCEPTION_ILLEGAL_INSTRUCTION:
            return "EXCEPTION_ILLEGAL_INSTRUCTION";
        case EXCEPTION_INT_DIVIDE_BY_ZERO:
            return "EXCEPTION_INT_DIVIDE_BY_ZERO";
        case EXCEPTION_IN_PAGE_ERROR:
            return "EXCEPTION_IN_PAGE_ERROR";
        default:
            return "an exception";
    }
}

// " at module.dll+0x12AB", so that a map file or a debugger finds the line.
void AddPlace(CrashText& line, const void* address) {
    HMODULE module = nullptr;
    wchar_t path[1024] = L"";
    if (::GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            static_cast<const wchar_t*>(address), &module))
        ::GetModuleFileNameW(module, path, 1024);
    path[1023] = L'\0';
    const wchar_t* last = path;
    for (const wchar_t* at = path; *at != L'\0'; ++at) {
        if (*at == L'\\') last = at + 1;
    }
    char name[3 * 1024] = "";  // no ANSI name: its code page lacks characters
    ::WideCharToMultiByte(CP_UTF8, 0, last, -1, name, sizeof name, nullptr, nullptr);
    const auto offset = reinterpret_cast<std::uint64_t>(address) - reinterpret_cast<std::uint64_t>(module);
    line << " at " << (name[0] != '\0' ? name : "unknown");
    (line << "+").Hex(offset);
}

std::chrono::sys_seconds LocalNow() {
    SYSTEMTIME now{};
    ::GetLocalTime(&now);
    const std::chrono::sys_days day = std::chrono::year(now.wYear) / now.wMonth / now.wDay;
    return day + std::chrono::hours(now.wHour) + std::chrono::minutes(now.wMinute) +
           std::chrono::seconds(now.wSecond);
}

// Leaves the path in `path`, UTF-8.
HANDLE MakeDumpFile(CrashText& path) {
    if (g_pathHead.View().empty()) return INVALID_HANDLE_VALUE;
    path << g_pathHead.View();
    path.CompactTime(LocalNow()) << "_";
    path.Decimal(::GetCurrentProcessId()) << ".dmp";
    wchar_t wide[2048];
    if (::MultiByteToWideChar(CP_UTF8, 0, path.Terminated(), -1, wide, 2048) == 0)
        return INVALID_HANDLE_VALUE;
    return ::CreateFileW(wide, GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                         nullptr);
}

void DumpIt() {
    MINIDUMP_EXCEPTION_INFORMATION facts{g_help.thread, g_help.exception, FALSE};
    g_help.isGood = g_writeDump(::GetCurrentProcess(), ::GetCurrentProcessId(), g_help.file, MiniDumpNormal,
                                g_help.exception != nullptr ? &facts : nullptr, nullptr, nullptr) != FALSE;
}

// The helping thread: sleeps until something crashes, then sees to it that the process ends in time.
DWORD WINAPI HelpACrash(void*) {
    ::WaitForSingleObject(g_help.asked, INFINITE);
    const auto limit_ms = static_cast<DWORD>(std::chrono::milliseconds(g_limit).count()) + kSpareTime_ms;
    if (::WaitForSingleObject(g_help.asked, limit_ms) == WAIT_OBJECT_0 && g_help.wantsDump.load()) {
        DumpIt();
        ::SetEvent(g_help.done);
    }
    ::Sleep(limit_ms);
    ::TerminateProcess(::GetCurrentProcess(), g_help.exitCode.load());
    return 0;
}

// On the crashed thread, whose locks (the heap's) a dump takes again without waiting; but where its stack is
// used up, on the helping one.
void WriteDump(EXCEPTION_POINTERS* exception, CrashText& path) {
    if (g_writeDump == nullptr) return;
    g_help.file = MakeDumpFile(path);
    if (g_help.file == INVALID_HANDLE_VALUE) {
        path = CrashText();
        return;
    }
    g_help.exception = exception;
    g_help.thread = ::GetCurrentThreadId();
    if (exception != nullptr && exception->ExceptionRecord->ExceptionCode == EXCEPTION_STACK_OVERFLOW) {
        g_help.wantsDump.store(true);
        ::SetEvent(g_help.asked);
        ::WaitForSingleObject(g_help.done, INFINITE);  // the helping thread's own limit holds
    } else {
        DumpIt();
    }
    ::CloseHandle(g_help.file);
    CrashText line;
    line << "RQWorkerU: " << (g_help.isGood ? "a dump is in " : "no dump could be written to ") << path.View()
         << "\r\n";
    Say(line);
    if (!g_help.isGood) path = CrashText();
}

void Flush() {
    if (const auto hook = g_hook.load()) hook();
}

// What every crash leaves behind; `name` is the exception's or signal's.
void Report(EXCEPTION_POINTERS* exception, const char* name, UINT exitCode) {
    g_help.exitCode.store(exitCode);
    if (g_help.asked != nullptr) ::SetEvent(g_help.asked);
    Flush();
    CrashText path;
    WriteDump(exception, path);
    Flush();  // what other threads have logged meanwhile
    CrashText line;
    line << "crashed with " << name << " in thread ";
    line.Decimal(::GetCurrentThreadId());
    if (path.View().empty()) {
        line << ", no report could be written";
    } else {
        line << ", report: " << path.View();
    }
    if (const auto log = g_log.load()) log(line.View(), ::GetCurrentThreadId());
}

// Another thread that crashes meanwhile: its stack is in the first one's dump.
void WaitForTheEnd() {
    if (g_crashedThread.load() != ::GetCurrentThreadId()) ::Sleep(INFINITE);
}

// The process ends with the exception's code.
LONG WINAPI OnException(EXCEPTION_POINTERS* exception) {
    if (g_crashing.test_and_set()) {
        WaitForTheEnd();
        return EXCEPTION_EXECUTE_HANDLER;
    }
    g_crashedThread.store(::GetCurrentThreadId());
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    CrashText line;
    line << "RQWorkerU: crashed with " << NameOf(record.ExceptionCode);
    (line << " ").Hex(record.ExceptionCode);
    AddPlace(line, record.ExceptionAddress);
    line << "\r\n";
    Say(line);
    Report(exception, NameOf(record.ExceptionCode), record.ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

// The library's abort ends the process with 3 when this returns.
extern "C" void OnAbort(int) {
    if (g_crashing.test_and_set()) return WaitForTheEnd();
    g_crashedThread.store(::GetCurrentThreadId());
    CrashText line;
    line << "RQWorkerU: crashed with SIGABRT\r\n";
    Say(line);
    Report(nullptr, "SIGABRT", kAborted);
}

// Made at the start: a crashed process should make no thread. It gets a small stack.
void StartTheHelpingThread() {
    if (g_help.asked != nullptr) return;
    g_help.asked = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    g_help.done = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const HANDLE thread =
        ::CreateThread(nullptr, 256 * 1024, &HelpACrash, nullptr, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    if (thread != nullptr) ::CloseHandle(thread);
}

}  // namespace

void InstallCrashHandler() {
    // Loaded now: a crashed process should load nothing.
    if (const HMODULE library = ::LoadLibraryW(L"dbghelp.dll"); library != nullptr)
        g_writeDump = reinterpret_cast<DumpFunction>(
            reinterpret_cast<void (*)()>(::GetProcAddress(library, "MiniDumpWriteDump")));
    StartTheHelpingThread();
    GiveThreadCrashRoom();
    ::SetUnhandledExceptionFilter(&OnException);
    ::signal(SIGABRT, &OnAbort);
}

void SetCrashHook(void (*hook)() noexcept) {
    g_hook.store(hook);
}

void SetCrashLog(void (*log)(std::string_view, std::uint32_t) noexcept) {
    g_log.store(log);
}

void SetCrashFlags(std::uint32_t flags) {
    g_flags.store(flags);
}

void SetCrashFolder(const std::string& folder) {
    g_pathHead = CrashText();
    if (folder.empty()) return;
    std::wstring path = NativeSeparators(folder);
    while (!path.empty() && path.back() == L'\\') path.pop_back();
    ::CreateDirectoryW(path.c_str(), nullptr);
    wchar_t module[MAX_PATH];
    std::wstring program(module, ::GetModuleFileNameW(nullptr, module, MAX_PATH));
    program = program.substr(program.rfind(L'\\') + 1);
    program = program.substr(0, program.rfind(L'.'));
    g_pathHead << Utf8Of(path + L"\\" + program + L"_");
}

void SetCrashReporter(const std::string&, std::chrono::seconds limit) {
    g_limit = limit;
}

bool GiveThreadCrashRoom() noexcept {
    ULONG room = kRoomForTheFilter_bytes;
    return ::SetThreadStackGuarantee(&room) != FALSE;
}

// A wanted abort is no crash: nothing is written for it.
void SilenceAbort() {
    ::signal(SIGABRT, SIG_DFL);
#if defined(_MSC_VER) || defined(_UCRT)
    ::_set_abort_behavior(0, _WRITE_ABORT_MSG);
    ::_set_abort_behavior(0, _CALL_REPORTFAULT);
#endif
}

void LeaveNoCore() {}

}  // namespace rq::platform
