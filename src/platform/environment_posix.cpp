#include "platform/environment.h"

#include <cstdlib>

namespace rq::platform {

std::optional<std::string> GetEnvironment(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr) return std::nullopt;
    return std::string(value);
}

void SetEnvironment(const char* name, const std::string& value) {
    ::setenv(name, value.c_str(), 1);
}

void UnsetEnvironment(const char* name) {
    ::unsetenv(name);
}

}  // namespace rq::platform
