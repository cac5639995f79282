// Which bytes the console texts become. Pure; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace rq {

enum class ConsoleEncoding { Gbk, Utf8 };

// "GBK", "GB2312", "GB18030", "CP936" and "936" in any case are GBK; every other name is UTF-8, whose ASCII
// part every terminal shows.
ConsoleEncoding EncodingByName(std::string_view name);

// `forced` is RQ_CONSOLE_ENCODING (empty counts as absent); a redirected output is GBK, a terminal has its
// own.
ConsoleEncoding ChooseConsoleEncoding(const std::optional<std::string>& forced, bool isTerminal,
                                      std::string_view terminalEncoding);

// Bytes that are not UTF-8 become "?" in GBK and U+FFFD in UTF-8.
std::string EncodeForConsole(std::string_view utf8, ConsoleEncoding encoding);

}  // namespace rq
