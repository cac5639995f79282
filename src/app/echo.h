// The trace of the command line on standard output.
#pragma once

#include <string_view>

namespace rq {

// Writes `label`, a line end and the argument's address. The address, not the text: a wide argument on the
// narrow stream is shown as a pointer, and the trace only tells that the argument was there.
void EchoArgument(std::string_view label, const wchar_t* argument);

}  // namespace rq
