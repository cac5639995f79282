#include "size_work.h"

#include <algorithm>
#include <thread>

#include "plugin_common/codes.h"
#include "plugin_common/file.h"
#include "plugin_common/long_call.h"

namespace rq::source_size {
namespace {

std::string Seconds(std::chrono::microseconds time) {
    std::string text = std::to_string(time.count() / 1'000'000);
    std::string fraction = std::to_string(1'000'000 + time.count() % 1'000'000).substr(1);
    fraction.resize(fraction.find_last_not_of('0') + 1);
    return text + (fraction.empty() ? "" : "." + fraction) + " s";
}

}  // namespace

SizeWork::SizeWork(SizeRecord& record, plugin::Run& run, const plugin::Host& host)
    : m_record(record), m_run(run), m_host(host), m_files(record.Task().files.size()) {}

plugin::Outcome SizeWork::Do() {
    if (const auto failure =
            task::MakeLongCall(m_run, [&] { return m_report.Create("source-size", m_record.TaskId()); })) {
        m_host.Log(plugin::Level::kFailure, "source_size: " + failure->words);
        m_record.SetError(failure->systemCode, task::kErrorReport, failure->words, failure->words);
        return plugin::Outcome::kFailed;
    }
    m_run.Progress(static_cast<std::int64_t>(m_files.size()), 0);
    for (;;) {
        LookAtAll();
        // The last look counts, however late it came.
        if (AllComplete() || AnyTooLarge() || Clock::now() - m_begin >= m_record.Task().timeout) break;
        if (!WaitForNextLook()) break;
    }
    return Conclude();
}

// Thousands of files on a slow share take their time, and each look may take it anew.
void SizeWork::LookAtAll() {
    Clock::time_point toldAt{};
    for (std::size_t i = 0; i < m_files.size(); ++i) {
        if (Clock::now() - toldAt >= kStep) {
            Tell([&] { m_run.QuietFor(kOneCall_s); });
            toldAt = Clock::now();
        }
        if (m_run.Stop() != RQ_STOP_NONE) return;
        Look(i);
    }
}

void SizeWork::Look(std::size_t index) {
    const SourceFile& file = m_record.Task().files[index];
    Watched& watched = m_files[index];
    // Opened, since Windows tells the size of a file that another one writes to by its name only when it is
    // closed.
    task::InputFile opened;
    const auto now = Clock::now();
    if (const std::uint32_t code = opened.Open(file.path); code != 0) {
        watched = {State::kAbsent, code, 0, 0, now};
        return;
    }
    if (watched.state == State::kUnknown || watched.state == State::kAbsent ||
        opened.Size() != watched.size_bytes || opened.Modified_ns() != watched.modified_ns)
        watched = {State::kChanging, 0, opened.Size(), opened.Modified_ns(), now};
    if (now - watched.since < m_record.Task().stableFor) {
        watched.state = State::kChanging;
    } else if (file.exact_bytes && watched.size_bytes > *file.exact_bytes) {
        watched.state = State::kLarge;
    } else if (watched.size_bytes < file.exact_bytes.value_or(file.least_bytes.value_or(0))) {
        watched.state = State::kSmall;
    } else {
        watched.state = State::kComplete;
    }
}

bool SizeWork::AllComplete() const {
    return std::all_of(m_files.begin(), m_files.end(),
                       [](const Watched& file) { return file.state == State::kComplete; });
}

bool SizeWork::AnyTooLarge() const {
    return std::any_of(m_files.begin(), m_files.end(),
                       [](const Watched& file) { return file.state == State::kLarge; });
}

template <class Call>
SizeWork::Clock::duration SizeWork::Tell(const Call& call) {
    const auto before = Clock::now();
    call();
    const auto held = Clock::now() - before;
    m_begin += held;
    return held;
}

bool SizeWork::WaitForNextLook() {
    const auto count = std::count_if(m_files.begin(), m_files.end(),
                                     [](const Watched& file) { return file.state == State::kComplete; });
    // A file that another program goes on with takes the count back; the progress stays where it was.
    m_told = std::max(m_told, static_cast<std::int64_t>(count));
    auto end = std::min<Clock::time_point>(Clock::now() + kLook, m_begin + m_record.Task().timeout);
    do {
        end += Tell([&] {
            m_run.Progress(static_cast<std::int64_t>(m_files.size()),
                           std::min(m_told, static_cast<std::int64_t>(m_files.size()) - 1));
        });
        if (m_run.Stop() != RQ_STOP_NONE) return false;
        std::this_thread::sleep_for(kStep);
    } while (Clock::now() < end);
    return m_run.Stop() == RQ_STOP_NONE;
}

std::string SizeWork::WordsOf(std::size_t index) const {
    const SourceFile& file = m_record.Task().files[index];
    const Watched& watched = m_files[index];
    const std::string has = "it has " + std::to_string(watched.size_bytes) + " bytes";
    switch (watched.state) {
        case State::kUnknown:
            return "not looked at";
        case State::kAbsent:
            return task::SystemWords(watched.systemCode);
        case State::kChanging:
            return "still changing, or unchanged for less than " + Seconds(m_record.Task().stableFor) + "; " +
                   has;
        case State::kSmall:
            return "too small: " + has + ", not " +
                   (file.exact_bytes ? std::to_string(*file.exact_bytes)
                                     : "at least " + std::to_string(*file.least_bytes));
        case State::kLarge:
            return "too large: " + has + ", not " + std::to_string(*file.exact_bytes);
        case State::kComplete:
            break;
    }
    return has;
}

plugin::Outcome SizeWork::Conclude() {
    const std::uint32_t stop = m_run.Stop();
    std::size_t complete = 0;
    const std::size_t count = m_files.size();
    std::int32_t code = 0;
    std::uint32_t systemCode = 0;
    std::string first;
    std::string failures;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string words = m_record.Task().files[i].path + ": " + WordsOf(i);
        if (m_files[i].state == State::kComplete) {
            ++complete;
            m_report.Add("complete", words);
            continue;
        }
        m_report.Add("not-complete", words);
        if (code == 0) {
            first = words;
            systemCode = m_files[i].systemCode;
            code = m_files[i].state == State::kAbsent     ? task::kErrorSourceUnreadable
                   : m_files[i].state == State::kChanging ? task::kErrorNotComplete
                                                          : task::kErrorSourceSize;
        }
        if (failures.size() < kMaxFurtherText_bytes) failures += "\n" + words;
    }
    std::string text = std::to_string(complete) + " of " + std::to_string(count) + " files complete";
    if (stop != RQ_STOP_NONE)
        text = "ended early: " + text;
    else if (code != 0 && !AnyTooLarge())
        text += " after " + Seconds(m_record.Task().timeout);
    m_report.Add("end", text);
    const auto unwritten = task::MakeLongCall(m_run, [&] { return m_report.Write(true); });
    if (unwritten) {
        first = unwritten->words;
        systemCode = unwritten->systemCode;
        code = task::kErrorReport;
        failures = "\n" + first + failures;
    }
    text += "; report: " + m_report.Path() + failures;
    if (stop == RQ_STOP_CANCEL || (stop != RQ_STOP_NONE && !unwritten)) {
        m_record.SetFurtherText(text);
        return stop == RQ_STOP_CANCEL ? plugin::Outcome::kCancelled : plugin::Outcome::kFinished;
    }
    if (code != 0) {
        m_host.Log(plugin::Level::kFailure, "source_size: " + first);
        m_record.SetError(systemCode, code, first, text);
        return plugin::Outcome::kFailed;
    }
    m_run.Progress(static_cast<std::int64_t>(count), static_cast<std::int64_t>(count));
    if (m_run.Stop() == RQ_STOP_CANCEL) return plugin::Outcome::kCancelled;
    m_record.SetFurtherText(text);
    return plugin::Outcome::kFinished;
}

}  // namespace rq::source_size
