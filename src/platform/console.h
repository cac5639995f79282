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
// counts as UTF-8) or the console's output code page.
std::string TerminalEncoding();
// Writes to standard output and flushes; errors are ignored.
void WriteStandardOutput(std::string_view bytes);
// Waits for a key when standard input is a terminal; returns at once otherwise.
void PauseForKey();

}  // namespace rq::platform
