// Environment variables in UTF-8. SetEnvironment is for start-up and tests: no other thread may be running.
#pragma once

#include <optional>
#include <string>

namespace rq::platform {

std::optional<std::string> GetEnvironment(const char* name);
void SetEnvironment(const char* name, const std::string& value);
void UnsetEnvironment(const char* name);

}  // namespace rq::platform
