#include "checksum_output.h"

#include "plugin_common/codes.h"
#include "plugin_common/file.h"

namespace rq::md5 {
namespace {

constexpr std::size_t kFlush_bytes = 64u << 10;

std::optional<Failure> FailureOf(const std::optional<task::PublishFailure>& failure) {
    if (!failure) return std::nullopt;
    return Failure{failure->systemCode, task::TaskErrorOf(failure->problem), failure->words};
}

}  // namespace

std::optional<Failure> ChecksumWriter::Begin(const Md5Task& task) {
    m_target = task.output->path;
    m_folder = task::WithSlashes(task::FolderPart(m_target));
    std::vector<std::string> sources;
    for (const TaskFile& file : task.files) sources.push_back(file.path);
    return FailureOf(m_publication.Begin(m_target, sources, task.output->overwrite));
}

std::optional<Failure> ChecksumWriter::Add(const std::string& path, const task::Md5Digest& digest) {
    const std::string name = task::WithSlashes(path);
    const bool isBelow = name.size() > m_folder.size() && name.compare(0, m_folder.size(), m_folder) == 0;
    m_pending += ChecksumLine(isBelow ? name.substr(m_folder.size()) : name, digest);
    return m_pending.size() < kFlush_bytes ? std::nullopt : Flush();
}

std::optional<Failure> ChecksumWriter::Flush() {
    const std::uint32_t code =
        m_publication.WriteAt(m_publication.SizeBytes(), m_pending.data(), m_pending.size());
    m_pending.clear();
    if (code == 0) return std::nullopt;
    return Failure{code, task::kErrorTargetUnwritable, m_target + ": " + task::SystemWords(code)};
}

std::optional<Failure> ChecksumWriter::Publish() {
    if (auto failure = Flush()) return failure;
    return FailureOf(m_publication.Publish([](const std::string&) { return true; }));
}

}  // namespace rq::md5
