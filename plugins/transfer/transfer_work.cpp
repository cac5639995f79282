#include "transfer_work.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "plugin_common/codes.h"
#include "plugin_common/file.h"
#include "plugin_common/node.h"
#include "url.h"

namespace rq::transfer {
namespace {

using task::CodeClass;

// A name as md5sum and sha256sum write it: one with a line end or a backslash has its line marked.
std::string ManifestLine(const std::string& hex, const std::string& name) {
    std::string escaped;
    for (const char c : name) {
        if (c == '\\')
            escaped += "\\\\";
        else if (c == '\n')
            escaped += "\\n";
        else if (c == '\r')
            escaped += "\\r";
        else
            escaped += c;
    }
    return (escaped == name ? "" : "\\") + hex + "  " + escaped + "\n";
}

}  // namespace

TransferWork::TransferWork(TransferRecord& record, plugin::Run& run, const plugin::Host& host)
    : m_record(record),
      m_task(record.Task()),
      m_run(run),
      m_host(host),
      m_limit(record.Task().limit_Bps),
      m_lines(record.Task().items.size()),
      m_itemFailed(record.Task().items.size(), false),
      m_itemRefused(record.Task().items.size(), false) {}

plugin::Outcome TransferWork::Do() {
    m_run.Progress(1, 0);
    for (std::size_t i = 0; i < m_task.items.size() && !Stopped(); ++i) Plan(i);
    RefuseCollisions();
    if (m_task.verify) m_total_bytes *= 2;
    for (std::size_t i = 0; i < m_task.items.size() && !Stopped(); ++i) DoItem(i);
    return Conclude();
}

// ---- the plan ----

void TransferWork::Plan(std::size_t item) {
    const TransferItem& wanted = m_task.items[item];
    if (IsUrl(wanted.source)) return PlanUrl(item);
    Seen seen;
    std::uint32_t code = LookAt(wanted.source, true, seen);
    if (code == 0 && seen.kind == Kind::kAbsent) {
        task::InputFile file;  // the system's own words for what is missing
        code = file.Open(wanted.source);
    }
    if (code != 0) return Note(SourceFailure(wanted.source, code), item);
    Seen named;
    if (m_task.move && LookAt(wanted.source, false, named) == 0 && named.kind == Kind::kLink)
        return Note({task::kErrorSourceUnreadable, 0,
                     wanted.source + ": is a link, which is copied, not moved; name what it leads to"},
                    item);
    if (seen.kind == Kind::kFolder && IsUrl(wanted.target))
        return Note({task::kErrorSourceUnreadable, 0,
                     wanted.source + ": is a folder, and only files are sent to URLs"},
                    item);
    if (seen.kind == Kind::kFolder) {
        if (wanted.expected)
            return Note({task::kErrorSourceUnreadable, 0,
                         wanted.source + ": is a folder; leave <MD5> out of its <Item>"},
                        item);
        for (std::string above = wanted.target; above.size() > 1; above = ParentOf(above)) {
            if (above == wanted.source || task::IsSameFile(above, wanted.source))
                return Note({task::kErrorTargetIsSource, 0,
                             wanted.target + ": the target is the source or lies in it: " + wanted.source},
                            item);
            if (ParentOf(above) == above) break;
        }
    }
    const std::string name = IsUrl(wanted.target) ? FileNameOf(wanted.target) : NameOf(wanted.target);
    PlanEntry({wanted.source, wanted.target, name, seen.kind, seen.size_bytes, item});
}

void TransferWork::PlanEntry(Job job) {
    Tell(0);
    m_total_bytes += job.planned_bytes;
    const Job copy = job;
    m_jobs.push_back(std::move(job));
    if (copy.kind == Kind::kFolder) PlanFolder(copy.source, copy.target, copy.name, copy.item);
}

void TransferWork::PlanFolder(const std::string& source, const std::string& target, const std::string& name,
                              std::size_t item) {
    std::vector<Seen> entries;
    if (const std::uint32_t code = ListFolder(source, entries, [this] { return Tell(0); }); code != 0)
        return Note(SourceFailure(source, code), item);
    for (const Seen& entry : entries) {
        if (Stopped()) return;
        if (task::IsTemporaryName(entry.name)) continue;  // what another transfer writes there
        PlanEntry({task::PathIn(source, entry.name), task::PathIn(target, entry.name),
                   name + "/" + entry.name, entry.kind, entry.size_bytes, item, entry.code});
    }
}

// ---- one item ----

bool TransferWork::WantsBytes(std::size_t item) const {
    return m_task.md5 || m_task.sha256 || m_task.items[item].expected.has_value();
}

void TransferWork::DoItem(std::size_t item) {
    if (m_itemRefused[item]) return;
    if (MoveWholeFolder(item)) return;
    for (const Job& job : m_jobs) {
        if (job.item != item) continue;
        if (Stopped()) return;
        if (Problem problem = DoJob(job)) {
            if (problem->errorCode == 0) return;
            Note(std::move(*problem), item);
        } else if (job.kind != Kind::kFolder) {
            ++m_done;
        }
        m_base_bytes += job.planned_bytes * (m_task.verify ? 2 : 1);
        Tell(0);
    }
    FinishFolders(item);
    if (!m_task.manifest || m_itemFailed[item]) return;
    for (const char* ending : {"md5", "sha256"}) {
        if (!(ending[0] == 'm' ? m_task.md5 : m_task.sha256)) continue;
        if (Problem problem = WriteManifest(item, ending)) Note(std::move(*problem), item);
    }
}

// A folder whose bytes nobody wants to see keeps all it holds and gets another name.
bool TransferWork::MoveWholeFolder(std::size_t item) {
    const TransferItem& wanted = m_task.items[item];
    const auto first =
        std::find_if(m_jobs.begin(), m_jobs.end(), [&](const Job& job) { return job.item == item; });
    if (first == m_jobs.end() || first->kind != Kind::kFolder || m_itemFailed[item]) return false;
    Seen there;
    if (!m_task.move || WantsBytes(item) || LookAt(wanted.target, false, there) != 0 ||
        there.kind != Kind::kAbsent || !task::WhyNoName(wanted.target).empty())
        return false;
    std::uint32_t code = 0;
    if (Rename(wanted.source, wanted.target, false, code) != Renamed::kDone) return false;
    Aside([&] {
        SyncFolder(ParentOf(wanted.target));
        SyncFolder(ParentOf(wanted.source));
    });
    std::uint64_t size_bytes = 0;
    for (const Job& job : m_jobs) {
        if (job.item != item) continue;
        size_bytes += job.planned_bytes;
        if (job.kind != Kind::kFolder) ++m_done;
        if (job.kind == Kind::kFile) Compared(job, nullptr, nullptr);
    }
    Result(*first, "renamed", size_bytes, {});
    m_base_bytes += size_bytes * (m_task.verify ? 2 : 1);
    return true;
}

Problem TransferWork::DoJob(const Job& job) {
    switch (job.kind) {
        case Kind::kFile:
            return DoFile(job);
        case Kind::kFolder:
            if (const std::string why = task::WhyNoName(job.target); !why.empty())
                return Failure{task::kErrorTargetUnwritable, 0, job.target + ": " + why};
            if (const std::uint32_t code = MakeFolder(job.target); code != 0) {
                Seen there;
                if (LookAt(job.target, false, there) == 0 && there.kind != Kind::kAbsent)
                    return Failure{task::kErrorTargetExists, code,
                                   job.target + ": the target exists and is no folder; it is not replaced"};
                return TargetFailure(
                    code, job.target + ": the folder cannot be made: " + task::SystemWords(code), 0);
            }
            return std::nullopt;
        case Kind::kLink:
            return DoLink(job);
        case Kind::kAbsent:
        case Kind::kOther:
            break;
    }
    if (job.code != 0) return SourceFailure(job.source, job.code);
    return Failure{task::kErrorSourceUnreadable, 0,
                   job.source + ": is no plain file, folder or link; it is left out"};
}

Problem TransferWork::DoLink(const Job& job) {
    const std::uint32_t code = CopyLink(job.source, job.target);
    if (code != 0) {
        Seen there;
        if (LookAt(job.target, false, there) == 0 && there.kind != Kind::kAbsent)
            return Failure{task::kErrorTargetExists, code, job.target + ": the target exists already"};
        return TargetFailure(code, job.target + ": the link cannot be made: " + task::SystemWords(code), 0);
    }
    Result(job, m_task.move ? "moved" : "copied", 0, {});
    if (!m_task.move) return std::nullopt;
    if (const std::uint32_t left = RemoveFile(job.source); left != 0)
        return Failure{task::kErrorSourceNotRemoved, left,
                       job.source + ": the target is complete, but the source cannot be removed: " +
                           task::SystemWords(left)};
    return std::nullopt;
}

// ---- one file ----

Problem TransferWork::CheckTarget(const std::string& source, const std::string& target) const {
    if (source == target || task::IsSameFile(source, target))
        return Failure{task::kErrorTargetIsSource, 0, target + ": the target is the source " + source};
    if (const std::string why = task::WhyNoName(target); !why.empty())
        return Failure{task::kErrorTargetUnwritable, 0, target + ": " + why};
    Seen there;
    if (LookAt(target, false, there) != 0 || there.kind == Kind::kAbsent) return std::nullopt;
    if (!m_task.overwrite)
        return Failure{task::kErrorTargetExists, 0,
                       target + ": the target exists already; say <Overwrite>true</Overwrite> to replace it"};
    if (there.kind != Kind::kFile && there.kind != Kind::kLink)
        return Failure{task::kErrorTargetExists, 0,
                       target + ": the target exists and is no plain file; it is not overwritten"};
    if (there.kind == Kind::kFile && there.isReadOnly)
        return Failure{
            task::kErrorTargetReadOnly, 0,
            target + ": the target is marked as read-only; take the mark away, or choose another target"};
    return std::nullopt;
}

Problem TransferWork::DoFile(const Job& job) {
    if (IsUrl(job.source)) return Fetch(job);
    if (IsUrl(job.target)) return Send(job);
    if (Problem problem = CheckTarget(job.source, job.target)) return problem;
    if (m_task.move && OnSameFileSystem(job.source, ParentOf(job.target))) {
        bool moved = false;
        Problem problem = MoveByName(job, moved);
        if (problem || moved) return problem;
    }
    return Copy(job);
}

Problem TransferWork::MoveByName(const Job& job, bool& moved) {
    Digests digests;
    if (WantsBytes(job.item)) {
        task::InputFile source;
        if (const std::uint32_t code = source.Open(job.source); code != 0)
            return SourceFailure(job.source, code);
        if (Problem problem = Pass(job, source, nullptr, digests)) return problem;
        if (Problem problem = CheckSource(job, source)) return problem;
        if (Problem problem = CheckExpected(job, digests, nullptr)) return problem;
    }
    std::uint32_t code = 0;
    switch (Rename(job.source, job.target, m_task.overwrite, code)) {
        case Renamed::kDone:
            break;
        case Renamed::kOtherFileSystem:
            return std::nullopt;
        case Renamed::kTargetExists:
            return Failure{task::kErrorTargetExists, code,
                           job.target + ": the target has come into being meanwhile"};
        case Renamed::kFailed:
            if (task::ClassOf(code) == CodeClass::kAbsent && task::IsAbsent(job.source))
                return Failure{task::kErrorSourceVanished, code, job.source + ": the source is gone"};
            return TargetFailure(
                code, job.target + ": the file cannot be given this name: " + task::SystemWords(code),
                job.planned_bytes);
    }
    moved = true;
    Aside([&] {
        SyncFolder(ParentOf(job.target));
        SyncFolder(ParentOf(job.source));
    });
    // The bytes are where they were: one digest is both files'.
    if (m_task.verify && digests.md5)
        Compared(job, &*digests.md5, &*digests.md5);
    else if (m_task.items[job.item].expected && digests.md5)
        Compared(job, &*m_task.items[job.item].expected, &*digests.md5);
    Result(job, "renamed", job.planned_bytes, digests);
    return std::nullopt;
}

Problem TransferWork::Copy(const Job& job) {
    task::InputFile source;
    if (const std::uint32_t code = source.Open(job.source); code != 0) {
        if (task::ClassOf(code) == CodeClass::kAbsent)
            return Failure{task::kErrorSourceVanished, code, job.source + ": the source is gone"};
        return SourceFailure(job.source, code);
    }
    task::Publication target;
    if (const auto failure = target.Begin(job.target, {job.source}, m_task.overwrite))
        return FromPublication(*failure, source.Size());
    if (source.MayHaveHoles()) (void)target.MakeSparse();  // without it the holes take room
    Digests digests;
    if (Problem problem = Pass(job, source, &target, digests)) return problem;
    if (Problem problem = CheckSource(job, source)) return problem;
    if (Problem problem = CheckExpected(job, digests, nullptr)) return problem;
    if (const std::uint32_t code = target.SetSize(source.Size()); code != 0)
        return TargetFailure(code, job.target + ": " + task::SystemWords(code), source.Size());
    target.TakeFactsOf(source);
    if (Problem problem = Publish(job, target, digests)) return problem;
    Result(job, m_task.move ? "moved" : "copied", source.Size(), digests);
    if (!m_task.move) return std::nullopt;
    // What came to the source after it was read would be lost.
    std::uint32_t code = 0;
    std::string why = "it changed after it was read";
    if (source.IsAt(job.source) && !source.Changed()) {
        source.Close();
        code = RemoveFile(job.source);
        if (code == 0) {
            Aside([&] { SyncFolder(ParentOf(job.source)); });
            return std::nullopt;
        }
        why = task::SystemWords(code);
    }
    return Failure{task::kErrorSourceNotRemoved, code,
                   job.source + ": the target is complete, but the source is not removed: " + why};
}

Problem TransferWork::Pass(const Job& job, task::InputFile& source, task::Publication* target,
                           Digests& digests) {
    StreamJob stream{source};
    stream.target = target;
    stream.md5 = m_task.md5 || m_task.items[job.item].expected;
    stream.sha256 = m_task.sha256;
    stream.limit = &m_limit;
    stream.goOn = [&](std::uint64_t done) { return Tell(std::min(done, job.planned_bytes)); };
    StreamResult result = RunStream(std::move(stream));
    digests = result.digests;
    switch (result.end) {
        case StreamResult::End::kDone:
            return std::nullopt;
        case StreamResult::End::kStopped:
            return kStopped;
        case StreamResult::End::kRead:
            return SourceFailure(job.source, result.systemCode);
        case StreamResult::End::kWrite:
            return TargetFailure(result.systemCode, job.target + ": " + task::SystemWords(result.systemCode),
                                 source.Size());
        case StreamResult::End::kDigest:
            return Failure{task::kErrorNoDigest, 0,
                           job.source + ": the digest cannot be computed on this system"};
        case StreamResult::End::kSize:
            break;
    }
    return Failure{task::kErrorSourceChanged, 0,
                   job.source + ": the source became shorter while it was read"};
}

Problem TransferWork::CheckSource(const Job& job, const task::InputFile& source) const {
    if (!source.IsAt(job.source))
        return Failure{task::kErrorSourceVanished, 0,
                       job.source + ": the source was removed or replaced while it was read"};
    if (source.Changed())
        return Failure{
            task::kErrorSourceChanged, 0,
            job.source + ": the source changed while it was read; transfer it when it is complete"};
    return std::nullopt;
}

Problem TransferWork::CheckExpected(const Job& job, const Digests& digests, const task::Md5Digest* found) {
    const std::optional<task::Md5Digest>& expected = m_task.items[job.item].expected;
    const task::Md5Digest* has = found != nullptr ? found : digests.md5 ? &*digests.md5 : nullptr;
    if (!expected || has == nullptr || *has == *expected || *expected == task::Md5Digest{})
        return std::nullopt;  // zeros stand for "not known"
    Compared(job, &*expected, has);
    return Failure{task::kErrorMd5Differs, 0,
                   job.source + ": the MD5 is " + Md5Hex(*has) + ", not " + Md5Hex(*expected) +
                       "; nothing was published"};
}

Problem TransferWork::Publish(const Job& job, task::Publication& target, const Digests& digests) {
    if (const auto failure = Aside([&] { return target.Sync(); }))
        return FromPublication(*failure, target.SizeBytes());
    if (m_task.verify) {
        if (Problem problem = ReadBack(job, target, digests)) return problem;
    }
    if (Stopped()) return kStopped;
    const auto agree = [](const std::string&) { return true; };
    if (const auto failure = Aside([&] { return target.Publish(agree); }))
        return FromPublication(*failure, target.SizeBytes());
    if (!m_task.verify && m_task.items[job.item].expected && digests.md5)
        Compared(job, &*m_task.items[job.item].expected, &*digests.md5);
    return std::nullopt;
}

Problem TransferWork::ReadBack(const Job& job, const task::Publication& target, const Digests& digests) {
    task::InputFile written;
    if (const std::uint32_t code = written.Open(target.TemporaryPath()); code != 0)
        return TargetFailure(code, job.target + ": " + task::SystemWords(code), 0);
    written.ForgetCache();
    StreamJob stream{written};
    stream.md5 = true;
    RateLimit none(0);
    stream.limit = &none;
    stream.goOn = [&](std::uint64_t done) {
        return Tell(job.planned_bytes + std::min(done, job.planned_bytes));
    };
    const StreamResult result = RunStream(std::move(stream));
    if (result.end == StreamResult::End::kStopped) return kStopped;
    if (result.end != StreamResult::End::kDone)
        return TargetFailure(
            result.systemCode,
            job.target + ": the written file cannot be read back: " + task::SystemWords(result.systemCode),
            0);
    Compared(job, &*digests.md5, &*result.digests.md5);
    if (*result.digests.md5 == *digests.md5) return std::nullopt;
    return Failure{task::kErrorMd5Differs, 0,
                   job.target + ": what was written has the MD5 " + Md5Hex(*result.digests.md5) +
                       ", the source " + Md5Hex(*digests.md5) + "; nothing was published"};
}

Problem TransferWork::FromPublication(const task::PublishFailure& failure, std::uint64_t size_bytes) const {
    const std::int32_t code = task::TaskErrorOf(failure.problem);
    if (code != task::kErrorTargetUnwritable) return Failure{code, failure.systemCode, failure.words};
    return TargetFailure(failure.systemCode, failure.words, size_bytes);
}

// ---- after the files ----

// The deepest first: what is made in a folder changes its time.
void TransferWork::FinishFolders(std::size_t item) {
    for (auto job = m_jobs.rbegin(); job != m_jobs.rend(); ++job) {
        if (job->item != item || job->kind != Kind::kFolder) continue;
        CopyFolderFacts(job->source, job->target);
        Aside([&] { SyncFolder(job->target); });
        // One in which something was left stays.
        if (m_task.move && !m_itemFailed[item]) {
            if (const std::uint32_t code = RemoveFolder(job->source); code != 0)
                Note({task::kErrorSourceNotRemoved, code,
                      job->source + ": the target is complete, but the source is not removed: " +
                          task::SystemWords(code)},
                     item);
        }
    }
}

Problem TransferWork::WriteManifest(std::size_t item, const std::string& ending) {
    const std::string path = m_task.items[item].target + "." + ending;
    std::string text;
    for (const Line& line : m_lines[item]) {
        if (ending == "md5" && line.digests.md5) text += ManifestLine(Md5Hex(*line.digests.md5), line.name);
        if (ending == "sha256" && line.digests.sha256)
            text += ManifestLine(task::HexOf(line.digests.sha256->data(), line.digests.sha256->size()),
                                 line.name);
    }
    task::Publication manifest;
    auto failure = manifest.Begin(path, {}, m_task.overwrite);
    if (failure) return FromPublication(*failure, text.size());
    if (const std::uint32_t code = manifest.WriteAt(0, text.data(), text.size()); code != 0)
        return TargetFailure(code, path + ": " + task::SystemWords(code), text.size());
    const auto agree = [](const std::string&) { return true; };
    failure = Aside([&] { return manifest.Publish(agree); });
    if (failure) return FromPublication(*failure, text.size());
    return std::nullopt;
}

// ---- results, progress, end ----

void TransferWork::Result(const Job& job, const char* how, std::uint64_t size_bytes, const Digests& digests) {
    if (job.kind == Kind::kFile) {
        m_lines[job.item].push_back({job.name, digests});
        if (m_compared != &job) Compared(job, nullptr, nullptr);
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

void TransferWork::Compared(const Job& job, const task::Md5Digest* first, const task::Md5Digest* second) {
    m_compared = &job;
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

void TransferWork::Note(Failure failure, std::size_t item) {
    m_itemFailed[item] = true;
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
    const auto files = static_cast<std::size_t>(std::count_if(
        m_jobs.begin(), m_jobs.end(), [](const Job& job) { return job.kind != Kind::kFolder; }));
    std::string text = std::to_string(m_done) + " of " + std::to_string(files) + " files done";
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
