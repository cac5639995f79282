#include <openssl/evp.h>

#include <array>
#include <fstream>

#include "node.h"

namespace rq::system_test {

std::string Md5Of(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::array<char, 65536> buffer;
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    EVP_DigestInit_ex(context, EVP_md5(), nullptr);
    while (in) {
        in.read(buffer.data(), buffer.size());
        EVP_DigestUpdate(context, buffer.data(), static_cast<std::size_t>(in.gcount()));
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
    unsigned length = 0;
    EVP_DigestFinal_ex(context, digest.data(), &length);
    EVP_MD_CTX_free(context);
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < length; ++i) {
        text += kDigits[digest[i] >> 4];
        text += kDigits[digest[i] & 15];
    }
    return text;
}

}  // namespace rq::system_test
