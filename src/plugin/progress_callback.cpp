// The progress callback: what a plug-in tells of its task becomes the progress record, and a suspended task
// is held here.

#include <algorithm>

#include "plugin/work_runner.h"
#include "plugin/work_runner_state.h"
#include "util/worker_util.h"

namespace rq {
namespace {

constexpr std::uint32_t kNoContext = 0xFFFFFFFFu;
constexpr std::chrono::milliseconds kPausePass(100);
constexpr std::int64_t kUnknown = -1;

// A promise is believed up to a hundred years: beyond that a time stamp would leave the calendar.
boost::posix_time::time_duration Seconds(std::int64_t seconds) {
    constexpr std::int64_t kMost_s = 100LL * 366 * 24 * 60 * 60;
    return boost::posix_time::seconds(std::clamp(seconds, -kMost_s, kMost_s));
}

}  // namespace

std::uint32_t WorkRunner::State::ProgressCallback(std::int64_t total, std::int64_t done, void* context) {
    if (context == nullptr) return kNoContext;
    return static_cast<State*>(context)->OnProgress(total, done);
}

std::uint32_t WorkRunner::State::OnProgress(std::int64_t total, std::int64_t done) {
    if (!hasTask) return 0;  // also long after the release
    const LocalTime entry = taskClock.Now();
    // A call after perform has returned is never held: nobody would let it go, and the record may be gone.
    if (TaskInfo* info = performing) {
        if (std::this_thread::get_id() != performThread) {
            breaches.Tell(Breach::OtherThread, pluginName,
                          "told progress from another thread than perform's");
        }
        HoldWhilePaused(*info);
    } else {
        breaches.Tell(Breach::LateCallback, pluginName, "told progress after its perform call had returned");
    }
    CheckFigures(total, done);
    MutexLock lock(progressLock);
    if (total == 0) {
        TakeSignOfLife(done);
    } else {
        TakeProgress(total, done, entry);
    }
    return 0;
}

void WorkRunner::State::HoldWhilePaused(TaskInfo& info) {
    // A thread of the plug-in's own that is still here when perform has returned is let go: the record may be
    // gone.
    const auto isInUse = [this, &info] { return performing == &info; };
    while (pauseFlag && RQLoad32(stopFlag) == RQ_STOP_NONE && isInUse()) {
        SetStatus(info.status, kTaskPaused);
        clock.SleepFor(kPausePass);
        pausedTime_ms = pausedTime_ms + static_cast<float>(kPausePass.count());
        if (!pauseFlag && isInUse()) {
            Log(2, "Update Status to Running After Pause!111111111");
            SetStatus(info.status, kTaskRunning);
        }
    }
    if (isInUse() && RQLoad32(&info.status) == kTaskPaused) {  // the stop flag ended the pause
        Log(2, "Update Status to Running After Pause!22222222222");
        SetStatus(info.status, kTaskRunning);
    }
}

void WorkRunner::State::CheckFigures(std::int64_t total, std::int64_t done) {
    if (total < 0 || done < 0) {
        breaches.Tell(Breach::NegativeFigure, pluginName, "told a negative progress figure");
    } else if (total > 0 && done > total) {
        breaches.Tell(Breach::DoneAboveTotal, pluginName, "told more than 100 percent of progress");
    }
}

void WorkRunner::State::TakeSignOfLife(std::int64_t seconds) {
    progress.expectedNextUpdate = taskClock.Now() + Seconds(seconds);
}

void WorkRunner::State::TakeProgress(std::int64_t total, std::int64_t done, LocalTime entry) {
    const LocalTime now = taskClock.Now();
    // Nothing guards an elapsed time of 0: the speed is then infinite or no number. Without a start stamp (no
    // patrol) it stays what it was.
    if (taskType == RQ_TASK_TRANSFER && !progress.start.is_special()) {
        const auto elapsed_ms = static_cast<double>((now - progress.start).total_milliseconds());
        const double megabytes = static_cast<double>(done) / 1048576.0;
        progress.speed = megabytes / ((elapsed_ms - static_cast<double>(pausedTime_ms)) / 1000.0);
    }
    double percent = static_cast<double>(done) / static_cast<double>(total) * 100.0;
    if (isTwoPass) {
        percent /= 2;
        if (progress.percent >= 50) percent += 50;
    }
    progress.lastUpdate = now;
    progress.expectedNextUpdate = entry;
    progress.remaining = kUnknown;
    progress.percent = percent;
    progress.updated = 1;
    progress.processed = done;
}

}  // namespace rq
