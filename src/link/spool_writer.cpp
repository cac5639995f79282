#include "link/spool_writer.h"

#include <algorithm>
#include <filesystem>
#include <new>
#include <optional>
#include <system_error>
#include <utility>

#include "base/paths.h"
#include "link/spool_file.h"
#include "platform/error_text.h"
#include "platform/files.h"

namespace rq::link {
namespace {

// The wait ends by its token; the length only bounds one round.
constexpr std::chrono::minutes kIdleWait{60};
// Between two tries at the end: a disk gets room, a folder comes back.
constexpr std::chrono::milliseconds kTryAgain{200};

struct Place {
    std::uint64_t session = 0;  // counted here
    std::string folder;
    std::string attempt;

    std::string Path(std::string_view ending) const {
        return Utf8FromPath(PathFromUtf8(folder) / PathFromUtf8(attempt + std::string(ending)));
    }
};

struct Job {
    Place place;
    std::uint64_t seq = 0;
    std::uint64_t previous = 0;
    SpoolWriter::Body body;  // none: the file is to be removed
};

}  // namespace

// Shared with the thread, which may outlive the writer.
struct SpoolWriter::State {
    State(Clock& timesFrom, Tell told)
        : clock(timesFrom), signal(clock), ended(clock), tell(std::move(told)) {}

    void Run();
    std::optional<Job> Next();
    std::optional<Job> Due() RQ_REQUIRES(signal);
    // False when the file is as it was before.
    bool Do(const Job& job);
    bool Remove(const std::string& path);
    void Say(bool isProblem, const std::string& line) noexcept;
    bool Fails(const std::string& why);

    Clock& clock;
    Signal signal;  // something is to be done
    Place place RQ_GUARDED_BY(signal);
    Job wanted RQ_GUARDED_BY(signal);              // to be written, while it has a body
    std::uint64_t held RQ_GUARDED_BY(signal) = 0;  // what this session's file holds
    std::uint64_t acknowledged RQ_GUARDED_BY(signal) = 0;
    Job failed RQ_GUARDED_BY(signal);  // could not be written: tried again at the end
    bool isEnding RQ_GUARDED_BY(signal) = false;
    bool isLate RQ_GUARDED_BY(signal) = false;  // it was tried again
    SteadyTime end RQ_GUARDED_BY(signal);

    Signal ended;
    bool hasEnded RQ_GUARDED_BY(ended) = false;

