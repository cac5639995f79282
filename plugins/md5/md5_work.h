// Does one MD5 task: reads each file once, from beginning to end, and publishes its digest. A file that fails
// does not keep the others from being done. Lives as long as one perform call. With one thread it reads on
// the call's own; with more, threads of its own read different files, while the call's thread publishes what
// is done in the order of the files and tells progress. A task that is suspended holds the call's thread in
// the progress callback: the others stop when they are kAhead_bytes ahead of what was told.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "checksum_output.h"
#include "md5_items.h"
#include "md5_reader.h"
#include "md5_record.h"

namespace rq::md5 {

// The progress callback is called when either has gone by since the last call; the stop flag is read with
// each buffer.
constexpr std::int64_t kReport_bytes = 8 << 20;
constexpr std::chrono::milliseconds kReport_ms{50};
// How long one look at a file's size, or at an entry of a folder, may take before the task counts as stalled.
constexpr std::int64_t kMeasuring_s = 60;
// Longer lists of failed files are cut.
constexpr std::size_t kMaxFurtherText_bytes = 64u << 10;
// For each thread.
constexpr std::int64_t kAhead_bytes = 32 << 20;
// Files at most that are begun and not published.
constexpr std::size_t kWindow_files = 1024;

// How many files are read at a time: as the text says, or as many as the task has cores.
int ThreadsOf(const Md5Task& task);

class Md5Work {
  public:
    Md5Work(Md5Record& record, plugin::Run& run, const plugin::Host& host);
    plugin::Outcome Do();

  private:
    struct Job {
        std::size_t index = 0;
        Item item;
        std::int64_t planned_bytes = 0;  // its part of the total
        std::int64_t counted_bytes = 0;  // of it, in m_doneBytes
        Reading reading;
        bool isOver = false;  // under m_mutex: the thread is through with it

        bool HasOutcome() const { return item.failure || reading.digest || reading.failure; }
    };

    void Measure();
    void TellListing();
    bool NextJob(Job& job);
    void Count(Job& job, std::int64_t read_bytes);
    void Settle(Job& job);

    void WorkAlone();
    void WorkTogether(std::size_t count);
    void StartThreads(std::vector<std::thread>& threads, std::size_t count);
    bool IsStopped() const;
    bool TakeTurn();
    void Thread();
    Job* Begin();
    void ReadGuarded(Job& job, FileReader& reader);
    bool MayGoOn();

    void NoteFailure(const std::string& text, const Failure& failure);
    void ReportNow(std::int64_t done_bytes);
    void ReportSometimes(std::int64_t done_bytes);
    void CloseOutput();
    std::string Closing();
    plugin::Outcome Conclude();
    plugin::Outcome ConcludeEarly();

    Md5Record& m_record;
    plugin::Run& m_run;
    const plugin::Host& m_host;
    std::mutex m_sourceMutex;     // of several threads; held before m_mutex, also while a folder is listed
    ItemSource m_source;          // under m_sourceMutex
    std::size_t m_nextIndex = 0;  // the same
    std::atomic<std::uint64_t> m_listed{0};  // entries of folders
    std::uint64_t m_listedTold = 0;
    std::optional<ChecksumWriter> m_output;

    std::vector<std::int64_t>
        m_plannedBytes;  // sizes at the start; progress counts in these, whatever the files do later
    std::int64_t m_totalBytes = 0;
    std::atomic<std::int64_t> m_doneBytes{0};
    std::atomic<std::int64_t> m_reportedBytes{0};
    std::atomic<bool> m_isGivenUp{false};  // the call's thread failed
    std::chrono::steady_clock::time_point m_reportedAt;

    std::mutex m_mutex;  // guards the following four
    std::deque<std::unique_ptr<Job>> m_window;
    std::size_t m_threads = 0;  // that have not ended
    bool m_isExhausted = false;
    std::int64_t m_most_bytes = 0;       // that the threads may be ahead; fixed before they start
    std::condition_variable m_wake;      // the call's thread: there is something to publish or to tell
    std::condition_variable m_progress;  // the others: there is room again

    std::optional<Failure> m_firstFailure;
    std::string m_firstFailureText;
    std::string m_furtherText;
    std::size_t m_unlisted = 0;  // failures that m_furtherText has no room for
};

}  // namespace rq::md5
