#include "platform/codepage.h"

#include <iconv.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace rq::platform {

namespace {

// One conversion descriptor; opened for each text, since a descriptor belongs to one thread.
class Iconv {
  public:
    Iconv(const char* to, const char* from) : m_handle(::iconv_open(to, from)) {}
    ~Iconv() {
        if (Valid()) ::iconv_close(m_handle);
    }
    Iconv(const Iconv&) = delete;
    Iconv& operator=(const Iconv&) = delete;

    bool Valid() const { return m_handle != reinterpret_cast<iconv_t>(-1); }

    // Converts as far as possible, appending to `out` and moving `in` on. True when all was converted.
    bool Convert(std::string_view& in, std::string& out) {
        char buffer[4096];
        char* source = const_cast<char*>(in.data());
        std::size_t left = in.size();
        bool good = true;
        while (good && left > 0) {
            char* target = buffer;
            std::size_t room = sizeof buffer;
            const std::size_t result = ::iconv(m_handle, &source, &left, &target, &room);
            const int code = errno;
            out.append(buffer, sizeof buffer - room);
            good = result != static_cast<std::size_t>(-1) || code == E2BIG;
        }
        in = in.substr(in.size() - left);
        return good;
    }

  private:
    iconv_t m_handle;
};

// Length of the character (or of the damaged piece) at the front, at least 1.
std::size_t FrontLength(std::string_view utf8) {
    std::size_t length = 1;
    while (length < utf8.size() && length < 4 && (static_cast<unsigned char>(utf8[length]) & 0xC0) == 0x80) {
        ++length;
    }
    return length;
}

bool IsAscii(char c) {
    return static_cast<unsigned char>(c) < 0x80;
}

// A system without glibc's conversion modules: said once, since the callers have no place for an error.
void TellOnce() {
    static std::atomic<bool> told{false};
    if (told.exchange(true)) return;
    static constexpr std::string_view text =
        "rqworker: this system cannot convert GBK (the C library's gconv modules are missing); "
        "Chinese texts on redirected output are written as \"?\"\n";
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text.data(), text.size());
}

// What cannot be converted becomes "?"; without a conversion, all that is not ASCII.
std::string ConvertOrAsk(Iconv& iconv, std::string_view utf8) {
    std::string out;
    out.reserve(utf8.size());
    while (!utf8.empty()) {
        if (iconv.Valid() && iconv.Convert(utf8, out)) break;
        if (!iconv.Valid() && IsAscii(utf8.front())) {
            out += utf8.front();
            utf8.remove_prefix(1);
            continue;
        }
        out += '?';
        utf8.remove_prefix(FrontLength(utf8));
    }
    return out;
}

}  // namespace

std::string Utf8ToGbk(std::string_view utf8) {
    Iconv iconv("GBK", "UTF-8");
    if (!iconv.Valid()) TellOnce();
    return ConvertOrAsk(iconv, utf8);
}

std::string Utf8ToEncoding(std::string_view utf8, const std::string& encoding) {
    Iconv iconv(encoding.c_str(), "UTF-8");
    return iconv.Valid() ? ConvertOrAsk(iconv, utf8) : std::string(utf8);
}

std::optional<std::string> GbkToUtf8(std::string_view gbk) {
    Iconv iconv("UTF-8", "GBK");
    if (!iconv.Valid()) {
        TellOnce();
        return std::nullopt;
    }
    std::string out;
    if (!iconv.Convert(gbk, out)) return std::nullopt;
    return out;
}

}  // namespace rq::platform
