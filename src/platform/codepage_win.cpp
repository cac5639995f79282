#include "platform/codepage.h"
#include "platform/win_api.h"

namespace rq::platform {

namespace {

constexpr UINT kGbk = 936;
constexpr wchar_t kReplacement = 0xFFFD;

// GBK has nothing outside the basic plane: one unit for each such character, so that each becomes one "?".
std::wstring WithoutPairs(const std::wstring& wide) {
    std::wstring out;
    out.reserve(wide.size());
    for (const wchar_t unit : wide) {
        if (unit >= 0xDC00 && unit <= 0xDFFF) continue;
        out += unit >= 0xD800 && unit <= 0xDBFF ? kReplacement : unit;
    }
    return out;
}

}  // namespace

std::string Utf8ToGbk(std::string_view utf8) {
    const std::wstring wide = WithoutPairs(WideOf(utf8));
    if (wide.empty()) return {};
    const int size = static_cast<int>(wide.size());
    const DWORD exactly = WC_NO_BEST_FIT_CHARS;
    const int length = ::WideCharToMultiByte(kGbk, exactly, wide.data(), size, nullptr, 0, "?", nullptr);
    std::string gbk(static_cast<std::size_t>(length), '\0');
    ::WideCharToMultiByte(kGbk, exactly, wide.data(), size, gbk.data(), length, "?", nullptr);
    return gbk;
}

std::optional<std::string> GbkToUtf8(std::string_view gbk) {
    if (gbk.empty()) return std::string();
    const int size = static_cast<int>(gbk.size());
    const DWORD strictly = MB_ERR_INVALID_CHARS;
    const int length = ::MultiByteToWideChar(kGbk, strictly, gbk.data(), size, nullptr, 0);
    if (length <= 0) return std::nullopt;
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    ::MultiByteToWideChar(kGbk, strictly, gbk.data(), size, wide.data(), length);
    return Utf8Of(wide);
}

std::string Utf8ToEncoding(std::string_view utf8, const std::string& /*encoding*/) {
    return std::string(utf8);
}

}  // namespace rq::platform
