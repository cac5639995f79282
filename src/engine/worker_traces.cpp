#include "engine/worker_traces.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <vector>

#include "base/paths.h"
#include "base/text.h"
#include "engine/json.h"
#include "platform/files.h"

namespace rq::engine {

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t kDay_us = std::int64_t{24} * 3600 * 1'000'000;
constexpr std::size_t kLogBegin_bytes = 1024;
constexpr long kLogEnd_bytes = 64 * 1024;
constexpr std::size_t kShown_bytes = 400;

// Lines of these levels that are no failure, and those which only repeat that there was one.
constexpr std::array<std::string_view, 4> kNoTrouble = {
    "====> Change Work Path to [", "AnalysTask Begin! TaskStr: ", "WorkRunner Init False!",
    "WorkRunner DoWork False!"};

// "20250131", in UTC.
std::string DayName(std::int64_t time_us) {
    std::string day = TimeText(time_us).substr(0, 10);
    std::erase(day, '-');
    return day;
}

// The log folders of the days, a day more at each end: they are named by local time.
std::vector<fs::path> DayFolders(const std::string& logRoot, const WorkerLife& life) {
    const std::string first = DayName(life.from_us - kDay_us), last = DayName(life.until_us + kDay_us);
    std::vector<fs::path> folders;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(PathFromUtf8(logRoot) / "RQWorker", none)) {
        const std::string name = Utf8FromPath(entry.path().filename());
        if (name.size() == first.size() && name >= first && name <= last) folders.push_back(entry.path());
    }
    return folders;
}

// A process id may have been used before: the report must not be older than the process.
bool IsSince(const fs::path& path, std::int64_t from_us) {
    std::error_code unknown;
    const auto written = fs::last_write_time(path, unknown);
    if (unknown) return false;
    const auto age = fs::file_time_type::clock::now() - written;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto when = std::chrono::duration_cast<std::chrono::microseconds>(now - age);
    return when.count() >= from_us - 2'000'000;  // file systems are not exact
}

std::string CrashReportIn(const fs::path& folder, const WorkerLife& life) {
    const std::string end = "_" + std::to_string(life.processId);
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(folder, none)) {
        const std::string stem = Utf8FromPath(entry.path().stem());
        const auto ending = entry.path().extension();
        if (stem.starts_with("RQWorkerU_") && stem.ends_with(end) && (ending == ".txt" || ending == ".dmp") &&
            IsSince(entry.path(), life.from_us))
            return Utf8FromPath(entry.path());
    }
    return {};
}

// A worker of type 14 names its log by the time of its start alone, and each of its lines has its process.
std::string PackageLogIn(const fs::path& folder, const WorkerLife& life) {
    const std::string mark = "] [" + std::to_string(life.processId) + "/";
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(folder, none)) {
        const std::string name = Utf8FromPath(entry.path().filename());
        if (!name.starts_with("Package_") || !name.ends_with("_W.log") ||
            !IsSince(entry.path(), life.from_us))
            continue;
        std::FILE* file = platform::OpenFile(Utf8FromPath(entry.path()), "rb");
        if (file == nullptr) continue;
        std::string begin(kLogBegin_bytes, '\0');
        begin.resize(std::fread(begin.data(), 1, begin.size(), file));
        std::fclose(file);
        if (begin.find(mark) < begin.find('\n')) return Utf8FromPath(entry.path());
    }
    return {};
}

std::string EndOfFile(const std::string& path) {
    std::FILE* file = platform::OpenFile(path, "rb");
    if (file == nullptr) return {};
    std::string text(kLogEnd_bytes, '\0');
    if (std::fseek(file, -kLogEnd_bytes, SEEK_END) != 0) std::rewind(file);
    text.resize(std::fread(text.data(), 1, text.size(), file));
    std::fclose(file);
    return text;
}

// "2017-05-31 10:15:30.250000 [4] [ACT] [MAIN] [812/815] text": the text of a line of level 4 or 5.
std::optional<std::string_view> TroubleIn(std::string_view line) {
    const auto level = line.find(" [");
    if (level == std::string_view::npos || level + 4 > line.size()) return std::nullopt;
    if ((line[level + 2] != '4' && line[level + 2] != '5') || line[level + 3] != ']') return std::nullopt;
    auto at = level;
    for (int i = 0; i < 4; ++i) {
        at = line.find("] ", at + 1);
        if (at == std::string_view::npos) return std::nullopt;
    }
    const auto text = line.substr(at + 2);
    const bool isNone = std::any_of(kNoTrouble.begin(), kNoTrouble.end(),
                                    [&](auto begin) { return text.starts_with(begin); });
    return isNone ? std::nullopt : std::optional(text);
}

}  // namespace

WorkerTraces FindWorkerTraces(const std::string& logRoot, const WorkerLife& life) {
    WorkerTraces traces;
    if (life.name.empty()) return traces;
    for (const auto& folder : DayFolders(logRoot, life)) {
        const fs::path log = folder / PathFromUtf8(life.name + "_W.log");
        std::error_code unknown;
        if (fs::exists(log, unknown)) traces.log = Utf8FromPath(log);
        if (life.processId != 0 && traces.crashReport.empty())
            traces.crashReport = CrashReportIn(folder, life);
        if (life.processId != 0 && traces.log.empty()) traces.log = PackageLogIn(folder, life);
    }
    return traces;
}

std::optional<std::string> LastTrouble(const std::string& log) {
    const std::string text = EndOfFile(log);
    std::optional<std::string> last;
    for (std::string_view rest = text; !rest.empty();) {
        const auto end = std::min(rest.find('\n'), rest.size());
        if (const auto found = TroubleIn(rest.substr(0, end)))
            last = std::string(CutUtf8(RepairUtf8(*found), kShown_bytes));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return last;
}

}  // namespace rq::engine
