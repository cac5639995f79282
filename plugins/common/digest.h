// MD5 of bytes as they come. The plug-ins' seam to the system's cryptography.
// One thread at a time for each object; different objects side by side.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace rq::task {

using Md5Digest = std::array<std::uint8_t, 16>;

class Md5 {
  public:
    Md5();
    ~Md5();
    Md5(const Md5&) = delete;
    Md5& operator=(const Md5&) = delete;

    // Begins anew. False when the system offers no MD5 (a policy may forbid it).
    bool Start();
    bool Add(const void* bytes, std::size_t count);
    // Ends it; Start is next.
    bool Finish(Md5Digest& digest);

  private:
    void* m_method;
    void* m_context;
};

// 32 hexadecimal digits of either case; nothing for any other text.
std::optional<Md5Digest> ParseMd5(std::string_view text);

}  // namespace rq::task
