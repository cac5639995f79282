#include "log/log_file.h"

#include <fmt/format.h>
#include <spdlog/details/fmt_helper.h>
#include <spdlog/details/os.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "base/paths.h"
#include "platform/crash_text.h"
#include "platform/process.h"

namespace rq {
namespace {

// " [3] [ACT] [MAIN] [812/815] ": everything between the time and the text.
class LineHead final : public spdlog::custom_flag_formatter {
  public:
    LineHead() : m_process(std::to_string(platform::CurrentProcessId())) {}

    // Piece by piece: a general format costs as much as the rest of the line.
    void format(const spdlog::details::log_msg& message, const std::tm&, spdlog::memory_buf_t& out) override {
        using spdlog::details::fmt_helper::append_int;
        using spdlog::details::fmt_helper::append_string_view;
        append_string_view(" [", out);
        out.push_back(static_cast<char>('0' + static_cast<int>(message.level)));
        append_string_view("] [", out);
        append_string_view(message.source.funcname, out);
        append_string_view("] [", out);
        append_string_view(message.source.filename, out);
        append_string_view("] [", out);
        append_string_view(m_process, out);
        out.push_back('/');
        append_int(message.thread_id, out);
        append_string_view("] ", out);
    }
    std::unique_ptr<spdlog::custom_flag_formatter> clone() const override {
        return std::make_unique<LineHead>();
    }

