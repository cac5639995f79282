// Inside this folder's Windows sources only: the system's header, and UTF-8 texts and paths as it takes them.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <algorithm>
#include <string>
#include <string_view>

namespace rq::task {

inline std::wstring WideOf(std::string_view utf8) {
    const int size = static_cast<int>(utf8.size());
    std::wstring wide(utf8.size(), L'\0');  // never more units than bytes
    wide.resize(utf8.empty() ? 0
                             : static_cast<std::size_t>(
                                   ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, wide.data(), size)));
    return wide;
}

inline std::string Utf8Of(std::wstring_view wide) {
    const int size = static_cast<int>(wide.size());
    std::string utf8(3 * wide.size(), '\0');
    const int room = static_cast<int>(utf8.size());
    utf8.resize(wide.empty() ? 0
                             : static_cast<std::size_t>(::WideCharToMultiByte(
                                   CP_UTF8, 0, wide.data(), size, utf8.data(), room, nullptr, nullptr)));
    return utf8;
}

// Backslashes, and for a path whose full form is too long for the classic calls that form with the prefix
// that lifts their limit.
inline std::wstring NativePath(std::string_view utf8) {
    constexpr std::size_t kClassicLimit = 247;
    const auto hasPrefix = [](const std::wstring& path) {
        return path.starts_with(L"\\\\?\\") || path.starts_with(L"\\\\.\\");
    };
    std::wstring path = WideOf(utf8);
    std::replace(path.begin(), path.end(), L'/', L'\\');
    if (path.empty() || hasPrefix(path)) return path;
    std::wstring full(::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');  // without "." and ".."
    full.resize(::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    if (full.size() < kClassicLimit || hasPrefix(full)) return path;
    return full.starts_with(L"\\\\") ? L"\\\\?\\UNC" + full.substr(1) : L"\\\\?\\" + full;
}

}  // namespace rq::task
