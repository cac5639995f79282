// The name of a parameter file, for the name of its log. Pure; any thread.
#pragma once

#include <string_view>

#include "base/text.h"

namespace rq {

// The text between the last separator and the first "." after it. Empty when there is no separator or it is
// the first character, and when the name has no dot or begins with one: "jobs/task42.part1.xml" gives
// "task42", "task42.xml" nothing.
WideText ExtractBaseName(std::wstring_view path);

}  // namespace rq
