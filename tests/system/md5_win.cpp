#define NOMINMAX
#include <windows.h>

// After the system's own header.
#include <wincrypt.h>

#include <array>

#include "node.h"

namespace rq::system_test {

// Through the system's older cryptographic interface, which the plug-in does not use.
std::string Md5Of(const std::filesystem::path& file) {
    std::string bytes = kit::ReadBytes(file);
    HCRYPTPROV provider = 0;
    HCRYPTHASH hash = 0;
    std::array<BYTE, 16> digest{};
    DWORD length = digest.size();
    const bool good =
        ::CryptAcquireContextW(&provider, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT) &&
        ::CryptCreateHash(provider, CALG_MD5, 0, 0, &hash) &&
        ::CryptHashData(hash, reinterpret_cast<const BYTE*>(bytes.data()), static_cast<DWORD>(bytes.size()),
                        0) &&
        ::CryptGetHashParam(hash, HP_HASHVAL, digest.data(), &length, 0);
    ::CryptDestroyHash(hash);
    ::CryptReleaseContext(provider, 0);
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const BYTE byte : digest) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return good ? text : std::string();
}

}  // namespace rq::system_test
