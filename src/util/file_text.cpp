#include "util/file_text.h"

#include <cstdint>
#include <filesystem>
#include <new>
#include <optional>
#include <system_error>

#include "base/paths.h"
#include "base/text.h"
#include "platform/codepage.h"
#include "platform/files.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t c) {
    const auto tail = [c](unsigned shift) { return static_cast<char>(0x80 | ((c >> shift) & 0x3F)); };
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += tail(0);
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += tail(6);
        out += tail(0);
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += tail(12);
        out += tail(6);
        out += tail(0);
    }
}

// Half a unit at the end and surrogates without a partner become U+FFFD.
DecodedText DecodeUtf16(std::string_view bytes, bool bigEndian) {
    const auto unitAt = [&](std::size_t i) -> char32_t {
        const auto first = static_cast<unsigned char>(bytes[i]);
        const auto second = static_cast<unsigned char>(bytes[i + 1]);
        return bigEndian ? first << 8 | second : second << 8 | first;
    };
    DecodedText out;
    std::size_t i = 0;
    for (; i + 1 < bytes.size(); i += 2) {
        char32_t c = unitAt(i);
        if (c >= 0xD800 && c <= 0xDFFF) {
            const char32_t next = c < 0xDC00 && i + 3 < bytes.size() ? unitAt(i + 2) : 0;
            if (next >= 0xDC00 && next <= 0xDFFF) {
                c = 0x10000 + ((c - 0xD800) << 10) + (next - 0xDC00);
                i += 2;
            } else {
                c = kReplacement;
                out.isWhole = false;
            }
        }
        AppendUtf8(out.utf8, c);
    }
    if (i < bytes.size()) {
        AppendUtf8(out.utf8, kReplacement);
        out.isWhole = false;
    }
    return out;
}

DecodedText AsUtf8(std::string_view bytes) {
    return {RepairUtf8(bytes), IsValidUtf8(bytes)};
}

// What is odd about a text that is handed on all the same; empty when nothing is.
const char* OddityOf(const DecodedText& text) {
    if (text.utf8.empty()) return "is empty";
    if (text.utf8.find('\0') != std::string::npos) return "holds zero bytes, as no text does";
    if (!text.isWhole) return "is neither UTF-8 nor GBK all through, nor UTF-16 with a byte order mark";
    return "";
}

}  // namespace

DecodedText DecodeFile(std::string_view bytes) {
    if (bytes.starts_with("\xEF\xBB\xBF")) return AsUtf8(bytes.substr(3));
    if (bytes.starts_with("\xFF\xFE")) return DecodeUtf16(bytes.substr(2), false);
    if (bytes.starts_with("\xFE\xFF")) return DecodeUtf16(bytes.substr(2), true);
    if (IsValidUtf8(bytes)) return {std::string(bytes)};
    if (std::optional<std::string> text = platform::GbkToUtf8(bytes)) return {*std::move(text)};
    return AsUtf8(bytes);
}

std::string DecodeFileText(std::string_view bytes) {
    return DecodeFile(bytes).utf8;
}

}  // namespace rq

namespace KWOVL_UTILITY {

void OVLReadFileToString(std::string path, std::wstring& text) {
    try {
        // A pipe may never end, or never begin.
        std::error_code unknown;
        if (std::filesystem::is_other(rq::PathFromUtf8(path), unknown)) {
            rq::Log(4, "The file \"" + path +
                           "\" is not used: it is a pipe or a device. Give the path of a text file.");
            return;
        }
        rq::platform::OsError error;
        const auto bytes = rq::platform::ReadWholeFile(path, &error, rq::kLargestTextFile_bytes);
        if (!bytes) {
            rq::Log(4, "The file \"" + path + "\" is not used: " + error.message +
                           ". Give the path of a text file of at most 256 MiB that this user may read.");
            return;
        }
        const rq::DecodedText decoded = rq::DecodeFile(*bytes);
        text = rq::WidenUtf8(decoded.utf8);
        const std::string oddity = rq::OddityOf(decoded);
        if (oddity.empty()) return;
        rq::Log(3, "The file \"" + path + "\" " + oddity +
                       "; it is used as it is. Check that it is the right file, and save it as UTF-8.");
    } catch (const std::bad_alloc&) {
        rq::Log(4, "The file \"" + path + "\" is not used: there is not enough memory for its text.");
    }
}

}  // namespace KWOVL_UTILITY
