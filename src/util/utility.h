// The KWOVL_UTILITY services: logging, INI texts, locale, conversions, running parameters. Narrow text is
// UTF-8 (the local code page of this project on every platform); wide text is UTF-16 on Windows, UTF-32 on
// Linux. Any thread may call anything here except OVLSetDefaultLocale and OVLRestoreLocale (main thread,
// while no worker core exists).
#pragma once

#include <cstdint>
#include <string>

#include "records/media_format.h"
#include "records/running_parameter.h"

namespace KWOVL_UTILITY {

using rq::tagOVLCommunicationParam;

// ---- log ----
// Levels: 1 milestones, 2 information, 3 warnings, 4 failures, 5 states that must not occur.
// docs/adr/0003-log-files.md has the form of a line, rolling and flushing. No function here throws or reports
// anything.
//
// Registers the file under the tag and makes its missing folders; a file that cannot be opened stops nothing:
// its lines go nowhere, and one line on standard error says so. A tag registered again means the new file
// from then on. `flag` is not used.
void OVLInitWriteLog(std::string tag, std::wstring path, bool flag);
// One line to the tag's file, whatever the text holds: line feeds and other control characters are shown as
// "\\n" and the like. A tag that was never registered goes to the first registered file and shows itself in
// the line; before the first registration a line goes nowhere. Levels outside 1 to 5 count as the nearest.
void OVLWriteLog(std::string tag, std::int32_t level, std::string text, std::string module);
void OVLWriteLog(std::string tag, std::int32_t level, std::wstring text, std::wstring module);
// To the default log, which is the first registered file; its tag is shown as empty.
void OVLWriteLog(std::int32_t level, std::string text, std::string module);
// Writes out what is buffered. Lines of level 3 and more, each second and a normal end do so by themselves;
// whoever calls abort() calls this first. (For a crash handler: util/log_crash.h.)
void OVLFlushLog();
// The log root, ending with a separator: RQ_LOG_DIR, else Root in [Log] of RQWorker.ini, else "logs" in the
// per-user data folder. Absolute, fixed at the first call of this or OVLIniGetPath, since the working
// directory moves later. Always 0.
std::int32_t OVLGetLogDir(std::string& directory);

// ---- INI texts ----
struct OVLIniFile;  // opaque
using OVLIniHandle = OVLIniFile*;
// docs/adr/0004-ini-texts.md has the syntax. The INI folder, ending with a separator: RQ_CONFIG_DIR, else the
// module directory. Absolute, fixed like the log root. Always 0.
std::int32_t OVLIniGetPath(std::string& directory);
// Null when the file cannot be read. A file is parsed again only when its time or size has changed, so that
// repeated loads cost a look at the folder. A handle stays valid and keeps what it was loaded with until it
// is freed; one that is never freed costs nothing until the file changes.
OVLIniHandle OVLIniLoad(std::string path);
// `key` is "<section>:<name>", divided at its last colon; `fallback` is returned when the file (a null handle
// included) has no such entry.
inline constexpr std::int32_t kIniFound = 0;
inline constexpr std::int32_t kIniFallback = 1;
std::int32_t OVLIniGetString(OVLIniHandle handle, const char* key, std::string fallback, std::wstring& text);
// Null is allowed.
void OVLIniFree(OVLIniHandle handle);

// ---- running parameters ----
// The file's form is in docs/running-parameters.md: <RunningParameters> with one child element for each field
// under the name that records/running_parameter_table.inc gives it, a list as repeated <Item>. UTF-8 (a file
// in UTF-16 or GBK is read too and written back as UTF-8), at most 1 MiB, at most 32 levels deep.
//
// Fills the whole record and sets its next server index to 0 in every case. Not zero means that the file
// should be written back; the record then has defaults for all that the file does not give. An element whose
// text is no good (not a number, out of range, a server list without an item) gets its default and a log line
// that names file, line, element and remedy; that alone gives 0, so that the file stays as its owner wrote
// it. Lists of unequal length stay as they are.
inline constexpr std::int32_t kParameterFileMissing = 1;
inline constexpr std::int32_t kParameterFileIncomplete = 2;  // an element or more is not there
inline constexpr std::int32_t kParameterFileDamaged = 3;     // or cannot be read at all; a log line says why
std::int32_t OVLReadRunningParameter(std::string path, tagOVLCommunicationParam* parameter);
// Writes the record by atomic rename, so that readers see the old file or the new one; 0 on success. Unknown
// elements and comments of an existing file are kept. A damaged file is kept as "<path>.damaged"
// (".damaged.1" and so on) before anything is written; when that is not possible, or the file cannot be read,
// nothing is written.
std::int32_t OVLRunningParamToXml(const tagOVLCommunicationParam* parameter, std::wstring path);

// ---- locale ----
// Switches the run-time library to the system's locale and returns the one that was in force. Numbers keep
// their classic form (LC_NUMERIC stays "C"): files and wire texts are written and read with a decimal point
// everywhere.
std::string OVLSetDefaultLocale();
// 0, or -1 when there is no such locale.
std::int32_t OVLRestoreLocale(std::string saved);

// ---- conversions ----
// Bytes that are not UTF-8, and wide units that are no character, become U+FFFD.
std::wstring OVLStringToTString(std::string text);
std::string OVLTStringToString(std::wstring text);
std::wstring OVLUTF8ToTString(std::string utf8);
std::string OVLTStringToUTF8(std::wstring text);
std::string OVLIntegerToString(std::int32_t value);
// Leading blanks and a sign are accepted, trailing junk is ignored; no digits give 0; out of range is clamped
// (a negative number to 0).
std::uint32_t OVLStringToUInteger(std::string text);
// Upper-case digits without leading zeros or prefix; a negative value as its two's complement.
std::string OVLLongLongToHexString(std::int64_t value);
// 16 bytes in the order of the text: 8-4-4-4-12 lower-case digits. Null gives an empty text, here and in the
// next.
std::string OVLUuidToString(const std::uint8_t* uuid);
// 16 bytes as 32 lower-case digits.
std::string OVLMD5SeedToString(const std::uint8_t* digest);
// The whole file: by its byte order mark (UTF-8, UTF-16), else as UTF-8 when it is that, else as GBK. Leaves
// `text` alone when it cannot be read or has more than 256 MiB; a level 4 line of the log then names the
// file, the reason and the remedy. A level 3 line tells that a text is empty or looks like none; it is given
// all the same.
void OVLReadFileToString(std::string path, std::wstring& text);
// One line: <AVFormat Container Duration Size BitRate> with a <Stream Kind="Video|Audio|Other" Codec Width
// Height FrameRateNumerator FrameRateDenominator SampleRate Channels BitRate Duration /> for each stream;
// times in microseconds, sizes in bytes, rates in bits or samples a second. 0, or 0x80004005 for null (`xml`
// is then left alone).
std::int32_t RQAVFormatToXmlString(const KWOVL::tagAVFormat* format, std::wstring& xml);

}  // namespace KWOVL_UTILITY
