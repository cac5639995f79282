// Text kinds. Narrow text is UTF-8 everywhere in this project (docs/adr/0002); wide text is UTF-16 on Windows
// and UTF-32 on Linux. GBK exists at the console, in the reply texts fixed as GBK, and as a fallback for
// foreign files (platform/codepage.h). All functions are pure; any thread.
#pragma once

#include <string>
#include <string_view>

namespace rq {

using WideText = std::wstring;

bool IsValidUtf8(std::string_view bytes);

// Bytes that are not UTF-8 become U+FFFD; *replaced (when given) tells whether that happened.
WideText WidenUtf8(std::string_view utf8, bool* replaced = nullptr);

// Code units that are no character (lone surrogates, above U+10FFFF) become U+FFFD.
std::string NarrowUtf8(std::wstring_view wide);

// `bytes` itself when valid, otherwise with U+FFFD for what is not.
std::string RepairUtf8(std::string_view bytes, bool* replaced = nullptr);

// Cuts at most `maxBytes`, never inside a character.
std::string_view CutUtf8(std::string_view utf8, std::size_t maxBytes);

}  // namespace rq
