// An operating-system failure: its number and a text in UTF-8 that names the call. The platform room uses
// nothing of the project, so it has this instead of Result<T>.
#pragma once

#include <string>

namespace rq::platform {

struct OsError {
    int code = 0;         // errno or GetLastError(); 0 when nothing failed
    std::string message;  // "open /x/y: No such file or directory"
};

}  // namespace rq::platform
