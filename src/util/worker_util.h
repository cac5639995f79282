// The worker's own small helpers over the utility services. Any thread.
#pragma once

#include <string>
#include <string_view>

#include "base/text.h"
#include "platform/identity.h"

namespace rq {

// The tag and module of nearly every log line.
inline constexpr const char* LogChannelTag = "ACT";
inline constexpr const char* kModuleMain = "MAIN";

// One line to the worker's log, tag "ACT". Module "MAIN" unless told.
void Log(int level, std::string text, std::string module = kModuleMain);

// The log root + "RQWorker" + separator + today's local date as YYYYMMDD + separator. The date is that of the
// call: whoever registers a log keeps the path it began with.
WideText GetDailyLogDir();
// The executable's folder with its separator: the "work path", where the data files lie. The executable's
// path has at most 260 wide characters on Windows.
WideText GetModuleDirectory();
// "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x"; empty for null.
std::string GuidToString(const platform::Guid* guid);
// A new array of 2 x length + 1 bytes (length in wide characters) holding the narrow text, always terminated,
// cut at a whole character when it does not fit: a Chinese character takes three bytes. Null counts as an
// empty text. The caller frees it with delete[].
char* WideToMultiByteAlloc(const wchar_t* text);

// ---- console ----
// Standard output, given as UTF-8: GBK bytes when it is redirected, the terminal's encoding on a terminal;
// RQ_CONSOLE_ENCODING ("GBK", "UTF-8") forces one. Nothing is added: write "\n" where a line ends.
void ConsoleWrite(std::string_view utf8);
// `pointer` as the narrow stream's pointer output writes it ("0x7ffd...").
std::string PointerText(const void* pointer);
// A number as a narrow stream writes it with its defaults (six significant digits).
std::string StreamText(double value);

}  // namespace rq
