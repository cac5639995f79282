// Standard streams as bytes and as terminals. Any thread; one call writes its bytes together.
#pragma once

#include <string>
#include <string_view>

namespace rq::platform {

enum class StandardStream { Input, Output, Errors };

bool IsTerminal(StandardStream stream);
// Columns of the terminal behind standard output; 80 when unknown.
unsigned TerminalColumns();
// The terminal's encoding as a name ("UTF-8", "GBK", ...), from the locale (LC_ALL, LC_CTYPE, LANG; "C"
// counts as UTF-8). On Windows always UTF-8: a console there is written to in UTF-16.
std::string TerminalEncoding();
// Writes to standard output and flushes; false when not everything could be written (a full disk, a closed
// pipe). On Windows "\n" becomes "\r\n" in a file or pipe, as with stdio there, and a console gets UTF-8
// bytes as characters.
bool WriteStandardOutput(std::string_view bytes);
// When standard input is a terminal, waits for a key (Windows: by "pause", where a command interpreter is).
void PauseForKey();

// For programs that print UTF-8 with stdio: while it lives, a Windows console shows that rightly. Main
// thread.
class Utf8Console {
  public:
    Utf8Console();
    ~Utf8Console();
    Utf8Console(const Utf8Console&) = delete;
    Utf8Console& operator=(const Utf8Console&) = delete;

  private:
    [[maybe_unused]] unsigned m_before = 0;  // the console's code page; 0: there is nothing to put back
};

}  // namespace rq::platform
