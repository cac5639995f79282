#include "platform/console.h"

#include <io.h>

#include <cstdio>
#include <cstdlib>

#include "platform/win_api.h"

namespace rq::platform {

namespace {

HANDLE HandleOf(StandardStream stream) {
    switch (stream) {
        case StandardStream::Input:
            return ::GetStdHandle(STD_INPUT_HANDLE);
        case StandardStream::Output:
            return ::GetStdHandle(STD_OUTPUT_HANDLE);
        case StandardStream::Errors:
            break;
    }
    return ::GetStdHandle(STD_ERROR_HANDLE);
}

bool IsConsole(HANDLE handle) {
    DWORD mode = 0;
    return handle != nullptr && handle != INVALID_HANDLE_VALUE && ::GetConsoleMode(handle, &mode);
}

// The text as UTF-16; nothing when it is not UTF-8 (another encoding was forced).
bool Widen(std::string_view bytes, std::wstring& wide) {
    const int size = static_cast<int>(bytes.size());
    const int length = ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bytes.data(), size, nullptr, 0);
    if (length <= 0) return false;
    wide.resize(static_cast<std::size_t>(length));
    ::MultiByteToWideChar(CP_UTF8, 0, bytes.data(), size, wide.data(), length);
    return true;
}

bool WriteWide(HANDLE console, std::wstring_view text) {
    constexpr std::size_t kMost = 8000;  // the system refuses large texts
    while (!text.empty()) {
        const auto part = static_cast<DWORD>(text.size() < kMost ? text.size() : kMost);
        DWORD written = 0;
        if (!::WriteConsoleW(console, text.data(), part, &written, nullptr) || written == 0) return false;
        text.remove_prefix(written);
    }
    return true;
}

bool WriteBytes(HANDLE file, std::string_view bytes) {
    while (!bytes.empty()) {
        DWORD written = 0;
        if (!::WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) ||
            written == 0)
            return false;
        bytes.remove_prefix(written);
    }
    return true;
}

// As the streams of this platform write them.
std::string WithLineEnds(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 32);
    for (const char c : text) {
        if (c == '\n') out += '\r';
        out += c;
    }
    return out;
}

// Keeps one call's bytes together.
class OutputLock {
  public:
    OutputLock() { ::AcquireSRWLockExclusive(&s_lock); }
    ~OutputLock() { ::ReleaseSRWLockExclusive(&s_lock); }
    OutputLock(const OutputLock&) = delete;
    OutputLock& operator=(const OutputLock&) = delete;

  private:
    static inline SRWLOCK s_lock = SRWLOCK_INIT;  // this room lies below base/sync.h
};

}  // namespace

bool IsTerminal(StandardStream stream) {
    return IsConsole(HandleOf(stream));
}

unsigned TerminalColumns() {
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (!::GetConsoleScreenBufferInfo(HandleOf(StandardStream::Output), &info)) return 80;
    const int columns = info.srWindow.Right - info.srWindow.Left + 1;
    return columns > 0 ? static_cast<unsigned>(columns) : 80;
}

// A console is given UTF-16, made from UTF-8, whatever its code page.
std::string TerminalEncoding() {
    return "UTF-8";
}

bool WriteStandardOutput(std::string_view bytes) {
    const OutputLock lock;
    if (std::fflush(stdout) != 0) return false;
    const HANDLE output = HandleOf(StandardStream::Output);
    if (output == nullptr || output == INVALID_HANDLE_VALUE) return false;
    std::wstring wide;
    if (IsConsole(output) && Widen(bytes, wide)) return WriteWide(output, wide);
    return WriteBytes(output, WithLineEnds(bytes));
}

// The system's own pause prompts in the system's language.
void PauseForKey() {
    if (!IsTerminal(StandardStream::Input)) return;
    std::fflush(stdout);
    (void)!std::system("pause");
}

Utf8Console::Utf8Console()
    : m_before(IsTerminal(StandardStream::Output) || IsTerminal(StandardStream::Errors)
                   ? ::GetConsoleOutputCP()
                   : 0) {
    if (m_before != 0) ::SetConsoleOutputCP(CP_UTF8);
}

Utf8Console::~Utf8Console() {
    std::fflush(stdout);
    if (m_before != 0) ::SetConsoleOutputCP(m_before);
}

}  // namespace rq::platform
