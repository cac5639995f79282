#include "plugin_common/digest.h"
#include "plugin_common/win_text.h"

// After the system's own header.
#include <bcrypt.h>

namespace rq::task {

// m_method is the provider, m_context the hash that is under way; both are the system's handles.
Hash::Hash(Method method) : m_method(nullptr), m_context(nullptr) {
    const wchar_t* name = method == Method::kMd5 ? BCRYPT_MD5_ALGORITHM : BCRYPT_SHA256_ALGORITHM;
    if (::BCryptOpenAlgorithmProvider(&m_method, name, nullptr, 0) < 0) m_method = nullptr;
}

Hash::~Hash() {
    if (m_context != nullptr) ::BCryptDestroyHash(m_context);
    if (m_method != nullptr) ::BCryptCloseAlgorithmProvider(m_method, 0);
}

bool Hash::Start() {
    if (m_context != nullptr) ::BCryptDestroyHash(m_context);
    m_context = nullptr;
    return m_method != nullptr && ::BCryptCreateHash(m_method, &m_context, nullptr, 0, nullptr, 0, 0) >= 0;
}

bool Hash::Add(const void* bytes, std::size_t count) {
    constexpr std::size_t kMost_bytes = 1u << 30;
    auto* from = static_cast<unsigned char*>(const_cast<void*>(bytes));  // the call only reads
    while (count > 0) {
        const auto part = static_cast<ULONG>(std::min(count, kMost_bytes));
        if (::BCryptHashData(m_context, from, part, 0) < 0) return false;
        from += part;
        count -= part;
    }
    return m_context != nullptr;
}

bool Hash::Finish(std::uint8_t* digest, std::size_t size) {
    return ::BCryptFinishHash(m_context, digest, static_cast<ULONG>(size), 0) >= 0;
}

}  // namespace rq::task
