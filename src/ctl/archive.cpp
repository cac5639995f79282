#include "ctl/archive.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace rq::ctl {

namespace {

constexpr std::size_t kBlock_bytes = 512;
constexpr int kGzip = 15 + 16;  // the largest window, with gzip's own header

// The header of a plain file in the ustar form; numbers are octal texts.
std::array<char, kBlock_bytes> HeaderOf(std::string_view name, std::size_t size_bytes, std::int64_t time_s) {
    std::array<char, kBlock_bytes> header{};
    const auto put = [&](std::size_t at, std::string_view text) {
        std::copy(text.begin(), text.end(), header.begin() + static_cast<std::ptrdiff_t>(at));
    };
    const auto octal = [](unsigned long long number, int digits) {
        char text[32];
        std::snprintf(text, sizeof text, "%0*llo", digits, number);
        return std::string(text);
    };
    put(0, name.substr(0, 100));
    put(100, "0000600");
    put(108, "0000000");
    put(116, "0000000");
    put(124, octal(size_bytes, 11));
    put(136, octal(static_cast<unsigned long long>(std::max<std::int64_t>(0, time_s)), 11));
    put(148, "        ");  // the sum is taken with blanks in its place
    put(156, "0");
    put(257, std::string_view("ustar\00000", 8));
    unsigned sum = 0;
    for (const char c : header) sum += static_cast<unsigned char>(c);
    put(148, octal(sum, 6) + '\0');
    return header;
}

}  // namespace

void Archive::Add(std::string_view name, std::string_view bytes) {
    const auto header = HeaderOf(name, bytes.size(), m_time_s);
    m_tar.append(header.data(), header.size());
    m_tar.append(bytes);
    m_tar.append((kBlock_bytes - bytes.size() % kBlock_bytes) % kBlock_bytes, '\0');
}

Result<std::string> Archive::Finish() {
    m_tar.append(2 * kBlock_bytes, '\0');
    z_stream stream{};
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzip, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        return Fail("the archive cannot be compressed");
    std::string packed(deflateBound(&stream, static_cast<uLong>(m_tar.size())), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(m_tar.data());
    stream.avail_in = static_cast<uInt>(m_tar.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    const int code = deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    m_tar.clear();
    if (code != Z_STREAM_END) return Fail("the archive cannot be compressed");
    return packed;
}

}  // namespace rq::ctl
