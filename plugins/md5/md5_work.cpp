#include "md5_work.h"

#include <algorithm>
#include <exception>

#include "plugin_common/codes.h"
#include "plugin_common/long_call.h"
#include "plugin_common/node.h"
#include "plugin_common/utf8.h"

namespace rq::md5 {
namespace {

constexpr task::Md5Digest kPlaceholder{};
constexpr std::chrono::milliseconds kLook_ms{100};  // for the stop flag, while a thread waits

// An expected digest of zeros only stands for "not known": computed, but not compared.
void Compare(const Item& item, Reading& reading) {
    if (!reading.digest || !item.expected || *item.expected == kPlaceholder) return;
    if (*reading.digest != *item.expected)
        reading.failure = Failure{0, task::kErrorMd5Differs,
                                  "the MD5 is " + HexOf(*reading.digest) + ", not " + HexOf(*item.expected)};
}

}  // namespace

int ThreadsOf(const Md5Task& task) {
    return task.threads != 0 ? task.threads : std::min(task::TaskCores(), kMaxThreads);
}

Md5Work::Md5Work(Md5Record& record, plugin::Run& run, const plugin::Host& host)
    : m_record(record), m_run(run), m_host(host), m_source(record.Task()) {}

plugin::Outcome Md5Work::Do() {
    Measure();
    ReportNow(0);
    if (m_record.Task().output && m_run.Stop() == RQ_STOP_NONE) {
        m_output.emplace();
        if (const auto failure = m_output->Begin(m_record.Task())) {
            m_record.SetError(failure->systemCode, failure->errorCode, failure->words, failure->words);
            return plugin::Outcome::kFailed;
        }
        m_source.SetOwnTemporary(m_output->TemporaryPath());
    }
    const auto wanted = static_cast<std::size_t>(ThreadsOf(m_record.Task()));
    const std::size_t count = std::min(wanted, m_plannedBytes.size());
    if (count > 1) {
        m_host.Log(plugin::Level::kInformation,
                   "md5: up to " + std::to_string(count) + " files are read at a time");
        WorkTogether(count);
    } else {
        WorkAlone();
    }
    return m_run.Stop() == RQ_STOP_NONE ? Conclude() : ConcludeEarly();
}

void Md5Work::Measure() {
    // Many files on a slow share take their time, and the total is not known before the last.
    const auto tell = [this] {
        if (std::chrono::steady_clock::now() - m_reportedAt >= kReport_ms) {
            m_run.QuietFor(kMeasuring_s);
            m_reportedAt = std::chrono::steady_clock::now();
        }
        return m_run.Stop() == RQ_STOP_NONE;
    };
    ItemSource source(m_record.Task());
    source.SetGoOn(tell);
    for (Item item; tell() && source.Next(item);) {
        m_plannedBytes.push_back(item.failure ? 0
                                              : static_cast<std::int64_t>(task::PlainFileSize(item.path)));
        m_totalBytes += m_plannedBytes.back();
    }
}

bool Md5Work::NextJob(Job& job) {
    if (!m_source.Next(job.item)) return false;
    job.index = m_nextIndex++;
    // A file that was not there when they were measured has no part.
    job.planned_bytes = job.index < m_plannedBytes.size() ? m_plannedBytes[job.index] : 0;
    return true;
}

void Md5Work::Count(Job& job, std::int64_t read_bytes) {
    const std::int64_t counted = std::min(job.planned_bytes, read_bytes);
    m_doneBytes += counted - job.counted_bytes;
    job.counted_bytes = counted;
}

// The call's thread, in the order of the files.
void Md5Work::Settle(Job& job) {
    if (job.item.failure) job.reading.failure = job.item.failure;
    Compare(job.item, job.reading);
    const auto& digest = job.reading.digest;
    if (const auto& failure = job.reading.failure)
        NoteFailure(task::WithoutBadBytes(job.item.path) + ": " + failure->words, *failure);
    else if (m_output && digest)
        if (const auto unwritten = m_output->Add(job.item.path, *digest))
            NoteFailure(unwritten->words, *unwritten);
    m_record.Publish(m_host, job.index, job.item, digest ? &*digest : nullptr,
                     job.reading.failure ? job.reading.failure->words : "");
    Count(job, job.planned_bytes);
}

// ---- one thread ----

void Md5Work::WorkAlone() {
    m_source.SetGoOn([this] {
        ++m_listed;
        if (std::chrono::steady_clock::now() - m_reportedAt >= kReport_ms) TellListing();
        return m_run.Stop() == RQ_STOP_NONE;
    });
    FileReader reader;
    for (;;) {
        Job job;
        if (m_run.Stop() != RQ_STOP_NONE || !NextJob(job)) return;
        if (!job.item.failure) {
            job.reading = reader.Read(job.item.path, [&](std::int64_t read_bytes) {
                Count(job, read_bytes);
                ReportSometimes(m_doneBytes);
                return m_run.Stop() == RQ_STOP_NONE;
            });
        }
        if (!job.HasOutcome()) return;
        Settle(job);
        ReportSometimes(m_doneBytes);
    }
}

// ---- several ----

void Md5Work::WorkTogether(std::size_t count) {
    m_source.SetGoOn([this] {
        ++m_listed;
        return !IsStopped();
    });
    m_most_bytes = kAhead_bytes * static_cast<std::int64_t>(count);
    std::vector<std::thread> threads;
    threads.reserve(count);
    StartThreads(threads, count);
    const auto join = [&] {
        for (std::thread& thread : threads) thread.join();
    };
    try {
        while (TakeTurn()) {
        }
    } catch (...) {  // no memory here: the threads end before the call does
        m_isGivenUp = true;
        join();
        throw;
    }
    join();
    if (m_run.Stop() != RQ_STOP_NONE) return;
    // Threads that ran out of memory.
    for (const auto& job : m_window) {
        const Failure lost{0, task::kErrorProcessing, "not enough memory"};
        NoteFailure(task::WithoutBadBytes(job->item.path) + ": " + lost.words, lost);
    }
    if (!m_isExhausted) WorkAlone();
}

// As many as the system gives; without any, the call's thread does it all.
void Md5Work::StartThreads(std::vector<std::thread>& threads, std::size_t count) {
    while (threads.size() < count) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            ++m_threads;
        }
        try {
            threads.emplace_back([this] { Thread(); });
        } catch (const std::exception&) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            --m_threads;
            return;
        }
    }
}

