#include "engine/spool.h"

#include <filesystem>
#include <set>

#include "base/paths.h"
#include "platform/error_text.h"
#include "platform/files.h"

namespace rq::engine {

namespace fs = std::filesystem;

namespace {

constexpr const char* kFolder = "spool";

}  // namespace

Spool::Spool(const std::string& dataFolder, EngineLog& log)
    : m_folder(Utf8FromPath(PathFromUtf8(dataFolder) / kFolder)), m_log(log) {
    platform::OsError error;
    if (platform::CreatePrivateFolder(m_folder, &error)) return;
    m_log.Warn("final statuses cannot be spooled: " + error.message);
    m_folder.clear();
}

std::string Spool::File(const std::string& attempt, std::string_view ending) const {
    return Utf8FromPath(PathFromUtf8(m_folder) / PathFromUtf8(attempt + std::string(ending)));
}

Result<std::optional<link::SpooledStatus>> Spool::Read(const std::string& attempt) {
    using Nothing = std::optional<link::SpooledStatus>;
    if (m_folder.empty() || !link::IsSpoolAttempt(attempt)) return Nothing();
    const std::string file = File(attempt, link::kSpoolEnding);
    std::error_code failed;
    const auto kind = fs::status(PathFromUtf8(file), failed).type();
    if (kind == fs::file_type::not_found) return Nothing();
    if (kind == fs::file_type::none) return Fail(file + ": " + platform::ErrorText(failed));
    const auto size_bytes = fs::file_size(PathFromUtf8(file), failed);
    const bool isFile = kind == fs::file_type::regular;
    std::string trouble = isFile ? "it is too large" : "it is no file";
    if (isFile && (failed || size_bytes <= link::kSpoolLimit_bytes)) {
        platform::OsError error;
        const auto bytes = platform::ReadWholeFile(file, &error, link::kSpoolLimit_bytes);
        if (!bytes) return Fail(error.message);
        auto status = link::DecodeSpoolFile(*bytes);
        if (status) return Nothing(std::move(*status));
        trouble = status.error().message;
    }
    m_log.Warn(file + ": no final status can be read from it: " + trouble);
    GiveUp(attempt);
    return Nothing();
}

void Spool::GiveUp(const std::string& attempt) {
    if (m_folder.empty() || !link::IsSpoolAttempt(attempt)) return;
    std::error_code ignored;
    fs::rename(PathFromUtf8(File(attempt, link::kSpoolEnding)),
               PathFromUtf8(File(attempt, link::kSpoolBadEnding)), ignored);
}

void Spool::Remove(const std::string& attempt) {
    if (m_folder.empty() || !link::IsSpoolAttempt(attempt)) return;
    std::error_code ignored;
    for (const auto ending : {link::kSpoolEnding, link::kSpoolTemporaryEnding})
        fs::remove(PathFromUtf8(File(attempt, ending)), ignored);
}

std::vector<std::string> Spool::Attempts() const {
    std::set<std::string> attempts;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(PathFromUtf8(m_folder), none)) {
        const std::string ending = Utf8FromPath(entry.path().extension());
        if (ending == link::kSpoolEnding || ending == link::kSpoolTemporaryEnding)
            attempts.insert(Utf8FromPath(entry.path().stem()));
    }
    return {attempts.begin(), attempts.end()};
}

Removed RemoveOldSpool(const std::string& dataFolder, const Retention& kept) {
    Removed removed;
    if (kept.dumps_days == 0) return removed;
    const auto before = fs::file_time_type::clock::now() - std::chrono::hours(24) * kept.dumps_days;
    std::vector<fs::path> old;
    std::error_code failed;
    for (const auto& entry : fs::directory_iterator(PathFromUtf8(dataFolder) / kFolder, failed)) {
        std::error_code unknown;
        if (entry.path().extension() == link::kSpoolBadEnding && entry.last_write_time(unknown) < before &&
            !unknown)
            old.push_back(entry.path());
    }
    for (const auto& file : old) {
        const auto bytes = fs::file_size(file, failed);
        const auto size_bytes = failed ? 0 : bytes;
        if (!fs::remove(file, failed)) continue;
        ++removed.files;
        removed.bytes += size_bytes;
    }
    return removed;
}

}  // namespace rq::engine
