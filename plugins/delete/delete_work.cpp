#include "delete_work.h"

#include <algorithm>

#include "plugin_common/codes.h"
#include "plugin_common/file.h"
#include "plugin_common/long_call.h"

namespace rq::del {
namespace {

std::string Counted(std::uint64_t count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

}  // namespace

plugin::Outcome DeleteWork::Do() {
    // Nothing was done that a journal would name.
    if (m_run.Stop() == RQ_STOP_CANCEL) return plugin::Outcome::kCancelled;
    const auto failure =
        task::MakeLongCall(m_run, [&] { return m_journal.Create("delete", m_record.TaskId()); });
    if (failure) {
        m_host.Log(plugin::Level::kFailure, "delete: " + failure->words);
        m_record.SetError(failure->systemCode, task::kErrorReport, failure->words, failure->words);
        return plugin::Outcome::kFailed;
    }
    const AllowedFolders allowed = ReadAllowedFolders();
    if (!allowed.words.empty()) {
        Fail({task::kErrorConfiguration, allowed.systemCode, allowed.words});
        return Conclude();
    }
    m_run.Progress(1, 0);
    if (m_record.Task().dryRun) {
        WalkItems(allowed, Phase::kTrying);
    } else {
        WalkItems(allowed, Phase::kCounting);
        WalkItems(allowed, Phase::kDeleting);
    }
    return Conclude();
}

void DeleteWork::WalkItems(const AllowedFolders& allowed, Phase phase) {
    m_phase = phase;
    if (phase == Phase::kDeleting) m_run.Progress(m_total, 0);
    for (const DeleteItem& item : m_record.Task().items) {
        if (!GoOn()) return;
        const std::optional<Place> place = PlaceOf(allowed.folders, SplitPath(item.path));
        if (!place) {
            Left(item.path, task::kErrorNotAllowed, 0,
                 "it lies below no folder of " + std::string(kConfigFile) +
                     "; name one of the folders above it there, or give another path");
        } else {
            WalkTree(*place, item.recursive, phase == Phase::kDeleting ? TreeWalk::kDelete : TreeWalk::kCount,
                     *this);
        }
        if (!WriteJournal(false)) return;
    }
}

bool DeleteWork::GoOn() {
    if (m_journalFailed) return false;
    const auto now = std::chrono::steady_clock::now();
    if (now - m_reportedAt >= kReport_ms) {
        if (m_phase == Phase::kDeleting)
            m_run.Progress(m_total,
                           std::clamp<std::int64_t>(m_handled, 0, std::max<std::int64_t>(m_total - 1, 0)));
        m_run.QuietFor(kOneCall_s);
        m_reportedAt = now;
    }
    return m_run.Stop() == RQ_STOP_NONE;
}

bool DeleteWork::Announce(const std::vector<TreeEntry>& batch) {
    if (m_phase == Phase::kCounting) {
        m_total += static_cast<std::int64_t>(batch.size());
        return true;
    }
    for (const TreeEntry& entry : batch) {
        m_journal.Add(m_phase == Phase::kTrying ? "would-delete" : "delete", entry.path);
        if (m_phase == Phase::kTrying) (entry.isFolder ? m_folders : m_files)++;
    }
    // What is about to go is on the disk before it goes.
    return WriteJournal(m_phase == Phase::kDeleting);
}

void DeleteWork::Done(const TreeEntry& entry, std::uint32_t code) {
    ++m_handled;
    if (code == 0) {
        (entry.isFolder ? m_folders : m_files)++;
        return;
    }
    m_journal.Add("not-deleted", entry.path);
    Fail({task::kErrorNotDeleted, code, entry.path + ": " + task::SystemWords(code)});
}

void DeleteWork::Left(const std::string& path, std::int32_t errorCode, std::uint32_t systemCode,
                      const std::string& words) {
    if (m_phase == Phase::kCounting) return;
    ++m_handled;
    m_journal.Add("left", path);
    Fail({errorCode, systemCode, path + ": " + words});
}

void DeleteWork::Absent(const std::string& path) {
    if (m_phase == Phase::kCounting) return;
    m_journal.Add("absent", path);
    ++m_absent;
}

void DeleteWork::Fail(Failure failure) {
    m_host.Log(plugin::Level::kFailure, "delete: " + failure.words);
    if (m_failures.size() + failure.words.size() + 1 > kMaxFurtherText_bytes)
        ++m_unlisted;
    else
        m_failures += "\n" + failure.words;
    if (m_failureCount++ == 0) m_first = std::move(failure);
}

bool DeleteWork::WriteJournal(bool sync) {
    if (m_journalFailed) return false;
    const auto failure =
        sync ? task::MakeLongCall(m_run, [&] { return m_journal.Write(true); }) : m_journal.Write(false);
    if (!failure) return true;
    m_journalFailed = true;
    m_first = {task::kErrorReport, failure->systemCode, failure->words + "; nothing more was deleted"};
    ++m_failureCount;
    m_failures = "\n" + m_first.words + m_failures;
    m_host.Log(plugin::Level::kFailure, "delete: " + m_first.words);
    return false;
}

std::string DeleteWork::Summary() const {
    std::string text = Counted(m_files, "file", "files") + " and " + Counted(m_folders, "folder", "folders");
    text = m_record.Task().dryRun ? "dry run: " + text + " would be deleted" : text + " deleted";
    if (m_absent != 0) text += ", " + Counted(m_absent, "item was", "items were") + " not there";
    return text;
}

plugin::Outcome DeleteWork::Conclude() {
    // Here and not behind the last line, so that a stop which comes meanwhile still counts; and after a stop
    // nothing needs it, since what is gone was on the disk before it went.
    if (m_run.Stop() == RQ_STOP_NONE) WriteJournal(true);
    // The last report may have been held by a pause that a stop ended.
    if (m_run.Stop() == RQ_STOP_NONE)
        m_run.Progress(std::max<std::int64_t>(m_total, 1), std::max<std::int64_t>(m_total, 1));
    const std::uint32_t stop = m_run.Stop();
    std::string text = Summary();
    if (stop != RQ_STOP_NONE) text = "ended early: " + text;
    m_journal.Add("end", text);
    WriteJournal(false);
    text += "; journal: " + m_journal.Path() + m_failures;
    if (m_unlisted != 0) text += "\nand " + std::to_string(m_unlisted) + " more";
    m_host.Log(plugin::Level::kInformation, "delete: " + Summary() + "; journal: " + m_journal.Path());
    if (stop == RQ_STOP_CANCEL) {
        m_record.SetFurtherText(text);
        return plugin::Outcome::kCancelled;
    }
    if (m_failureCount != 0 && (stop == RQ_STOP_NONE || m_journalFailed)) {
        m_record.SetError(m_first.systemCode, m_first.errorCode, m_first.words, text);
        return plugin::Outcome::kFailed;
    }
    m_record.SetFurtherText(text);
    return plugin::Outcome::kFinished;
}

}  // namespace rq::del