bool Md5Work::IsStopped() const {
    return m_isGivenUp || m_run.Stop() != RQ_STOP_NONE;
}

// Publishes what is done and tells how far they are. False when nothing is left to wait for.
bool Md5Work::TakeTurn() {
    std::vector<std::unique_ptr<Job>> over;
    bool isLast = false;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait_for(lock, kReport_ms, [&] {
            return m_threads == 0 || (!m_window.empty() && m_window.front()->isOver) ||
                   m_doneBytes - m_reportedBytes >= kReport_bytes;
        });
        for (; !m_window.empty() && m_window.front()->isOver; m_window.pop_front())
            over.push_back(std::move(m_window.front()));
        isLast = m_threads == 0;
    }
    for (const auto& job : over)
        if (job->HasOutcome()) Settle(*job);
    // A disk that hangs is to be seen as a stall: nothing is told when nothing has moved.
    if (!over.empty() || m_doneBytes != m_reportedBytes) ReportSometimes(m_doneBytes);
    TellListing();
    {
        const std::lock_guard<std::mutex> lock(m_mutex);  // so that no wait begins between look and wake
        m_progress.notify_all();
    }
    return !isLast;
}

void Md5Work::Thread() {
    try {
        FileReader reader;
        while (Job* job = Begin()) {
            if (!job->item.failure) ReadGuarded(*job, reader);
            const std::lock_guard<std::mutex> lock(m_mutex);
            job->isOver = true;
            m_wake.notify_one();
        }
    } catch (const std::exception&) {
        // No memory for the buffer or for a job: the other threads do the rest.
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    --m_threads;
    m_wake.notify_one();
}

// The next file, when there is one and room for it; null at the end. While a folder is listed, the others
// wait for its files; the call's thread does not.
Md5Work::Job* Md5Work::Begin() {
    const std::lock_guard<std::mutex> turn(m_sourceMutex);
    Job* job = nullptr;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (m_window.size() >= kWindow_files && !IsStopped()) m_progress.wait_for(lock, kLook_ms);
        if (m_isExhausted || IsStopped()) return nullptr;
        m_window.push_back(std::make_unique<Job>());
        job = m_window.back().get();
    }
    if (NextJob(*job)) return job;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_window.pop_back();
    m_isExhausted = true;
    return nullptr;
}

