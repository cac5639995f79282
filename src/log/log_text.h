// What a text looks like inside a log line. Pure; any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace rq {

// One call of OVLWriteLog is one line, whatever its text holds, and the file is UTF-8 whatever the caller
// gives: a line feed becomes "\n" (a backslash and an n), a carriage return "\r"; a tab stays; every other
// control character becomes "\x1B" or "\u0085" (its code in hexadecimal); bytes that are not UTF-8 become
// U+FFFD. Backslashes stay as they are, so that paths stay readable: the form is for eyes, it cannot be
// turned back. A text of more than kLogTextLimit bytes is cut at a whole character and ends with "...[<n>
// bytes cut]".
inline constexpr std::size_t kLogTextLimit = 1024 * 1024;

// True when the text can go to the file as it stands (printable ASCII and tabs, not too long): nearly every
// line.
bool IsPlainLogText(std::string_view text);
std::string MakeLogText(std::string_view text);

}  // namespace rq
