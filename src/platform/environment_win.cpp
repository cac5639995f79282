#include "platform/environment.h"
#include "platform/win_api.h"

// After the system's own header.
#include <cstdlib>

namespace rq::platform {

std::optional<std::string> GetEnvironment(const char* name) {
    const std::wstring wideName = WideOf(name);
    std::wstring value(256, L'\0');
    for (;;) {
        ::SetLastError(ERROR_SUCCESS);
        const DWORD length =
            ::GetEnvironmentVariableW(wideName.c_str(), value.data(), static_cast<DWORD>(value.size()));
        if (length == 0 && ::GetLastError() != ERROR_SUCCESS) return std::nullopt;
        if (length < value.size()) return Utf8Of({value.data(), length});
        value.resize(length);
    }
}

// The C run-time library has a copy of its own, which a plug-in's getenv reads. It takes no empty value.
void SetEnvironment(const char* name, const std::string& value) {
    ::_wputenv((WideOf(name) + L"=" + WideOf(value)).c_str());
    ::SetEnvironmentVariableW(WideOf(name).c_str(), WideOf(value).c_str());
}

void UnsetEnvironment(const char* name) {
    ::_wputenv((WideOf(name) + L"=").c_str());
    ::SetEnvironmentVariableW(WideOf(name).c_str(), nullptr);
}

}  // namespace rq::platform
