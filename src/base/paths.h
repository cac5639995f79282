// Paths: UTF-8 narrow text, wide text and std::filesystem::path, converted without any code page. Any thread.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "base/text.h"

namespace rq {

std::filesystem::path PathFromUtf8(std::string_view utf8);
std::filesystem::path PathFromWide(std::wstring_view wide);
std::string Utf8FromPath(const std::filesystem::path& path);
WideText WideFromPath(const std::filesystem::path& path);

// The platform's separator: "\\" on Windows, "/" elsewhere.
wchar_t PathSeparator();

// Position of the last separator, npos when there is none. On Windows a backslash (a slash only when the text
// has no backslash); elsewhere whichever of the two stands last, since both are accepted on input.
std::size_t FindLastSeparator(std::wstring_view path);

}  // namespace rq
