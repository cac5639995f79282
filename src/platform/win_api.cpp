#include "platform/win_api.h"

#include <algorithm>
#include <memory>

namespace rq::platform {

namespace {

// Folders may be at most 248 characters in the classic calls (room for a short file name), files 260.
constexpr std::size_t kClassicLimit = 247;

std::wstring MessageIn(DWORD code, DWORD language) {
    wchar_t buffer[1024];
    const DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                          code, language, buffer, ARRAYSIZE(buffer), nullptr);
    return {buffer, length};
}

std::wstring FullPath(const std::wstring& path) {
    const DWORD room = ::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    std::wstring full(room, L'\0');
    const DWORD length = ::GetFullPathNameW(path.c_str(), room, full.data(), nullptr);
    if (length == 0 || length >= room) return path;
    full.resize(length);
    return full;
}

bool HasPrefix(const std::wstring& path) {
    return path.starts_with(L"\\\\?\\") || path.starts_with(L"\\\\.\\");
}

}  // namespace

std::wstring WideOf(std::string_view utf8) {
    if (utf8.empty()) return {};
    const int size = static_cast<int>(utf8.size());
    const int length = ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, wide.data(), length);
    return wide;
}

std::string Utf8Of(std::wstring_view wide) {
    if (wide.empty()) return {};
    const int size = static_cast<int>(wide.size());
    const int length = ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<std::size_t>(length), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, utf8.data(), length, nullptr, nullptr);
    return utf8;
}

std::wstring NativeSeparators(std::string_view utf8) {
    std::wstring path = WideOf(utf8);
    std::replace(path.begin(), path.end(), L'/', L'\\');
    return path;
}

// The system measures what it makes of a path: "f" is long in a folder with a long name.
std::wstring NativePath(std::string_view utf8) {
    std::wstring path = NativeSeparators(utf8);
    if (path.empty() || HasPrefix(path)) return path;
    const std::wstring full = FullPath(path);
    if (full.size() < kClassicLimit || HasPrefix(full)) return path;
    if (full.starts_with(L"\\\\")) return L"\\\\?\\UNC" + full.substr(1);
    return L"\\\\?\\" + full;
}

std::string SystemMessage(DWORD code) {
    std::wstring text = MessageIn(code, MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US));
    if (text.empty()) text = MessageIn(code, 0);
    while (!text.empty() && (text.back() <= L' ' || text.back() == L'.')) text.pop_back();
    return text.empty() ? "error " + std::to_string(code) : Utf8Of(text);
}

void SetOsError(OsError* error, DWORD code, const std::string& what) {
    if (error == nullptr) return;
    error->code = static_cast<int>(code);
    error->message = what + ": " + SystemMessage(code);
}

}  // namespace rq::platform
