// What a crash leaves behind: a line on standard error with the exception and where it happened, a dump of
// the process (when a folder was named), and an exit status that is the exception's code. An abort (an
// exception that nobody catches ends in one) leaves the same, with the C run-time library's exit code 3.
#include <signal.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "platform/start_up.h"
#include "platform/win_api.h"

// After the system's own header.
#include <dbghelp.h>

namespace rq::platform {

namespace {

std::atomic<std::uint32_t> g_flags{0};
std::atomic<void (*)() noexcept> g_hook{nullptr};
static_assert(decltype(g_hook)::is_always_lock_free);
std::atomic_flag g_crashing = ATOMIC_FLAG_INIT;

constexpr std::size_t kLongestPath = 1024;
constexpr ULONG kStackForTheFilter_bytes = 65536;

using DumpFunction = decltype(&::MiniDumpWriteDump);
DumpFunction g_writeDump = nullptr;
wchar_t g_dumpFile[kLongestPath] = L"";  // filled before the handler is installed
char g_dumpText[3 * kLongestPath] = "";  // the same in UTF-8

// Texts without allocation: the heap may be what is broken.
class Line {
  public:
    Line& operator<<(const char* text) {
        while (*text != '\0' && m_length + 1 < sizeof m_text) m_text[m_length++] = *text++;
        return *this;
    }
    Line& Hex(std::uint64_t value) {
        char digits[17];
        char* at = digits + sizeof digits - 1;
        *at = '\0';
        do *--at = "0123456789ABCDEF"[value & 15];
        while ((value >>= 4) != 0);
        return *this << "0x" << at;
    }
    void Write() const {
        DWORD written = 0;
        ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), m_text, static_cast<DWORD>(m_length), &written,
                    nullptr);
    }

  private:
    char m_text[4 * kLongestPath];
    std::size_t m_length = 0;
};

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
void AddPlace(Line& line, const void* address) {
    HMODULE module = nullptr;
    char name[MAX_PATH] = "";
    if (::GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            static_cast<const wchar_t*>(address), &module))
        ::GetModuleFileNameA(module, name, sizeof name - 1);
    const char* last = name;
    for (const char* at = name; *at != '\0'; ++at) {
        if (*at == '\\') last = at + 1;
    }
    const auto offset = reinterpret_cast<std::uint64_t>(address) - reinterpret_cast<std::uint64_t>(module);
    line << " at " << (*last != '\0' ? last : "unknown");
    (line << "+").Hex(offset);
}

void WriteDump(EXCEPTION_POINTERS* exception) {
    if (g_writeDump == nullptr || g_dumpFile[0] == L'\0') return;
    const HANDLE file = ::CreateFileW(g_dumpFile, GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return;
    MINIDUMP_EXCEPTION_INFORMATION facts{::GetCurrentThreadId(), exception, FALSE};
    const BOOL good = g_writeDump(::GetCurrentProcess(), ::GetCurrentProcessId(), file, MiniDumpNormal,
                                  exception != nullptr ? &facts : nullptr, nullptr, nullptr);
    ::CloseHandle(file);
    Line line;
    line << "RQWorkerU: " << (good ? "a dump is in " : "no dump could be written to ") << g_dumpText
         << "\r\n";
    line.Write();
}

void Hook() {
    if (const auto hook = g_hook.load()) hook();
}

// The process ends with the exception's code.
LONG WINAPI OnException(EXCEPTION_POINTERS* exception) {
    if (g_crashing.test_and_set()) return EXCEPTION_EXECUTE_HANDLER;
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    Line line;
    line << "RQWorkerU: crashed with " << NameOf(record.ExceptionCode);
    (line << " ").Hex(record.ExceptionCode);
    AddPlace(line, record.ExceptionAddress);
    line << "\r\n";
    line.Write();
    WriteDump(exception);
    Hook();
    return EXCEPTION_EXECUTE_HANDLER;
}

// The library's abort ends the process with 3 when this returns.
extern "C" void OnAbort(int) {
    if (g_crashing.test_and_set()) return;
    Line line;
    line << "RQWorkerU: crashed with SIGABRT\r\n";
    line.Write();
    WriteDump(nullptr);
    Hook();
}

}  // namespace

void InstallCrashHandler() {
    // Loaded now: a crashed process should load nothing.
    if (const HMODULE library = ::LoadLibraryW(L"dbghelp.dll"); library != nullptr)
        g_writeDump = reinterpret_cast<DumpFunction>(
            reinterpret_cast<void (*)()>(::GetProcAddress(library, "MiniDumpWriteDump")));
    // Room for the filter when the main thread's stack is used up.
    ULONG stack = kStackForTheFilter_bytes;
    ::SetThreadStackGuarantee(&stack);
    ::SetUnhandledExceptionFilter(&OnException);
    ::signal(SIGABRT, &OnAbort);
}

void SetCrashHook(void (*hook)() noexcept) {
    g_hook.store(hook);
}

void SetCrashFlags(std::uint32_t flags) {
    g_flags.store(flags);
}

void SetCrashFolder(const std::string& folder) {
    std::wstring path = NativeSeparators(folder);
    while (!path.empty() && path.back() == L'\\') path.pop_back();
    ::CreateDirectoryW(path.c_str(), nullptr);
    wchar_t module[MAX_PATH];
    std::wstring program(module, ::GetModuleFileNameW(nullptr, module, MAX_PATH));
    program = program.substr(program.rfind(L'\\') + 1);
    program = program.substr(0, program.rfind(L'.'));
    path += L"\\" + program + L"_" + std::to_wstring(::GetCurrentProcessId()) + L".dmp";
    const std::string text = Utf8Of(path);
    if (path.size() >= kLongestPath || text.size() >= sizeof g_dumpText) return;
    path.copy(g_dumpFile, path.size());
    g_dumpFile[path.size()] = L'\0';
    text.copy(g_dumpText, text.size());
    g_dumpText[text.size()] = '\0';
}

// A wanted abort is no crash: nothing is written for it.
void SilenceAbort() {
    ::signal(SIGABRT, SIG_DFL);
#if defined(_MSC_VER) || defined(_UCRT)
    ::_set_abort_behavior(0, _WRITE_ABORT_MSG);
    ::_set_abort_behavior(0, _CALL_REPORTFAULT);
#endif
}

}  // namespace rq::platform
