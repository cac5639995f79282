#include "base/paths.h"

#include <type_traits>

namespace rq {

namespace {

template <class Path>
inline constexpr bool kWideNative = std::is_same_v<typename Path::value_type, wchar_t>;

// Templates, so that only the branch of this platform's kind of path is compiled.
template <class Path>
Path FromUtf8(std::string_view utf8) {
    if constexpr (kWideNative<Path>) {
        return Path(WidenUtf8(utf8));
    } else {
        return Path(std::string(utf8));
    }
}

template <class Path>
Path FromWide(std::wstring_view wide) {
    if constexpr (kWideNative<Path>) {
        return Path(WideText(wide));
    } else {
        return Path(NarrowUtf8(wide));
    }
}

template <class Path>
std::string ToUtf8(const Path& path) {
    if constexpr (kWideNative<Path>) {
        return NarrowUtf8(path.native());
    } else {
        return path.native();
    }
}

template <class Path>
WideText ToWide(const Path& path) {
    if constexpr (kWideNative<Path>) {
        return path.native();
    } else {
        return WidenUtf8(path.native());
    }
}

}  // namespace

std::filesystem::path PathFromUtf8(std::string_view utf8) {
    return FromUtf8<std::filesystem::path>(utf8);
}

std::filesystem::path PathFromWide(std::wstring_view wide) {
    return FromWide<std::filesystem::path>(wide);
}

std::string Utf8FromPath(const std::filesystem::path& path) {
    return ToUtf8(path);
}

WideText WideFromPath(const std::filesystem::path& path) {
    return ToWide(path);
}

wchar_t PathSeparator() {
    return static_cast<wchar_t>(std::filesystem::path::preferred_separator);
}

std::size_t FindLastSeparator(std::wstring_view path) {
    if (PathSeparator() != L'\\') return path.find_last_of(L"\\/");
    const auto backslash = path.rfind(L'\\');
    return backslash != std::wstring_view::npos ? backslash : path.rfind(L'/');
}

}  // namespace rq
