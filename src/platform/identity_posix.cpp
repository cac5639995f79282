#include "platform/identity.h"

#include <pwd.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace rq::platform {

namespace {

std::string HomeFolder() {
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home == '/') return home;
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        return found->pw_dir;
    }
    return "/tmp";
}

std::string WithoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace

void RandomBytes(void* buffer, std::size_t size) {
    auto* bytes = static_cast<unsigned char*>(buffer);
    while (size > 0) {
        const ssize_t n = ::getrandom(bytes, size, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            std::abort();
        }
        bytes += n;
        size -= static_cast<std::size_t>(n);
    }
}

Guid CreateGuid() {
    std::array<std::uint8_t, 16> bytes{};
    RandomBytes(bytes.data(), bytes.size());
    Guid guid;
    std::memcpy(&guid.data1, bytes.data(), 4);
    std::memcpy(&guid.data2, bytes.data() + 4, 2);
    std::memcpy(&guid.data3, bytes.data() + 6, 2);
    std::memcpy(guid.data4.data(), bytes.data() + 8, 8);
    guid.data3 = static_cast<std::uint16_t>((guid.data3 & 0x0FFF) | 0x4000);   // version 4: random
    guid.data4[0] = static_cast<std::uint8_t>((guid.data4[0] & 0x3F) | 0x80);  // the usual variant
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

std::string DefaultDataFolder() {
    if (::geteuid() == 0) return "/var/lib/rqworker";
    const char* data = std::getenv("XDG_DATA_HOME");
    if (data != nullptr && *data == '/') return WithoutTrailingSlash(data) + "/rqworker";
    const std::string home = WithoutTrailingSlash(HomeFolder());
    return (home == "/" ? "" : home) + "/.local/share/rqworker";
}

}  // namespace rq::platform
