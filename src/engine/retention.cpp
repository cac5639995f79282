#include "engine/retention.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <vector>

#include "base/paths.h"

namespace rq::engine {

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t kDay_us = std::int64_t{24} * 3600 * 1'000'000;
constexpr std::uint64_t kMiB = 1024 * 1024;

struct OldFile {
    fs::path path;
    std::int64_t written_us = 0;
    std::uint64_t size_bytes = 0;
};
using Files = std::vector<OldFile>;

// The clock of file times is not the system's; both are read once.
class FileClock {
  public:
    std::int64_t TimeOf(const fs::file_time_type& time) const {
        using std::chrono::duration_cast, std::chrono::microseconds;
        return m_system_us + duration_cast<microseconds>(time - m_file).count();
    }

  private:
    const fs::file_time_type m_file = fs::file_time_type::clock::now();
    const std::int64_t m_system_us = std::chrono::duration_cast<std::chrono::microseconds>(
                                         std::chrono::system_clock::now().time_since_epoch())
                                         .count();
};

bool IsInUse(const std::string& name, const std::set<std::string>& inUse) {
    return std::any_of(inUse.begin(), inUse.end(),
                       [&](const auto& begin) { return name.starts_with(begin); });
}

std::string KindOf(const fs::path& path) {
    const std::string name = Utf8FromPath(path.filename());
    const auto ending = path.extension();
    if (name.starts_with("RQWorkerU_") && (ending == ".txt" || ending == ".dmp")) return "dumps";
    return ending == ".log" ? "logs" : "";
}

void Take(const fs::path& path, const FileClock& clock, Files& files) {
    std::error_code failed;
    const auto written = fs::last_write_time(path, failed);
    if (failed) return;
    const auto size_bytes = fs::file_size(path, failed);
    if (!failed) files.push_back({path, clock.TimeOf(written), size_bytes});
}

bool IsDay(const fs::path& folder) {
    const std::string name = Utf8FromPath(folder.filename());
    return name.size() == 8 && name.find_first_not_of("0123456789") == std::string::npos;
}

std::map<std::string, Files> FilesByKind(const fs::path& root, const std::set<std::string>& inUse) {
    std::map<std::string, Files> kinds;
    const FileClock clock;
    std::error_code none, unknown;
    for (const auto& day : fs::directory_iterator(root / "RQWorker", none)) {
        if (!IsDay(day.path())) continue;
        for (const auto& entry : fs::directory_iterator(day.path(), none)) {
            const std::string kind = KindOf(entry.path());
            if (kind.empty() || !entry.is_regular_file(unknown)) continue;
            if (!IsInUse(Utf8FromPath(entry.path().filename()), inUse))
                Take(entry.path(), clock, kinds[kind]);
        }
    }
    for (const auto& entry : fs::directory_iterator(root / "workers", none)) {
        if (entry.path().extension() == ".out" && entry.is_regular_file(unknown) &&
            !IsInUse(Utf8FromPath(entry.path().filename()), inUse))
            Take(entry.path(), clock, kinds["output"]);
    }
    return kinds;
}

Removed RemoveOf(Files files, std::int64_t before_us, std::uint64_t most_bytes) {
    std::sort(files.begin(), files.end(),
              [](const OldFile& a, const OldFile& b) { return a.written_us < b.written_us; });
    std::uint64_t total_bytes = 0;
    for (const auto& file : files) total_bytes += file.size_bytes;
    Removed removed;
    for (const auto& file : files) {
        const bool isTooMuch = most_bytes != 0 && total_bytes > most_bytes;
        if (file.written_us >= before_us && !isTooMuch) break;
        std::error_code failed;
        if (!fs::remove(file.path, failed)) continue;
        ++removed.files;
        removed.bytes += file.size_bytes;
        total_bytes -= file.size_bytes;
    }
    return removed;
}

void RemoveEmptyDays(const fs::path& root, std::int64_t now_us) {
    const FileClock clock;
    std::error_code failed;
    std::vector<fs::path> days;
    for (const auto& day : fs::directory_iterator(root / "RQWorker", failed)) {
        std::error_code unknown;
        const auto written = fs::last_write_time(day.path(), unknown);
        if (IsDay(day.path()) && !unknown && clock.TimeOf(written) < now_us - kDay_us)
            days.push_back(day.path());
    }
    for (const auto& day : days) fs::remove(day, failed);  // does nothing to a folder that holds something
}

}  // namespace

RemovedByKind RemoveOldFiles(const std::string& logRoot, const Retention& kept,
                             const std::set<std::string>& inUse, std::int64_t now_us) {
    const fs::path root = PathFromUtf8(logRoot);
    RemoveEmptyDays(root, now_us);
    auto kinds = FilesByKind(root, inUse);
    const auto remove = [&](const char* kind, unsigned days, std::uint64_t most_MiB) {
        const std::int64_t before_us = days == 0 ? INT64_MIN : now_us - days * kDay_us;
        return RemoveOf(std::move(kinds[kind]), before_us, most_MiB * kMiB);
    };
    return {{"logs", remove("logs", kept.logs_days, kept.logs_MiB)},
            {"output", remove("output", kept.output_days, kept.output_MiB)},
            {"dumps", remove("dumps", kept.dumps_days, kept.dumps_MiB)}};
}

}  // namespace rq::engine
