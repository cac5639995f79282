// A text that came from outside, as one line of the console. Pure; any thread.
#pragma once

#include <string>
#include <string_view>

namespace rq {

// As it would stand in a log line (log/log_text.h): a line feed is shown as "\n" (a backslash and an n),
// other controls by their codes, bytes that are not UTF-8 as U+FFFD.
std::string OneLine(std::string_view text);

}  // namespace rq
