// What a crash leaves behind: a line on standard error with the exception and where it happened, a dump of
// the process (when a folder was named), and an exit status that is the exception's code. An abort (an
// exception that nobody catches ends in one) leaves the same, with the C run-time library's exit code 3.
#include <signal.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "platform/crash.h"
#include "platform/crash_help_win.h"
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
constexpr std::chrono::seconds kSpareTime{5};  // beside the dump's: for all else that the handler does
constexpr UINT kAborted = 3;                   // as the C run-time library's abort ends a process

std::atomic<void (*)(std::string_view, std::uint32_t) noexcept> g_log{nullptr};
using DumpFunction = decltype(&::MiniDumpWriteDump);
DumpFunction g_writeDump = nullptr;
// Written before the handler is installed. "C:\\folder\\RQWorkerU_" comes before the time in a dump's path.
CrashText g_pathHead;
std::chrono::seconds g_limit = kCrashReportLimit;

// What a dump is made of and where it goes, for whichever thread writes it.
struct Dump {
    EXCEPTION_POINTERS* exception = nullptr;
    DWORD thread = 0;
    HANDLE file = nullptr;
    bool isGood = false;
} g_dump;

// Of the crash that is reported: written before its report is begun.
const char* g_name = "";
UINT g_exitCode = 0;
std::atomic_flag g_isInLog = ATOMIC_FLAG_INIT;

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
    MINIDUMP_EXCEPTION_INFORMATION facts{g_dump.thread, g_dump.exception, FALSE};
    g_dump.isGood = g_writeDump(::GetCurrentProcess(), ::GetCurrentProcessId(), g_dump.file, MiniDumpNormal,
                                g_dump.exception != nullptr ? &facts : nullptr, nullptr, nullptr) != FALSE;
}

bool IsStackUsedUp(const EXCEPTION_POINTERS* exception) {
    return exception != nullptr && exception->ExceptionRecord->ExceptionCode == EXCEPTION_STACK_OVERFLOW;
}

// On the crashed thread, whose locks (the heap's) a dump takes again without waiting; but where its stack is
// used up, on the helper.
void WriteDump(EXCEPTION_POINTERS* exception, CrashText& path) {
    if (g_writeDump == nullptr) return;
    g_dump.file = MakeDumpFile(path);
    if (g_dump.file == INVALID_HANDLE_VALUE) {
        path = CrashText();
        return;
    }
    g_dump.exception = exception;
    g_dump.thread = ::GetCurrentThreadId();
    if (IsStackUsedUp(exception)) {
        if (!HaveHelperDo(&DumpIt)) g_dump.isGood = false;
    } else {
        DumpIt();
    }
    ::CloseHandle(g_dump.file);
    CrashText line;
    line << "RQWorkerU: " << (g_dump.isGood ? "a dump is in " : "no dump could be written to ") << path.View()
         << "\r\n";
    Say(line);
    if (!g_dump.isGood) path = CrashText();
}

void Flush() {
    if (const auto hook = g_hook.load()) hook();
}

// The log's last line, once; an empty path says that there is no report.
void TellWhere(std::string_view path) {
    if (g_isInLog.test_and_set()) return;
    CrashText line;
    line << "crashed with " << g_name << " in thread ";
    line.Decimal(g_crashedThread.load());
    if (path.empty()) {
        line << ", no report could be written";
    } else {
        line << ", report: " << path;
    }
    if (const auto log = g_log.load()) log(line.View(), g_crashedThread.load());
}

// Before all else that the thread does which crashed first; `name` is the exception's or signal's.
void BeginReport(const char* name, UINT exitCode) {
    g_crashedThread.store(::GetCurrentThreadId());
    g_name = name;
    g_exitCode = exitCode;
    WatchTheEnd(exitCode, g_limit + kSpareTime);
}

// What every crash leaves behind.
void Report(EXCEPTION_POINTERS* exception) {
    Flush();
    CrashText path;
    WriteDump(exception, path);
    Flush();  // what other threads have logged meanwhile
    TellWhere(path.View());
}

// A crash while another one is reported. On another thread: its stack is in the first one's dump, and the
// end comes soon. On the same thread: the report itself has crashed, and its end is that of the first crash.
void WaitForTheEnd() {
    StopIfHelper();
    if (g_crashedThread.load() != ::GetCurrentThreadId()) ::Sleep(INFINITE);
    TellWhere({});
    ::TerminateProcess(::GetCurrentProcess(), g_exitCode);
}

// The process ends with the exception's code.
LONG WINAPI OnException(EXCEPTION_POINTERS* exception) {
    if (g_crashing.test_and_set()) {
        WaitForTheEnd();
        return EXCEPTION_EXECUTE_HANDLER;
    }
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    BeginReport(NameOf(record.ExceptionCode), record.ExceptionCode);
    CrashText line;
    line << "RQWorkerU: crashed with " << NameOf(record.ExceptionCode);
    (line << " ").Hex(record.ExceptionCode);
    AddPlace(line, record.ExceptionAddress);
    line << "\r\n";
    Say(line);
    Report(exception);
    return EXCEPTION_EXECUTE_HANDLER;
}

// The library's abort ends the process with 3 when this returns.
extern "C" void OnAbort(int) {
    if (g_crashing.test_and_set()) return WaitForTheEnd();
    BeginReport("SIGABRT", kAborted);
    CrashText line;
    line << "RQWorkerU: crashed with SIGABRT\r\n";
    Say(line);
    Report(nullptr);
}

#if defined(_MSC_VER)
const auto SetAbortBehavior = &::_set_abort_behavior;
#else
// Which C run-time library is behind this program, and whether it knows the call, shows at run time.
void SetAbortBehavior(unsigned flags, unsigned mask) {
    for (const wchar_t* name : {L"ucrtbase.dll", L"msvcrt.dll"}) {
        const HMODULE library = ::GetModuleHandleW(name);
        if (library == nullptr) continue;
        const auto set = reinterpret_cast<unsigned(__cdecl*)(unsigned, unsigned)>(
            reinterpret_cast<void (*)()>(::GetProcAddress(library, "_set_abort_behavior")));
        if (set != nullptr) set(flags, mask);
    }
}
#endif

}  // namespace

void InstallCrashHandler() {
    // Loaded now: a crashed process should load nothing.
    if (const HMODULE library = ::LoadLibraryW(L"dbghelp.dll"); library != nullptr)
        g_writeDump = reinterpret_cast<DumpFunction>(
            reinterpret_cast<void (*)()>(::GetProcAddress(library, "MiniDumpWriteDump")));
    StartCrashHelp();
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
    constexpr unsigned kWriteMessage = 1;
    constexpr unsigned kCallReportFault = 2;
    ::signal(SIGABRT, SIG_DFL);
    SetAbortBehavior(0, kWriteMessage);
    SetAbortBehavior(0, kCallReportFault);
}

void LeaveNoCore() {}

}  // namespace rq::platform
