// From and to URLs.
#include <algorithm>

#include "plugin_common/codes.h"
#include "plugin_common/file.h"
#include "transfer_work.h"
#include "url.h"

namespace rq::transfer {
namespace {

// The digests that are wanted, of bytes as they come.
class Passing {
  public:
    Passing(bool md5, bool sha256) {
        if (md5) m_md5.emplace();
        if (sha256) m_sha256.emplace();
    }
    void Begin() { m_isGood = (!m_md5 || m_md5->Start()) && (!m_sha256 || m_sha256->Start()); }
    bool Add(const void* bytes, std::size_t count) {
        m_isGood =
            m_isGood && (!m_md5 || m_md5->Add(bytes, count)) && (!m_sha256 || m_sha256->Add(bytes, count));
        return m_isGood;
    }
    bool Finish(Digests& digests) {
        digests = {};
        if (m_md5) m_isGood = m_isGood && m_md5->Finish(digests.md5.emplace());
        if (m_sha256) m_isGood = m_isGood && m_sha256->Finish(digests.sha256.emplace());
        return m_isGood;
    }

  private:
    std::optional<task::Md5> m_md5;
    std::optional<task::Sha256> m_sha256;
    bool m_isGood = true;
};

Failure NoDigest(const std::string& path) {
    return {task::kErrorNoDigest, 0, path + ": the digest cannot be computed on this system"};
}

}  // namespace

Problem TransferWork::Settle(const Job& job, bool isSource, Remote::Settings& settings) {
    settings.url = isSource ? job.source : job.target;
    settings.isSource = isSource;
    settings.limit = &m_limit;
    settings.goOn = [&](std::uint64_t done) { return Tell(std::min(done, job.planned_bytes)); };
    const std::string& name = m_task.items[job.item].credentials;
    if (!name.empty()) {
        if (Problem problem = FindCredential(name, HostOf(settings.url), settings.credential)) return problem;
    }
    if (SchemeOf(settings.url) == "sftp" && settings.credential.knownHosts.empty())
        return Failure{
            task::kErrorConfiguration, 0,
            settings.url +
                ": sftp needs <Credentials>, and their entry a <KnownHosts> with the key of the host"};
    return std::nullopt;
}

// The size is looked at for the progress; a file that is missing is said before anything is done.
void TransferWork::PlanUrl(std::size_t item) {
    const TransferItem& wanted = m_task.items[item];
    const Job job{wanted.source, wanted.target, NameOf(wanted.target), Kind::kFile, 0, item};
    Remote::Settings settings;
    if (Problem problem = Settle(job, true, settings)) return Note(std::move(*problem), item);
    settings.goOn = [this](std::uint64_t) { return Tell(0); };
    RemoteFacts facts;
    Problem problem = Remote(std::move(settings)).Look(facts);
    if (!problem && !facts.isThere)
        problem = Failure{task::kErrorSourceUnreadable, 0, wanted.source + ": there is no such file"};
    if (problem) {
        if (problem->errorCode != 0) Note(std::move(*problem), item);
        return;
    }
    m_items[item].kind = Kind::kFile;
    m_items[item].size_bytes = static_cast<std::uint64_t>(std::max<std::int64_t>(facts.size_bytes, 0));
}

Problem TransferWork::Fetch(Job& job) {
    if (Problem problem = CheckTarget(job.source, job.target)) return problem;
    Remote::Settings settings;
    if (Problem problem = Settle(job, true, settings)) return problem;
    Remote remote(std::move(settings));
    auto target = std::make_unique<task::Publication>();
    if (Problem problem = Begin(job, {}, job.planned_bytes, *target)) return problem;
    Passing passing(m_task.md5 || m_task.items[job.item].expected, m_task.sha256);
    bool isDigested = true;
    Remote::Sink sink;
    sink.begin = [&] { passing.Begin(); };
    sink.write = [&](std::uint64_t offset, const void* bytes, std::size_t count) {
        isDigested = isDigested && passing.Add(bytes, count);
        return target->WriteAt(offset, bytes, count);
    };
    std::uint64_t size_bytes = 0;
    if (Problem problem = remote.Download(sink, size_bytes)) {
        if (sink.code == 0) return problem;
        return TargetFailure(sink.code, job.target + ": " + task::SystemWords(sink.code), job.planned_bytes);
    }
    Digests digests;
    if (!passing.Finish(digests) || !isDigested) return NoDigest(job.source);
    if (Problem problem = CheckExpected(job, digests, nullptr)) return problem;
    if (const std::uint32_t code = target->SetSize(size_bytes); code != 0)
        return TargetFailure(code, job.target + ": " + task::SystemWords(code), size_bytes);
    Pending pending{job};
    pending.target = std::move(target);
    pending.digests = digests;
    pending.size_bytes = size_bytes;
    Queue(std::move(pending));
    job.isPending = true;
    return std::nullopt;
}

Problem TransferWork::Send(Job& job) {
    Remote::Settings settings;
    if (Problem problem = Settle(job, false, settings)) return problem;
    task::InputFile source;
    if (const std::uint32_t code = source.Open(job.source); code != 0) {
        if (task::ClassOf(code) == task::CodeClass::kAbsent)
            return Failure{task::kErrorSourceVanished, code, job.source + ": the source is gone"};
        return SourceFailure(job.source, code);
    }
    Remote remote(std::move(settings));
    Passing passing(m_task.md5 || m_task.items[job.item].expected, m_task.sha256);
    passing.Begin();
    Digests digests;
    const auto check = [&]() -> Problem {
        if (!passing.Finish(digests)) return NoDigest(job.source);
        if (Problem problem = CheckSource(job, source)) return problem;
        return CheckExpected(job, digests, nullptr);
    };
    // Before the last bytes go out: by http they publish the file.
    Problem refused;
    std::uint64_t left_bytes = source.Size();
    if (left_bytes == 0) refused = check();
    Remote::Supply supply{source, [&](const void* bytes, std::size_t count) {
                              if (!passing.Add(bytes, count)) return false;
                              left_bytes -= std::min<std::uint64_t>(left_bytes, count);
                              if (left_bytes == 0) refused = check();
                              return !refused;
                          }};
    Problem upload = refused ? std::nullopt : remote.Upload(supply, m_task.overwrite);
    if (refused) return refused;
    if (upload) return supply.code == 0 ? upload : SourceFailure(job.source, supply.code);
    if (m_task.verify) {
        if (Problem problem = ReadBack(job, remote, digests)) return problem;
    }
    if (Problem problem = remote.Publish(m_task.overwrite)) return problem;
    if (!m_task.verify && m_task.items[job.item].expected && digests.md5)
        Compared(job, &*m_task.items[job.item].expected, &*digests.md5);
    Result(job, "copied", source.Size(), digests);
    return std::nullopt;
}

Problem TransferWork::ReadBack(Job& job, Remote& remote, const Digests& digests) {
    Passing passing(true, false);
    Remote::Sink sink;
    sink.begin = [&] { passing.Begin(); };
    sink.write = [&](std::uint64_t, const void* bytes, std::size_t count) {
        passing.Add(bytes, count);
        return 0u;
    };
    std::uint64_t size_bytes = 0;
    if (Problem problem = remote.ReadBack(sink, size_bytes)) return problem;
    Digests found;
    if (!passing.Finish(found)) return NoDigest(job.target);
    Compared(job, &*digests.md5, &*found.md5);
    if (*found.md5 == *digests.md5) return std::nullopt;
    return Failure{task::kErrorMd5Differs, 0,
                   job.target + ": what was written has the MD5 " + Md5Hex(*found.md5) + ", the source " +
                       Md5Hex(*digests.md5)};
}

}  // namespace rq::transfer
