// The KWOVL_UTILITY services: logging, INI texts, locale, conversions, running parameters. Narrow text is UTF-8 (the
// local code page of this project on every platform); wide text is UTF-16 on Windows, UTF-32 on Linux. Any thread may
// call anything here except OVLSetDefaultLocale and OVLRestoreLocale (main thread, while no worker core exists).
#pragma once

#include <cstdint>
#include <string>

#include "records/media_format.h"
#include "records/running_parameter.h"

namespace KWOVL_UTILITY {

using rq::tagOVLCommunicationParam;

// ---- log ----
// Levels: 1 milestones, 2 information, 3 warnings, 4 failures, 5 states that must not occur.
// Registers the file under the tag and makes its missing folders; a file that cannot be opened stops nothing.
void OVLInitWriteLog(std::string tag, std::wstring path, bool flag);
// One line to the tag's file; a tag that was never registered goes to the first registered file.
void OVLWriteLog(std::string tag, std::int32_t level, std::string text, std::string module);
void OVLWriteLog(std::string tag, std::int32_t level, std::wstring text, std::wstring module);
// To the default log, which is the first registered file.
void OVLWriteLog(std::int32_t level, std::string text, std::string module);
// Writes out what is buffered.
void OVLFlushLog();
// The log root, ending with a separator: RQ_LOG_DIR, else the per-user default. Absolute, fixed at the first call.
std::int32_t OVLGetLogDir(std::string& directory);

// ---- INI texts ----
struct OVLIniFile;  // opaque
using OVLIniHandle = OVLIniFile*;
// The INI folder, ending with a separator: RQ_CONFIG_DIR, else the module directory.
std::int32_t OVLIniGetPath(std::string& directory);
// Null when the file cannot be read. A handle stays valid until it is freed.
OVLIniHandle OVLIniLoad(std::string path);
// `key` is "<section>:<name>"; `fallback` is returned when the file (a null handle included) has no such entry. 0 found,
// 1 fallback used.
std::int32_t OVLIniGetString(OVLIniHandle handle, const char* key, std::string fallback, std::wstring& text);
void OVLIniFree(OVLIniHandle handle);

// ---- running parameters ----
// Reads "actor.xml"-like files. 0 when every element that the file has was read; non-zero when the file is missing,
// damaged or lacks elements (the record then holds defaults in their place and should be written back). Sets the next
// server index to 0 in every case.
std::int32_t OVLReadRunningParameter(std::string path, tagOVLCommunicationParam* parameter);
// Writes the record by atomic rename; unknown elements of an existing file are kept, a damaged file is kept as a backup.
std::int32_t OVLRunningParamToXml(const tagOVLCommunicationParam* parameter, std::wstring path);

// ---- locale ----
std::string OVLSetDefaultLocale();
std::int32_t OVLRestoreLocale(std::string saved);

// ---- conversions ----
std::wstring OVLStringToTString(std::string text);
std::string OVLTStringToString(std::wstring text);
std::wstring OVLUTF8ToTString(std::string utf8);
std::string OVLTStringToUTF8(std::wstring text);
std::string OVLIntegerToString(std::int32_t value);
// Leading blanks and a sign are accepted, trailing junk is ignored; no digits give 0; out of range is clamped.
std::uint32_t OVLStringToUInteger(std::string text);
std::string OVLLongLongToHexString(std::int64_t value);
// 16 bytes in the order of the text: 8-4-4-4-12 lower-case digits.
std::string OVLUuidToString(const std::uint8_t* uuid);
// 16 bytes as 32 lower-case digits.
std::string OVLMD5SeedToString(const std::uint8_t* digest);
// The whole file: byte order mark, else valid UTF-8, else GBK. Leaves `text` alone when it cannot be read.
void OVLReadFileToString(std::string path, std::wstring& text);
std::int32_t RQAVFormatToXmlString(const KWOVL::tagAVFormat* format, std::wstring& xml);

}  // namespace KWOVL_UTILITY