void Md5Work::ReadGuarded(Job& job, FileReader& reader) {
    try {
        job.reading = reader.Read(job.item.path, [&](std::int64_t read_bytes) {
            Count(job, read_bytes);
            if (m_doneBytes - m_reportedBytes >= kReport_bytes) m_wake.notify_one();
            return MayGoOn();
        });
    } catch (const std::exception& e) {
        job.reading = {std::nullopt, Failure{0, task::kErrorProcessing, e.what()}};
    }
}

bool Md5Work::MayGoOn() {
    while (!IsStopped() && m_doneBytes - m_reportedBytes > m_most_bytes) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_progress.wait_for(lock, kLook_ms);
    }
    return !IsStopped();
}

// ---- what is told ----

void Md5Work::NoteFailure(const std::string& text, const Failure& failure) {
    m_host.Log(plugin::Level::kFailure, "md5: " + text);
    if (!m_firstFailure) {
        m_firstFailure = failure;
        m_firstFailureText = text;
    }
    if (m_furtherText.size() + text.size() + 1 > kMaxFurtherText_bytes) {
        ++m_unlisted;
    } else {
        m_furtherText += m_furtherText.empty() ? text : "\n" + text;
    }
}

// Entries of folders are no bytes: the progress stays where it is.
void Md5Work::TellListing() {
    const std::uint64_t listed = m_listed;
    if (listed == m_listedTold) return;
    m_listedTold = listed;
    m_run.QuietFor(kMeasuring_s);
    m_reportedAt = std::chrono::steady_clock::now();
}

void Md5Work::ReportNow(std::int64_t done_bytes) {
    m_run.Progress(m_totalBytes, done_bytes);
    m_reportedBytes = done_bytes;
    m_reportedAt = std::chrono::steady_clock::now();
}

void Md5Work::ReportSometimes(std::int64_t done_bytes) {
    if (done_bytes - m_reportedBytes >= kReport_bytes ||
        std::chrono::steady_clock::now() - m_reportedAt >= kReport_ms)
        ReportNow(done_bytes);
}

// The checksum file names every file or is not made.
void Md5Work::CloseOutput() {
    if (!m_output) return;
    if (m_firstFailure) {
        m_output->Discard();
    } else if (const auto failure = task::MakeLongCall(m_run, [&] { return m_output->Publish(); })) {
        NoteFailure(failure->words, *failure);
    }
}

// The further text: what failed, and what was left out.
std::string Md5Work::Closing() {
    if (m_unlisted != 0) m_furtherText += "\nand " + std::to_string(m_unlisted) + " more";
    if (const std::size_t count = m_source.LeftOut(); count != 0)
        m_furtherText += (m_furtherText.empty() ? "" : "\n") + std::to_string(count) +
                         " left out: links, pipes, devices or unfinished files";
    return m_furtherText;
}

plugin::Outcome Md5Work::Conclude() {
    ReportNow(std::max<std::int64_t>(m_totalBytes, 1));  // empty files only: 1 of 1
    // The last report may have been held by a pause that a stop ended.
    if (m_run.Stop() != RQ_STOP_NONE) return ConcludeEarly();
    CloseOutput();
    if (!m_firstFailure) {
        m_record.SetFurtherText(Closing());
        return plugin::Outcome::kFinished;
    }
    m_record.SetError(m_firstFailure->systemCode, m_firstFailure->errorCode, m_firstFailureText, Closing());
    return plugin::Outcome::kFailed;
}

plugin::Outcome Md5Work::ConcludeEarly() {
    if (m_run.Stop() != RQ_STOP_FINISH) return plugin::Outcome::kCancelled;
    CloseOutput();
    std::string text = "ended early: " + std::to_string(m_record.PublishedCount()) + " of " +
                       std::to_string(std::max(m_plannedBytes.size(), m_record.PublishedCount())) +
                       " files done";
    const std::string closing = Closing();
    m_record.SetFurtherText(closing.empty() ? text : text + "\n" + closing);
    return plugin::Outcome::kFinished;
}

}  // namespace rq::md5
