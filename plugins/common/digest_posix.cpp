#include <openssl/evp.h>

#include "plugin_common/digest.h"

namespace rq::task {
namespace {

EVP_MD* MethodOf(void* method) {
    return static_cast<EVP_MD*>(method);
}
EVP_MD_CTX* Context(void* context) {
    return static_cast<EVP_MD_CTX*>(context);
}

}  // namespace

Hash::Hash(Method method)
    : m_method(EVP_MD_fetch(nullptr, method == Method::kMd5 ? "MD5" : "SHA256", nullptr)),
      m_context(EVP_MD_CTX_new()) {}

Hash::~Hash() {
    EVP_MD_CTX_free(Context(m_context));
    EVP_MD_free(MethodOf(m_method));
}

bool Hash::Start() {
    return m_method != nullptr && m_context != nullptr &&
           EVP_DigestInit_ex2(Context(m_context), MethodOf(m_method), nullptr) == 1;
}

bool Hash::Add(const void* bytes, std::size_t count) {
    return EVP_DigestUpdate(Context(m_context), bytes, count) == 1;
}

bool Hash::Finish(std::uint8_t* digest, std::size_t size) {
    unsigned int length = 0;
    return EVP_DigestFinal_ex(Context(m_context), digest, &length) == 1 && length == size;
}

}  // namespace rq::task
