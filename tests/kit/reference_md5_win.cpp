#include "kit/reference_md5.h"
#include "platform/win_api.h"

// After the system's own header.
#include <wincrypt.h>

#include <array>
#include <vector>

namespace rq::kit {

namespace {

bool AddFile(HCRYPTHASH hash, HANDLE file) {
    std::vector<BYTE> buffer(1u << 20);
    for (;;) {
        DWORD got = 0;
        if (!::ReadFile(file, buffer.data(), static_cast<DWORD>(buffer.size()), &got, nullptr)) return false;
        if (got == 0) return true;
        if (!::CryptHashData(hash, buffer.data(), got, 0)) return false;
    }
}

}  // namespace

std::string ReferenceMd5(const std::filesystem::path& file) {
    const platform::WinHandle handle(::CreateFileW(file.c_str(), GENERIC_READ,
                                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                                   nullptr, OPEN_EXISTING, 0, nullptr));
    HCRYPTPROV provider = 0;
    HCRYPTHASH hash = 0;
    std::array<BYTE, 16> digest{};
    DWORD length = digest.size();
    const bool good =
        handle.Valid() &&
        ::CryptAcquireContextW(&provider, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT) &&
        ::CryptCreateHash(provider, CALG_MD5, 0, 0, &hash) && AddFile(hash, handle.Get()) &&
        ::CryptGetHashParam(hash, HP_HASHVAL, digest.data(), &length, 0);
    if (hash != 0) ::CryptDestroyHash(hash);
    if (provider != 0) ::CryptReleaseContext(provider, 0);
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const BYTE byte : digest) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return good ? text : std::string();
}

}  // namespace rq::kit
