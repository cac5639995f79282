// What rqctl writes to standard output. One thread.
#pragma once

#include <string>

namespace rq::ctl {

// UTF-8. What cannot be written is noted.
void Print(const std::string& text);
// Whether anything could not be written so far: the caller of rqctl must not take its silence for a result.
bool IsOutputLost();

}  // namespace rq::ctl
