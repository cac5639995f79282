#include "plugin_common/report.h"

#include <chrono>
#include <cstdio>

#include "plugin_common/file.h"

namespace rq::task {
namespace {

constexpr std::size_t kMaxKeptId = 64;

// What every file system takes.
std::string PlainName(std::string_view id) {
    std::string name;
    for (const char c : id.substr(0, kMaxKeptId)) {
        const bool isPlain =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
        name += isPlain ? c : '_';
    }
    return name;
}

}  // namespace

std::string EscapedPath(std::string_view path) {
    const bool hasOwnBackslashes = IsAbsolutePath("C:\\");
    std::string text;
    for (const char c : path) {
        if (c == '\n')
            text += "\\n";
        else if (c == '\r')
            text += "\\r";
        else if (c == '\\' && !hasOwnBackslashes)
            text += "\\\\";
        else
            text += c;
    }
    return text;
}

std::string UtcStamp() {
    using namespace std::chrono;
    const auto now = floor<milliseconds>(system_clock::now());
    const auto day = floor<days>(now);
    const year_month_day date(day);
    const hh_mm_ss<milliseconds> time(now - day);
    char text[32];
    std::snprintf(text, sizeof text, "%04d%02u%02uT%02d%02d%02d.%03dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()));
    return text;
}

ReportFailure Report::FailureOf(std::uint32_t code, const std::string& path) const {
    return {code, path + ": the report cannot be written: " + SystemWords(code) +
                      "; let the worker's user write there, or name another folder in RQ_REPORT_DIR"};
}

std::optional<ReportFailure> Report::Create(std::string_view kind, std::string_view taskId) {
    const std::string folder = ReportFolder();
    if (!IsAbsolutePath(folder))
        return ReportFailure{0, "RQ_REPORT_DIR or RQ_LOG_DIR is no absolute path: \"" + folder + "\""};
    if (const std::uint32_t code = MakeFolders(folder); code != 0) return FailureOf(code, folder);
    m_path = PathIn(folder, std::string(kind) + "_" + UtcStamp().substr(0, 15) + "_" + PlainName(taskId) +
                                "_" + RandomDigits() + ".txt");
    if (const std::uint32_t code = m_file.Create(m_path); code != 0) return FailureOf(code, m_path);
    Add("task", taskId);
    return Write(false);
}

void Report::Add(std::string_view word, std::string_view text) {
    m_pending += UtcStamp() + " " + std::string(word);
    if (!text.empty()) m_pending += " " + EscapedPath(text);
    m_pending += '\n';
}

std::optional<ReportFailure> Report::Write(bool sync) {
    std::uint32_t code = m_file.Append(m_pending);
    m_pending.clear();
    if (code == 0 && sync) code = m_file.Sync();
    if (code != 0) return FailureOf(code, m_path);
    return std::nullopt;
}

}  // namespace rq::task
