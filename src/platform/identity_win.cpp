#include "platform/identity.h"
#include "platform/win_api.h"

// After the system's own header.
#include <bcrypt.h>
#include <objbase.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/environment.h"

namespace rq::platform {

void RandomBytes(void* buffer, std::size_t size) {
    constexpr std::size_t kMost_bytes = 1u << 30;
    auto* bytes = static_cast<unsigned char*>(buffer);
    while (size > 0) {
        const auto part = static_cast<ULONG>(std::min(size, kMost_bytes));
        if (::BCryptGenRandom(nullptr, bytes, part, BCRYPT_USE_SYSTEM_PREFERRED_RNG) < 0) std::abort();
        bytes += part;
        size -= part;
    }
}

Guid CreateGuid() {
    GUID made{};
    if (FAILED(::CoCreateGuid(&made))) std::abort();
    Guid guid;
    guid.data1 = made.Data1;
    guid.data2 = made.Data2;
    guid.data3 = made.Data3;
    std::copy(std::begin(made.Data4), std::end(made.Data4), guid.data4.begin());
    return guid;
}

std::string RandomHex(std::size_t bytes) {
    std::vector<unsigned char> random(bytes);
    RandomBytes(random.data(), random.size());
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes * 2);
    for (unsigned char byte : random) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

// Services have LOCALAPPDATA too; without it, as in an emptied environment, the temporary folder stays.
std::string DefaultDataFolder() {
    std::string base = GetEnvironment("LOCALAPPDATA").value_or("");
    if (base.empty()) {
        wchar_t temporary[MAX_PATH + 1];
        const DWORD length = ::GetTempPathW(ARRAYSIZE(temporary), temporary);
        base = Utf8Of({temporary, length});
    }
    while (base.size() > 3 && (base.back() == '\\' || base.back() == '/')) base.pop_back();
    return base + (base.back() == '\\' ? "" : "\\") + "RQWorker";
}

}  // namespace rq::platform
