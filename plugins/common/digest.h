// MD5 and SHA-256 of bytes as they come. The plug-ins' seam to the system's cryptography.
// One thread at a time for each object; different objects side by side.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace rq::task {

using Md5Digest = std::array<std::uint8_t, 16>;

using Sha256Digest = std::array<std::uint8_t, 32>;

class Hash {
  public:
    enum class Method { kMd5, kSha256 };
    explicit Hash(Method method);
    ~Hash();
    Hash(const Hash&) = delete;
    Hash& operator=(const Hash&) = delete;

    // Begins anew. False when the system does not offer it (a policy may forbid MD5).
    bool Start();
    bool Add(const void* bytes, std::size_t count);
    // Ends it; Start is next. `size` is that of the method's digest.
    bool Finish(std::uint8_t* digest, std::size_t size);

  private:
    void* m_method;
    void* m_context;
};

class Md5 : public Hash {
  public:
    Md5() : Hash(Method::kMd5) {}
    bool Finish(Md5Digest& digest) { return Hash::Finish(digest.data(), digest.size()); }
};

class Sha256 : public Hash {
  public:
    Sha256() : Hash(Method::kSha256) {}
    bool Finish(Sha256Digest& digest) { return Hash::Finish(digest.data(), digest.size()); }
};

// Lower-case hexadecimal digits.
std::string HexOf(const std::uint8_t* bytes, std::size_t count);

// A line of a checksum file as md5sum and sha256sum write it: one with a line end or a backslash in the name
// is marked, and they are written otherwise.
std::string DigestLine(std::string_view hex, std::string_view name);

// 32 hexadecimal digits of either case; nothing for any other text.
std::optional<Md5Digest> ParseMd5(std::string_view text);

}  // namespace rq::task
