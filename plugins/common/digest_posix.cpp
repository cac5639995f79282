#include <openssl/evp.h>

#include "plugin_common/digest.h"

namespace rq::task {
namespace {

EVP_MD* Method(void* method) {
    return static_cast<EVP_MD*>(method);
}
EVP_MD_CTX* Context(void* context) {
    return static_cast<EVP_MD_CTX*>(context);
}

}  // namespace

Md5::Md5() : m_method(EVP_MD_fetch(nullptr, "MD5", nullptr)), m_context(EVP_MD_CTX_new()) {}

Md5::~Md5() {
    EVP_MD_CTX_free(Context(m_context));
    EVP_MD_free(Method(m_method));
}

bool Md5::Start() {
    return m_method != nullptr && m_context != nullptr &&
           EVP_DigestInit_ex2(Context(m_context), Method(m_method), nullptr) == 1;
}

bool Md5::Add(const void* bytes, std::size_t count) {
    return EVP_DigestUpdate(Context(m_context), bytes, count) == 1;
}

bool Md5::Finish(Md5Digest& digest) {
    unsigned int length = 0;
    return EVP_DigestFinal_ex(Context(m_context), digest.data(), &length) == 1 && length == digest.size();
}

}  // namespace rq::task