  private:
    const std::string m_process;
};

int UtcOffset_min() {
    return spdlog::details::os::utc_minutes_offset(spdlog::details::os::localtime());
}

// Too large for the stack that a signal is handled on; one thread reports a crash.
constinit platform::CrashText g_crashLine;

spdlog::pattern_formatter::custom_flags LineFlags() {
    spdlog::pattern_formatter::custom_flags flags;
    flags['*'] = std::make_unique<LineHead>();
    return flags;
}

}  // namespace

LogFile::LogFile(std::string path, LogLimits limits)
    : m_path(std::move(path)),
      m_limits(limits),
      m_processId(platform::CurrentProcessId()),
      m_formatter("%Y-%m-%d %H:%M:%S.%f%*%v", spdlog::pattern_time_type::local, "\n", LineFlags()),
      m_buffer(std::make_unique<char[]>(kBufferSize_bytes)) {
    std::error_code ignored;
    std::filesystem::create_directories(PathFromUtf8(m_path).parent_path(), ignored);
    m_utcOffset_min.store(UtcOffset_min());
    MutexLock lock(m_mutex);
    if (OpenNumber(HighestNumber())) RollWhenFull();
}

LogFile::~LogFile() {
    MutexLock lock(m_mutex);
    FlushLocked();
    delete m_file.exchange(nullptr);
}

void LogFile::log(const spdlog::details::log_msg& message) {
    MutexLock lock(m_mutex);
    platform::AppendFile* file = m_file.load(std::memory_order_relaxed);
    if (file == nullptr) return;
    m_line.clear();
    m_formatter.format(message, m_line);
    if (m_held.load().size + m_line.size() > kBufferSize_bytes) FlushLocked();
    if (m_line.size() > kBufferSize_bytes) {  // too long for the buffer: a write of its own
        AppendLocked({m_line.data(), m_line.size()});
        m_line = spdlog::memory_buf_t();  // lets the large block go
        return;
    }
    const Held held = m_held.load();
    std::memcpy(m_buffer.get() + held.size, m_line.data(), m_line.size());
    m_held.store({held.begin, held.size + m_line.size()});
}

void LogFile::flush() {
    MutexLock lock(m_mutex);
    FlushLocked();
}

void LogFile::FlushLocked() noexcept {
    const Held held = m_held.load();
    if (m_file.load(std::memory_order_relaxed) == nullptr || held.size == 0) return;
    AppendLocked(Unwritten(held));
    m_held.store({held.begin + held.size, 0});
    m_utcOffset_min.store(UtcOffset_min(), std::memory_order_relaxed);
}

// What no crash handler has written of it.
std::string_view LogFile::Unwritten(Held held) const noexcept {
    const std::uint64_t written = m_writtenByCrash.load();
    if (written <= held.begin) return {m_buffer.get(), held.size};
    const std::uint64_t part = std::min<std::uint64_t>(written - held.begin, held.size);
    return {m_buffer.get() + part, held.size - part};
}

// A full file is left before lines are appended, not after: another process may have filled it meanwhile, and
// gone so far that it is removed.
void LogFile::AppendLocked(std::string_view lines) noexcept {
    try {
        RollWhenFull();
    } catch (...) {  // no memory for a path: the lines go on in this file
    }
    if (!lines.empty()) m_file.load(std::memory_order_relaxed)->Append(lines);
}

// The buffer is left as it is: another thread may be adding a line behind what is counted.
void LogFile::CrashFlush() noexcept {
    platform::AppendFile* file = m_file.load(std::memory_order_acquire);
    const Held held = m_held.load();
    const std::string_view lines = Unwritten(held);
    if (file == nullptr || lines.empty()) return;
    file->Append(lines);
    m_writtenByCrash.store(held.begin + held.size);
}

void LogFile::CrashLine(std::string_view text, std::uint32_t thread) noexcept {
    using std::chrono::microseconds;
    platform::AppendFile* file = m_file.load(std::memory_order_acquire);
    if (file == nullptr) return;
    const auto now = std::chrono::time_point_cast<microseconds>(std::chrono::system_clock::now()) +
                     std::chrono::minutes(m_utcOffset_min.load(std::memory_order_relaxed));
    const auto second = std::chrono::floor<std::chrono::seconds>(now);
    platform::CrashText& line = g_crashLine;
    line.Clear();
    line.Time(second) << ".";
    line.Decimal(static_cast<std::uint64_t>((now - second).count()), 6) << " [5] [ACT] [MAIN] [";
    line.Decimal(m_processId) << "/";
    line.Decimal(thread) << "] " << text << "\n";
    file->Append(line.View());
}

void LogFile::RollWhenFull() {
    platform::AppendFile* file = m_file.load(std::memory_order_relaxed);
    if (file->Size() < m_limits.fileSize_bytes) return;
    // Another process may already have gone further.
    const unsigned next = std::max(m_number, HighestNumber());
    if (next > m_number && OpenNumber(next) && m_file.load()->Size() < m_limits.fileSize_bytes) return;
    if (!OpenNumber(next + 1)) return;
    if (m_number > m_limits.continuations) {
        std::error_code ignored;
        std::filesystem::remove(PathFromUtf8(NumberedPath(m_number - m_limits.continuations)), ignored);
    }
}

// The file in use stays when the other cannot be opened.
bool LogFile::OpenNumber(unsigned number) {
    platform::OsError error;
    std::unique_ptr<platform::AppendFile> file = platform::AppendFile::Open(NumberedPath(number), &error);
    if (!file) {
        const std::string line =
            fmt::format("RQWorker: no log file, its lines are lost: {}\n", error.message);
        if (!IsOpen()) std::fputs(line.c_str(), stderr);
        return false;
    }
    m_previous.reset(m_file.exchange(file.release()));
    m_number = number;
    return true;
}

std::string LogFile::NumberedPath(unsigned number) const {
    if (number == 0) return m_path;
    const std::filesystem::path path = PathFromUtf8(m_path);
    std::filesystem::path name = path.stem();
    name += "." + std::to_string(number);
    name += path.extension();
    return Utf8FromPath(path.parent_path() / name);
}

unsigned LogFile::HighestNumber() const {
    const std::filesystem::path path = PathFromUtf8(m_path);
    const std::string head = Utf8FromPath(path.stem()) + ".";
    const std::string tail = Utf8FromPath(path.extension());
    unsigned highest = 0;
    std::error_code error;
    std::filesystem::directory_iterator entry(path.parent_path(), error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = Utf8FromPath(entry->path().filename());
        if (name.size() <= head.size() + tail.size() || !name.starts_with(head) || !name.ends_with(tail))
            continue;
        const char* first = name.data() + head.size();
        const char* last = name.data() + name.size() - tail.size();
        unsigned number = 0;
        const auto [end, status] = std::from_chars(first, last, number);
        if (status == std::errc() && end == last) highest = std::max(highest, number);
    }
    return highest;
}

}  // namespace rq
