// One file from path to path: checked, read, digested and written under its temporary name; the batch does
// the rest.
#include <algorithm>

#include "plugin_common/codes.h"
#include "plugin_common/file.h"
#include "plugin_common/node.h"
#include "transfer_work.h"
#include "url.h"

namespace rq::transfer {

using task::CodeClass;

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

Problem TransferWork::DoFile(Job& job) {
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

Problem TransferWork::MoveByName(Job& job, bool& moved) {
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
    m_changedFolders.insert({ParentOf(job.target), ParentOf(job.source)});
    // The bytes are where they were: one digest is both files'.
    if (m_task.verify && digests.md5)
        Compared(job, &*digests.md5, &*digests.md5);
    else if (m_task.items[job.item].expected && digests.md5)
        Compared(job, &*m_task.items[job.item].expected, &*digests.md5);
    Result(job, "renamed", job.planned_bytes, digests);
    return std::nullopt;
}

Problem TransferWork::Begin(const Job& job, const std::vector<std::string>& sources, std::uint64_t size_bytes,
                            task::Publication& target) {
    const auto failure =
        target.Begin(job.target, sources, m_task.overwrite, CleaningOf(ParentOf(job.target)));
    if (failure) return PublicationFailure(*failure, size_bytes);
    return std::nullopt;
}

Problem TransferWork::Copy(Job& job) {
    auto source = std::make_unique<task::InputFile>();
    if (const std::uint32_t code = source->Open(job.source); code != 0) {
        if (task::ClassOf(code) == CodeClass::kAbsent)
            return Failure{task::kErrorSourceVanished, code, job.source + ": the source is gone"};
        return SourceFailure(job.source, code);
    }
    const std::uint64_t size_bytes = source->Size();
    auto target = std::make_unique<task::Publication>();
    if (Problem problem = Begin(job, {job.source}, size_bytes, *target)) return problem;
    target->KeepPrivate();
    if (source->MayHaveHoles()) (void)target->MakeSparse();  // without it the holes take room
    Digests digests;
    if (Problem problem = Pass(job, *source, target.get(), digests)) return problem;
    if (Problem problem = CheckSource(job, *source)) return problem;
    if (Problem problem = CheckExpected(job, digests, nullptr)) return problem;
    if (const std::uint32_t code = target->SetSize(size_bytes); code != 0)
        return TargetFailure(code, job.target + ": " + task::SystemWords(code), size_bytes);
    target->TakeFactsOf(*source);
    job.isPending = true;
    Queue({job, m_task.move ? std::move(source) : nullptr, std::move(target), digests, size_bytes});
    return std::nullopt;
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

Problem TransferWork::CheckExpected(Job& job, const Digests& digests, const task::Md5Digest* found) {
    const std::optional<task::Md5Digest>& expected = m_task.items[job.item].expected;
    const task::Md5Digest* has = found != nullptr ? found : digests.md5 ? &*digests.md5 : nullptr;
    if (!expected || has == nullptr || *has == *expected || *expected == task::Md5Digest{})
        return std::nullopt;  // zeros stand for "not known"
    Compared(job, &*expected, has);
    return Failure{task::kErrorMd5Differs, 0,
                   job.source + ": the MD5 is " + Md5Hex(*has) + ", not " + Md5Hex(*expected) +
                       "; nothing was published"};
}

}  // namespace rq::transfer
