// Which bytes the console texts become. Pure; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace rq {

// The name of an encoding in capitals: one of these two, or that of a terminal which has another.
using ConsoleEncoding = std::string;
inline constexpr const char* kConsoleGbk = "GBK";
inline constexpr const char* kConsoleUtf8 = "UTF-8";

// "GBK", "GB2312", "CP936" and "936" in any case are GBK; no name, "UTF8" and the names of ASCII
// are UTF-8, whose ASCII part every terminal shows; every other name is that encoding.
ConsoleEncoding EncodingByName(std::string_view name);

// `forced` is RQ_CONSOLE_ENCODING (empty counts as absent; "GB18030" is GBK, which is a part of it that every
// platform has); a redirected output is GBK, a terminal has its own.
ConsoleEncoding ChooseConsoleEncoding(const std::optional<std::string>& forced, bool isTerminal,
                                      std::string_view terminalEncoding);

// Bytes that are not UTF-8 become U+FFFD in UTF-8; in others "?", as every character that the encoding does
// not have. An encoding that the system does not know is written as UTF-8.
std::string EncodeForConsole(std::string_view utf8, const ConsoleEncoding& encoding);

}  // namespace rq
