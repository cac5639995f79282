#include "app/echo.h"

#include <string>

#include "util/worker_util.h"

namespace rq {

void EchoArgument(std::string_view label, const wchar_t* argument) {
    ConsoleWrite(std::string(label) + "\n" + PointerText(argument));
}

}  // namespace rq
