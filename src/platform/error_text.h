// What an error code of the standard library or of Boost says, in UTF-8. Their own texts of a system's code
// are in the code page and language of the machine on Windows. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace rq::platform {

// Of errno, or of what GetLastError gave; there in English where the system has that.
std::string SystemErrorText(int code);

template <class Code>
std::string ErrorText(const Code& code) {
    const bool isSystems = std::string_view(code.category().name()) == "system";
    return isSystems ? SystemErrorText(code.value()) : code.message();
}

}  // namespace rq::platform
