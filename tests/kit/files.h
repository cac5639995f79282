// Looking at what programs wrote: whole files, their lines, and waiting (bounded, in real time) until
// something holds.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace rq::kit {

// How long a test waits for another process before it counts as failed; the sanitizer builds are slow.
inline constexpr std::chrono::seconds kPatience{60};

// Empty when the file is not there.
std::string ReadBytes(const std::filesystem::path& path);
// The same with every line end as "\n", whatever the platform's.
std::string ReadText(const std::filesystem::path& path);
// Lines without their ends ("\n" or "\r\n"); a last line without an end counts.
std::vector<std::string> ReadLines(const std::filesystem::path& path);

// Looks every 20 ms. False when `holds` did not become true in time.
bool WaitUntil(const std::function<bool()>& holds, std::chrono::milliseconds bound = kPatience);
// Until the file's bytes satisfy `holds`.
bool WaitForFile(const std::filesystem::path& path,
                 const std::function<bool(const std::string& bytes)>& holds,
                 std::chrono::milliseconds bound = kPatience);
// Until the file contains `text`, whose line ends are "\n".
bool WaitForText(const std::filesystem::path& path, std::string_view text,
                 std::chrono::milliseconds bound = kPatience);

// All files under `root` whose name ends with `ending` ("_W.log"), in the order of their paths.
std::vector<std::filesystem::path> FindFiles(const std::filesystem::path& root, std::string_view ending);

// In an XML file as text: puts `text` between the first <element> and </element>. False when it has no such
// element.
bool ReplaceElementText(const std::filesystem::path& path, const std::string& element, std::string_view text);

}  // namespace rq::kit