    Mutex tellLock;
    Tell tell RQ_GUARDED_BY(tellLock);
    std::string lastProblem RQ_GUARDED_BY(tellLock);
};

// ---- any thread ----

void SpoolWriter::Begin(std::string folder, std::string attempt) {
    MutexLock lock(m_lock);
    if (!m_state && folder.empty()) return;
    if (!m_state) m_state = std::make_shared<State>(m_clock, m_tell);
    Signal::Hold hold(m_state->signal);
    m_state->place = {m_state->place.session + 1, std::move(folder), std::move(attempt)};
    m_state->held = 0;
    m_state->acknowledged = 0;
}

void SpoolWriter::Keep(std::uint64_t seq, std::uint64_t previous, Body body) {
    MutexLock lock(m_lock);
    if (!m_state) return;
    {
        Signal::Hold hold(m_state->signal);
        if (m_state->place.folder.empty() || seq <= m_state->held) return;
        m_state->wanted = {m_state->place, seq, previous, std::move(body)};
        m_state->signal.Notify(hold);
    }
    if (m_thread.joinable()) return;
    try {
        m_thread = std::thread([state = m_state] { state->Run(); });
    } catch (const std::system_error& error) {
        m_state->Fails(std::string("no thread: ") + error.what());
    }
}

void SpoolWriter::Acknowledge(std::uint64_t seq) {
    MutexLock lock(m_lock);
    if (!m_state) return;
    Signal::Hold hold(m_state->signal);
    m_state->acknowledged = std::max(m_state->acknowledged, seq);
    m_state->signal.Notify(hold);
}

void SpoolWriter::Finish(std::chrono::milliseconds patience) {
    std::shared_ptr<State> state;
    std::thread thread;
    {
        MutexLock lock(m_lock);
        state = std::exchange(m_state, nullptr);
        thread = std::exchange(m_thread, std::thread());
    }
    if (!thread.joinable()) return;
    {
        Signal::Hold hold(state->signal);
        state->isEnding = true;
        state->end = m_clock.Steady() + patience - 2 * kTryAgain;
        state->signal.Notify(hold);
    }
    bool hasEnded = false;
    {
        const SteadyTime deadline = m_clock.Steady() + patience;
        Signal::Hold hold(state->ended);
        while (!state->hasEnded && state->ended.WaitUntil(hold, deadline)) {
        }
        hasEnded = state->hasEnded;
    }
    if (hasEnded) return thread.join();
    {
        MutexLock lock(state->tellLock);
        state->tell = nullptr;
    }
    thread.detach();
}

// ---- the thread ----

void SpoolWriter::State::Run() {
    while (const std::optional<Job> job = Next()) {
        bool isDone = false;
        try {
            isDone = Do(*job);
        } catch (const std::bad_alloc&) {
            Say(true, "no memory to keep a final status");
        }
        Signal::Hold hold(signal);
        if (job->body) failed = isDone || !IsSpoolAttempt(job->place.attempt) ? Job{} : *job;
        if (isDone && job->place.session == place.session) held = job->seq;
    }
    Signal::Hold hold(ended);
    hasEnded = true;
    ended.Notify(hold);
}

// Nothing when the thread is to end.
std::optional<Job> SpoolWriter::State::Next() {
    Signal::Hold hold(signal);
    for (;;) {
        if (std::optional<Job> job = Due()) return job;
        if (isEnding) {
            if (isLate) signal.WaitFor(hold, kTryAgain);
            const bool isHere = failed.place.session == place.session && failed.seq <= acknowledged;
            if (!failed.body || isHere || clock.Steady() >= end) return std::nullopt;
            isLate = true;
            return std::exchange(failed, Job{});
        }
        signal.WaitFor(hold, kIdleWait);
    }
}

std::optional<Job> SpoolWriter::State::Due() {
    Job job = std::exchange(wanted, Job{});
    const bool isOfThisSession = job.place.session == place.session;
    if (job.body && !(isOfThisSession && job.seq <= acknowledged)) return job;
    if (held == 0 || held > acknowledged) return std::nullopt;
    held = 0;  // one try
    return Job{place, 0, 0, nullptr};
}

bool SpoolWriter::State::Do(const Job& job) {
    if (!IsSpoolAttempt(job.place.attempt))
        return Fails("no file can be named after the attempt \"" + job.place.attempt + "\"");
    const std::string path = job.place.Path(kSpoolEnding);
    if (!job.body) return Remove(path);
    platform::OsError error;
    if (!platform::ReplaceWholeFile(path, EncodeSpoolFile(job.seq, *job.body, job.previous), true, &error,
                                    job.place.Path(kSpoolTemporaryEnding)))
        return Fails(error.message);
    Say(false, "the final status " + std::to_string(job.seq) + " is kept in " + path);
    return true;
}

bool SpoolWriter::State::Remove(const std::string& path) {
    std::error_code error;
    const bool wasThere = std::filesystem::remove(PathFromUtf8(path), error);
    if (error) Say(true, path + " is not removed: " + platform::ErrorText(error));
    if (wasThere) Say(false, path + " is removed, the status in it is acknowledged");
    return true;
}

bool SpoolWriter::State::Fails(const std::string& why) {
    Say(true, "a final status is not kept: " + why);
    return false;
}

// The same problem once in a row: a status that nobody acknowledges is sent again each few seconds.
void SpoolWriter::State::Say(bool isProblem, const std::string& line) noexcept try {
    MutexLock lock(tellLock);
    if (isProblem && line == lastProblem) return;
    lastProblem = isProblem ? line : std::string();
    if (tell) tell(isProblem, line);
} catch (...) {
    // A line for which there is no memory is lost.
}

}  // namespace rq::link
