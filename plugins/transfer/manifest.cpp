#include "manifest.h"

namespace rq::transfer {
namespace {

constexpr std::size_t kGathered_bytes = 64u << 10;

}  // namespace

void Manifest::Begin(const std::string& target, bool md5, bool sha256, bool overwrite,
                     task::Publication::Cleaning cleaning) {
    for (const bool isMd5 : {true, false}) {
        if (!(isMd5 ? md5 : sha256)) continue;
        File& file = m_files.emplace_back();
        file.path = target + (isMd5 ? ".md5" : ".sha256");
        file.isMd5 = isMd5;
        if (const auto failure = file.publication.Begin(file.path, {}, overwrite, cleaning))
            file.problem = PublicationFailure(*failure, 0);
    }
}

void Manifest::Add(const std::string& name, const Digests& digests) {
    for (File& file : m_files) {
        if (file.isMd5 && digests.md5) file.buffer += task::DigestLine(Md5Hex(*digests.md5), name);
        if (!file.isMd5 && digests.sha256)
            file.buffer +=
                task::DigestLine(task::HexOf(digests.sha256->data(), digests.sha256->size()), name);
        if (file.buffer.size() >= kGathered_bytes) Write(file);
    }
}

void Manifest::Write(File& file) {
    if (!file.problem) {
        const std::uint32_t code =
            file.publication.WriteAt(file.size_bytes, file.buffer.data(), file.buffer.size());
        if (code != 0)
            file.problem = TargetFailure(code, file.path + ": " + task::SystemWords(code),
                                         file.size_bytes + file.buffer.size());
    }
    file.size_bytes += file.buffer.size();
    file.buffer.clear();
}

std::vector<Failure> Manifest::Publish() {
    std::vector<Failure> failures;
    for (File& file : m_files) {
        Write(file);
        if (!file.problem) {
            if (const auto failure = file.publication.Publish([](const std::string&) { return true; }))
                file.problem = PublicationFailure(*failure, file.size_bytes);
        }
        if (file.problem) failures.push_back(*file.problem);
    }
    return failures;
}

}  // namespace rq::transfer
