#include "platform/console.h"

#include <langinfo.h>
#include <locale.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace rq::platform {

namespace {

int DescriptorOf(StandardStream stream) {
    switch (stream) {
        case StandardStream::Input:
            return STDIN_FILENO;
        case StandardStream::Output:
            return STDOUT_FILENO;
        case StandardStream::Errors:
            break;
    }
    return STDERR_FILENO;
}

// A reader that went away must not end the process: SIGPIPE is held back for this thread during a write, and
// one that the write caused is taken away again. Files and terminals have no such readers.
class HoldSigpipe {
  public:
    explicit HoldSigpipe(int fd) {
        struct stat facts {};
        m_holds = ::fstat(fd, &facts) != 0 || S_ISFIFO(facts.st_mode) || S_ISSOCK(facts.st_mode);
        if (!m_holds) return;
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        m_wasPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
    }
    ~HoldSigpipe() {
        if (!m_holds) return;
        const timespec atOnce{0, 0};
        if (!m_wasPending) {
            while (sigtimedwait(&m_pipe, nullptr, &atOnce) == -1 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    HoldSigpipe(const HoldSigpipe&) = delete;
    HoldSigpipe& operator=(const HoldSigpipe&) = delete;

  private:
    sigset_t m_pipe;
    sigset_t m_before;
    bool m_holds = false;
    bool m_wasPending = false;
};

bool WriteAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(n));
        } else if (errno == EAGAIN) {
            pollfd ready{fd, POLLOUT, 0};
            ::poll(&ready, 1, -1);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

std::string LocaleName() {
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') return value;
    }
    return "C";
}

// "utf8" -> "UTF-8"; everything that GBK contains -> "GBK"; others in capitals.
std::string CanonicalEncoding(const std::string& name) {
    std::string plain;
    for (char c : name) {
        if (c != '-' && c != '_') plain += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    if (plain == "UTF8") return "UTF-8";
    if (plain == "GBK" || plain == "GB2312" || plain == "EUCCN" || plain == "CP936") return "GBK";
    std::string upper = name;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return upper;
}

}  // namespace

bool IsTerminal(StandardStream stream) {
    return ::isatty(DescriptorOf(stream)) == 1;
}

unsigned TerminalColumns() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return 80;
}

std::string TerminalEncoding() {
    const std::string locale = LocaleName();
    if (locale == "C" || locale == "POSIX") return "UTF-8";
    const auto dot = locale.find('.');
    if (dot != std::string::npos) {
        const auto end = locale.find('@', dot);
        const std::string name = locale.substr(dot + 1, end == std::string::npos ? end : end - dot - 1);
        return name.empty() ? "UTF-8" : CanonicalEncoding(name);
    }
    // No encoding in the name ("zh_CN"): what the system says that the locale uses, if it is installed.
    const locale_t handle = ::newlocale(LC_CTYPE_MASK, locale.c_str(), static_cast<locale_t>(nullptr));
    if (handle == static_cast<locale_t>(nullptr)) return "UTF-8";
    std::string name = ::nl_langinfo_l(CODESET, handle);
    ::freelocale(handle);
    return name.empty() ? "UTF-8" : CanonicalEncoding(name);
}

bool WriteStandardOutput(std::string_view bytes) {
    // The stream's own lock keeps one call's bytes together and in order with what stdio has buffered.
    ::flockfile(stdout);
    bool isWhole = false;
    {
        const HoldSigpipe hold(STDOUT_FILENO);
        isWhole = std::fflush(stdout) == 0 && WriteAll(STDOUT_FILENO, bytes);
    }
    ::funlockfile(stdout);
    return isWhole;
}

void PauseForKey() {
    // A background job would be stopped by the terminal instead of getting a key.
    if (!IsTerminal(StandardStream::Input) || ::tcgetpgrp(STDIN_FILENO) != ::getpgrp()) return;
    WriteStandardOutput("Press any key to continue . . . ");
    termios before{};
    if (::tcgetattr(STDIN_FILENO, &before) != 0) return;
    // Ctrl-C is a key like any other: ended here, the program would leave the terminal without its echo.
    termios raw = before;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    char key = 0;
    while (::read(STDIN_FILENO, &key, 1) == -1 && errno == EINTR) {
    }
    ::tcsetattr(STDIN_FILENO, TCSANOW, &before);
    WriteStandardOutput("\n");
}

// A terminal has one encoding for everything.
Utf8Console::Utf8Console() = default;
Utf8Console::~Utf8Console() = default;

}  // namespace rq::platform
