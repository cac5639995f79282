#include "transfer_work.h"

#include <algorithm>
#include <cstring>

#include "plugin_common/codes.h"
#include "plugin_common/file.h"
#include "plugin_common/node.h"
#include "url.h"

namespace rq::transfer {

TransferWork::TransferWork(TransferRecord& record, plugin::Run& run, const plugin::Host& host)
    : m_record(record),
      m_task(record.Task()),
      m_run(run),
      m_host(host),
      m_limit(record.Task().limit_Bps),
      m_items(record.Task().items.size()) {}

plugin::Outcome TransferWork::Do() {
    m_run.Progress(1, 0);
    for (std::size_t i = 0; i < m_items.size() && Tell(0); ++i) Plan(i);
    FindRoots();
    for (std::size_t i = 0; i < m_items.size() && Tell(0); ++i) Survey(i);
    for (const ItemState& item : m_items) {
        m_files += item.files;
        m_total_bytes += item.planned_bytes * (m_task.verify ? 2 : 1);
    }
    for (std::size_t i = 0; i < m_items.size() && Tell(0); ++i) DoItem(i);
    Flush();
    return Conclude();
}

// ---- one item ----

bool TransferWork::WantsBytes(std::size_t item) const {
    return m_task.md5 || m_task.sha256 || m_task.items[item].expected.has_value();
}

task::Publication::Cleaning TransferWork::CleaningOf(const std::string& folder) {
    if (folder == m_cleanedFolder) return task::Publication::Cleaning::kLeave;
    m_cleanedFolder = folder;
    return task::Publication::Cleaning::kDo;
}

void TransferWork::DoItem(std::size_t item) {
    const TransferItem& wanted = m_task.items[item];
    const ItemState& state = m_items[item];
    if (state.kind == Kind::kAbsent || state.isRefused || MoveWholeFolder(item)) return;
    if (m_task.manifest)
        m_manifest.emplace().Begin(wanted.target, m_task.md5, m_task.sha256, m_task.overwrite,
                                   CleaningOf(ParentOf(wanted.target)));
    DoEntry({wanted.source, wanted.target,
             IsUrl(wanted.target) ? FileNameOf(wanted.target) : NameOf(wanted.target), state.kind,
             state.size_bytes, item});
    // The next item may have the same source.
    if (m_task.move || m_manifest) Flush();
    if (m_manifest && !state.hasFailed && !Stopped())
        for (Failure& failure : Aside([&] { return m_manifest->Publish(); })) Note(std::move(failure), item);
    m_manifest.reset();
}

// A folder whose bytes nobody wants to see keeps all it holds and gets another name; but not one into which
// somebody writes, who would not find it again.
bool TransferWork::MoveWholeFolder(std::size_t item) {
    const TransferItem& wanted = m_task.items[item];
    const ItemState& state = m_items[item];
    if (state.kind != Kind::kFolder || state.hasFailed || !state.wasListed || state.holdsTemporaries)
        return false;
    Seen there;
    if (!m_task.move || WantsBytes(item) || LookAt(wanted.target, false, there) != 0 ||
        there.kind != Kind::kAbsent || !task::WhyNoName(wanted.target).empty())
        return false;
    std::uint32_t code = 0;
    if (Rename(wanted.source, wanted.target, false, code) != Renamed::kDone) return false;
    Aside([&] { task::SyncFolders({ParentOf(wanted.target), ParentOf(wanted.source)}); });
    m_done += state.files;
    CompareMoved(wanted.source, wanted.target, item);
    Job job{wanted.source, wanted.target, {}, Kind::kFolder, 0, item};
    Result(job, "renamed", state.planned_bytes, {});
    m_base_bytes += state.planned_bytes * (m_task.verify ? 2 : 1);
    return true;
}

void TransferWork::CompareMoved(const std::string& source, const std::string& target, std::size_t item) {
    (void)EachEntry(target, [&](const Seen& entry) {
        if (m_comparisons > kMaxResults) return;
        Job job{task::PathIn(source, entry.name), task::PathIn(target, entry.name), {}, entry.kind, 0, item};
        if (entry.kind == Kind::kFile) Compared(job, nullptr, nullptr);
        if (entry.kind == Kind::kFolder) CompareMoved(job.source, job.target, item);
    });
}

void TransferWork::DoEntry(Job job) {
    if (Stopped()) return;
    if (job.kind == Kind::kFolder) return DoFolder(std::move(job));
    if (Problem problem = DoJob(job)) {
        if (problem->errorCode == 0) return;
        Note(std::move(*problem), job);
    } else if (!job.isPending) {
        ++m_done;
    }
    m_base_bytes += job.planned_bytes * (m_task.verify && !job.isPending ? 2 : 1);
    Tell(0);
    if (IsBatchFull()) Flush();
}

void TransferWork::DoFolder(Job job) {
    auto folder = std::make_shared<Folder>(Folder{job.folder});
    job.folder = folder;
    if (const std::string why = task::WhyNoName(job.target); !why.empty())
        return Note({task::kErrorTargetUnwritable, 0, job.target + ": " + why}, job);
    if (const std::uint32_t code = MakeFolder(job.target, folder->wasMade); code != 0) {
        Seen there;
        if (LookAt(job.target, false, there) == 0 && there.kind != Kind::kAbsent)
            return Note({task::kErrorTargetExists, code,
                         job.target + ": the target exists and is no folder; it is not replaced"},
                        job);
        return Note(
            TargetFailure(code, job.target + ": the folder cannot be made: " + task::SystemWords(code), 0),
            job);
    }
    const std::uint32_t code = EachEntry(job.source, [&](const Seen& entry) {
        DoEntry({task::PathIn(job.source, entry.name), task::PathIn(job.target, entry.name),
                 job.name + "/" + entry.name, entry.kind, entry.size_bytes, job.item, entry.code, folder});
    });
    if (Stopped()) return;
    if (code != 0) Note(SourceFailure(job.source, code), job);
    Queue({std::move(job)});
    if (IsBatchFull()) Flush();
}

Problem TransferWork::DoJob(Job& job) {
    if (job.kind == Kind::kFile) return DoFile(job);
    if (job.kind == Kind::kLink) return DoLink(job);
    if (job.code != 0) return SourceFailure(job.source, job.code);
    return Failure{task::kErrorSourceUnreadable, 0,
                   job.source + ": is no plain file, folder or link; it is left out"};
}

Problem TransferWork::DoLink(Job& job) {
    const std::uint32_t code = CopyLink(job.source, job.target, m_task.overwrite);
    if (code != 0) {
        Seen there;
        if (LookAt(job.target, false, there) == 0 && there.kind != Kind::kAbsent)
            return Failure{task::kErrorTargetExists, code,
                           job.target + ": the target exists already" +
                               (m_task.overwrite ? " and is no link and no file: remove it first" : "")};
        return TargetFailure(code, job.target + ": the link cannot be made: " + task::SystemWords(code), 0);
    }
    job.isPending = true;
    Queue({job});
    return std::nullopt;
}

// ---- results, progress, end ----

void TransferWork::Result(Job& job, const char* how, std::uint64_t size_bytes, const Digests& digests) {
    if (job.kind == Kind::kFile) {
        if (m_manifest) m_manifest->Add(job.name, digests);
        if (!job.isCompared) Compared(job, nullptr, nullptr);
    }
    if (m_results++ >= kMaxResults) return;
    std::string further;
    if (digests.md5) further = "md5:" + Md5Hex(*digests.md5);
    if (digests.sha256)
        further += (further.empty() ? "sha256:" : " sha256:") +
                   task::HexOf(digests.sha256->data(), digests.sha256->size());
    RQTransferOutput output{};
    output.size = sizeof output;
    output.kind = further.empty() ? RQ_OUTPUT_PLAIN : RQ_OUTPUT_TEXT;
    output.first = plugin::Borrow(job.target);
    output.second = plugin::Borrow(how);
    output.size_bytes = size_bytes;
    output.further = plugin::Borrow(further);
    m_host.PublishResult(output);
}

void TransferWork::Compared(Job& job, const task::Md5Digest* first, const task::Md5Digest* second) {
    job.isCompared = true;
    if (m_comparisons++ >= kMaxResults) return;
    RQVerification entry{};
    entry.size = sizeof entry;
    entry.has = (first != nullptr ? RQ_HAS_FIRST_MD5 : 0u) | (second != nullptr ? RQ_HAS_SECOND_MD5 : 0u);
    entry.first = plugin::Borrow(job.source);
    entry.second = plugin::Borrow(job.target);
    if (first != nullptr) std::copy(first->begin(), first->end(), entry.firstMd5);
    if (second != nullptr) std::copy(second->begin(), second->end(), entry.secondMd5);
    m_host.PublishResult(entry);
}

void TransferWork::Note(Failure failure, const Job& job) {
    MarkFailed(job.folder);
    Note(std::move(failure), job.item);
}

void TransferWork::MarkFailed(std::shared_ptr<Folder> folder) {
    for (; folder; folder = folder->above) folder->hasFailed = true;
}

void TransferWork::Note(Failure failure, std::size_t item) {
    m_items[item].hasFailed = true;
    m_host.Log(plugin::Level::kFailure, "transfer: " + failure.words);
    if (m_failures.size() + failure.words.size() + 1 > kMaxFurtherText_bytes)
        ++m_unlisted;
    else
        m_failures += (m_failures.empty() ? "" : "\n") + failure.words;
    if (!m_first) m_first = std::move(failure);
}

bool TransferWork::Tell(std::uint64_t done_bytes) {
    const auto now = std::chrono::steady_clock::now();
    if (now - m_toldAt >= kReport_ms) {
        const auto total = static_cast<std::int64_t>(m_total_bytes);
        const auto done = static_cast<std::int64_t>(m_base_bytes + done_bytes);
        // The last byte is told when everything has its name.
        m_told_bytes = std::max(m_told_bytes, std::min(done, total - 1));
        if (total > 1 && m_base_bytes + done_bytes > 0) m_run.Progress(total, m_told_bytes);
        m_run.QuietFor(kOneCall_s);
        m_toldAt = std::chrono::steady_clock::now();
    }
    return !Stopped();
}

plugin::Outcome TransferWork::Conclude() {
    const auto total = static_cast<std::int64_t>(std::max<std::uint64_t>(m_total_bytes, 1));
    if (!Stopped()) m_run.Progress(total, total);
    const std::uint32_t stop = m_run.Stop();
    if (stop == RQ_STOP_CANCEL) return plugin::Outcome::kCancelled;
    if (m_unlisted != 0) m_failures += "\nand " + std::to_string(m_unlisted) + " more";
    std::string text =
        std::to_string(m_done) + " of " + std::to_string(std::max(m_files, m_done)) + " files done";
    if (std::max(m_results, m_comparisons) > kMaxResults)
        text += "; results of the first " + std::to_string(kMaxResults) + " only";
    if (stop == RQ_STOP_FINISH) {
        m_record.SetFurtherText("ended early: " + text + (m_failures.empty() ? "" : "\n" + m_failures));
        return plugin::Outcome::kFinished;
    }
    if (m_first) {
        m_record.SetError(m_first->systemCode, m_first->errorCode, m_first->words, text + "\n" + m_failures);
        return plugin::Outcome::kFailed;
    }
    m_record.SetFurtherText(text);
    return plugin::Outcome::kFinished;
}

}  // namespace rq::transfer
