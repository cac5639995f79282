// Files that are written get their names together: synced at once, then named, then their folders synced, and
// only then the sources of a move removed. Until then nothing of them is seen.
#include <algorithm>

#include "plugin_common/codes.h"
#include "plugin_common/file.h"
#include "transfer_work.h"
#include "url.h"

namespace rq::transfer {

void TransferWork::Queue(Pending pending) {
    pending.job.isPending = true;
    if (m_pending.empty()) m_pendingSince = std::chrono::steady_clock::now();
    m_pending_bytes += pending.size_bytes;
    if (pending.target) pending.target->EndWriting();
    m_pending.push_back(std::move(pending));
}

bool TransferWork::IsBatchFull() const {
    return m_pending.size() >= kBatchFiles || m_pending_bytes >= kBatch_bytes ||
           m_changedFolders.size() >= kBatchFiles ||
           (!m_pending.empty() && std::chrono::steady_clock::now() - m_pendingSince >= kBatchAge);
}

void TransferWork::Flush() {
    if (!m_pending.empty()) {
        SyncBatch();
        if (m_task.verify)
            for (Pending& pending : m_pending) {
                if (pending.target && !pending.problem) pending.problem = ReadBack(pending);
                if (pending.target) m_base_bytes += pending.job.planned_bytes;
            }
        NameBatch();
        FinishFolders();
    }
    SyncChanged();
    EndBatch();
    SyncChanged();
}

void TransferWork::SyncChanged() {
    if (m_changedFolders.empty()) return;
    const std::vector<std::string> folders(m_changedFolders.begin(), m_changedFolders.end());
    Aside([&] { task::SyncFolders(folders); });
    m_changedFolders.clear();
}

void TransferWork::SyncBatch() {
    std::vector<Pending*> written;
    std::vector<task::Publication*> files;
    for (Pending& pending : m_pending) {
        if (!pending.target) continue;
        written.push_back(&pending);
        files.push_back(pending.target.get());
    }
    if (files.empty()) return;
    const auto failures = Aside([&] { return task::Publication::SyncAll(files); });
    for (std::size_t i = 0; i < written.size(); ++i)
        if (failures[i]) written[i]->problem = PublicationFailure(*failures[i], written[i]->size_bytes);
}

// A stop that has come meanwhile leaves the rest without names, and so without temporaries.
void TransferWork::NameBatch() {
    const auto agree = [](const std::string&) { return true; };
    Aside([&] {
        for (Pending& pending : m_pending) {
            if (pending.problem || (pending.target && Stopped())) continue;
            if (pending.target) {
                if (const auto failure = pending.target->GiveName(agree)) {
                    pending.problem = PublicationFailure(*failure, pending.size_bytes);
                    continue;
                }
            }
            pending.isNamed = true;
        }
    });
    for (const Pending& pending : m_pending) {
        if (!pending.isNamed)
            MarkFailed(pending.job.folder);
        else if (pending.job.kind != Kind::kFolder)
            m_changedFolders.insert(ParentOf(pending.job.target));
    }
}

// What is made in a folder changes its time. One that was there before keeps its own.
void TransferWork::FinishFolders() {
    for (const Pending& pending : m_pending) {
        if (pending.job.kind != Kind::kFolder) continue;
        if (pending.job.folder->wasMade) CopyFolderFacts(pending.job.source, pending.job.target);
        m_changedFolders.insert(pending.job.target);
        m_changedFolders.insert(ParentOf(pending.job.target));
    }
}

void TransferWork::EndBatch() {
    for (Pending& pending : m_pending) {
        Job& job = pending.job;
        if (pending.problem && pending.problem->errorCode != 0) {
            Note(std::move(*pending.problem), job);
        } else if (pending.isNamed) {
            if (job.kind != Kind::kFolder) {
                const auto& expected = m_task.items[job.item].expected;
                if (!m_task.verify && expected && pending.digests.md5)
                    Compared(job, &*expected, &*pending.digests.md5);
                Result(job, m_task.move ? "moved" : "copied", pending.size_bytes, pending.digests);
                if (!m_task.move) ++m_done;
            }
            if (m_task.move) {
                if (Problem problem = RemoveSource(pending))
                    Note(std::move(*problem), job);
                else if (job.kind != Kind::kFolder)
                    ++m_done;
            }
        }
        Tell(0);
    }
    m_pending.clear();
    m_pending_bytes = 0;
}

// What came to the source after it was read would be lost.
Problem TransferWork::RemoveSource(Pending& pending) {
    const Job& job = pending.job;
    std::uint32_t code = 0;
    if (job.kind == Kind::kFolder) {
        // One in which something was left stays.
        if (job.folder->hasFailed) return std::nullopt;
        task::RemoveLeftTemporaries(job.source);
        code = RemoveFolder(job.source);
    } else if (job.kind == Kind::kLink) {
        code = RemoveFile(job.source);
    } else if (pending.source->IsAt(job.source) && !pending.source->Changed()) {
        pending.source->Close();
        code = RemoveFile(job.source);
    } else {
        return Failure{task::kErrorSourceNotRemoved, 0,
                       job.source +
                           ": the target is complete, but the source is not removed: it changed after "
                           "it was read"};
    }
    if (code == 0) {
        m_changedFolders.insert(ParentOf(job.source));
        return std::nullopt;
    }
    return Failure{
        task::kErrorSourceNotRemoved, code,
        job.source + ": the target is complete, but the source is not removed: " + task::SystemWords(code)};
}

Problem TransferWork::ReadBack(Pending& pending) {
    Job& job = pending.job;
    task::InputFile written;
    if (const std::uint32_t code = written.Open(pending.target->TemporaryPath()); code != 0)
        return TargetFailure(code, job.target + ": " + task::SystemWords(code), 0);
    written.ForgetCache();
    StreamJob stream{written};
    stream.md5 = true;
    RateLimit none(0);
    stream.limit = &none;
    stream.goOn = [&](std::uint64_t done) { return Tell(std::min(done, job.planned_bytes)); };
    const StreamResult result = RunStream(std::move(stream));
    if (result.end == StreamResult::End::kStopped) return kStopped;
    if (result.end != StreamResult::End::kDone)
        return TargetFailure(
            result.systemCode,
            job.target + ": the written file cannot be read back: " + task::SystemWords(result.systemCode),
            0);
    Compared(job, &*pending.digests.md5, &*result.digests.md5);
    if (*result.digests.md5 == *pending.digests.md5) return std::nullopt;
    return Failure{task::kErrorMd5Differs, 0,
                   job.target + ": what was written has the MD5 " + Md5Hex(*result.digests.md5) +
                       ", the source " + Md5Hex(*pending.digests.md5) + "; nothing was published"};
}

}  // namespace rq::transfer
