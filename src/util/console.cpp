#include <algorithm>
#include <array>
#include <locale>
#include <sstream>

#include "base/text.h"
#include "log/log_text.h"
#include "platform/codepage.h"
#include "platform/console.h"
#include "platform/environment.h"
#include "util/capture_hub.h"
#include "util/console_encoding.h"
#include "util/one_line.h"
#include "util/worker_util.h"

namespace rq {
namespace {

char UpperAscii(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

bool IsAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

ConsoleEncoding OfThisProcess() {
    using platform::StandardStream;
    const bool isTerminal = platform::IsTerminal(StandardStream::Output);
    return ChooseConsoleEncoding(platform::GetEnvironment("RQ_CONSOLE_ENCODING"), isTerminal,
                                 isTerminal ? platform::TerminalEncoding() : std::string());
}

}  // namespace

ConsoleEncoding EncodingByName(std::string_view name) {
    std::string upper(name);
    std::transform(upper.begin(), upper.end(), upper.begin(), UpperAscii);
    constexpr std::array<std::string_view, 4> kGbk{"GBK", "GB2312", "CP936", "936"};
    constexpr std::array<std::string_view, 6> kUtf8{"",      "UTF-8",    "UTF8",
                                                    "ASCII", "US-ASCII", "ANSI_X3.4-1968"};
    if (std::find(kGbk.begin(), kGbk.end(), upper) != kGbk.end()) return kConsoleGbk;
    return std::find(kUtf8.begin(), kUtf8.end(), upper) != kUtf8.end() ? kConsoleUtf8 : upper;
}

ConsoleEncoding ChooseConsoleEncoding(const std::optional<std::string>& forced, bool isTerminal,
                                      std::string_view terminalEncoding) {
    if (forced && !forced->empty()) {
        const ConsoleEncoding encoding = EncodingByName(*forced);
        return encoding == "GB18030" ? kConsoleGbk : encoding;
    }
    return isTerminal ? EncodingByName(terminalEncoding) : kConsoleGbk;
}

std::string EncodeForConsole(std::string_view utf8, const ConsoleEncoding& encoding) {
    if (encoding == kConsoleGbk && IsAscii(utf8))
        return std::string(utf8);  // most lines, and the same in GBK
    std::string repaired = RepairUtf8(utf8);
    if (encoding == kConsoleGbk) return platform::Utf8ToGbk(repaired);
    return encoding == kConsoleUtf8 ? repaired : platform::Utf8ToEncoding(repaired, encoding);
}

void ConsoleWrite(std::string_view utf8) {
    if (ConsoleHub().IsHeard() && ConsoleHub().Tell(std::string(utf8))) return;
    // Neither the stream nor its encoding changes while the process runs.
    static const auto* encoding = new ConsoleEncoding(OfThisProcess());
    platform::WriteStandardOutput(EncodeForConsole(utf8, *encoding));
}

// The classic locale: no digit grouping, a decimal point, whatever locale the process has.
std::string PointerText(const void* pointer) {
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    stream << pointer;
    return std::move(stream).str();
}

std::string StreamText(double value) {
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    stream << value;
    return std::move(stream).str();
}

std::string OneLine(std::string_view text) {
    return MakeLogText(text);
}

}  // namespace rq
