#include "engine/data_folder.h"

#include <filesystem>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/paths.h"
#include "engine/json.h"
#include "engine/version.h"
#include "platform/identity.h"
#include "platform/private_check.h"
#include "platform/process.h"

namespace rq::engine {

namespace {

constexpr std::size_t kTokenBytes = 32;
constexpr std::uint64_t kTokenFileLimit_bytes = 4096;

bool IsToken(const std::string& text) {
    return text.size() == 2 * kTokenBytes && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string WithoutLineEnd(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

}  // namespace

std::string DataFolder::File(const std::string& name) const {
    return Utf8FromPath(PathFromUtf8(m_path) / name);
}

Result<std::unique_ptr<DataFolder>> DataFolder::Open(const std::string& path) {
    platform::OsError error;
    if (!platform::CreatePrivateFolder(path, &error))
        return Fail("the data folder cannot be made: " + error.message);
    if (const auto trouble = platform::FolderPrivacyTrouble(path))
        return Fail("the data folder " + *trouble + ", or name another with --data");
    std::unique_ptr<DataFolder> folder(new DataFolder(path));
    if (auto locked = folder->TakeLock(); !locked) return locked.error();
    if (auto taken = folder->TakeToken(); !taken) return taken.error();
    return folder;
}

Result<void> DataFolder::TakeLock() {
    platform::OsError error;
    m_lock.reset(platform::TryLockFile(File("engine.lock"), &error));
    if (m_lock) return {};
    return Fail(m_path + ": another engine uses this data folder (" + error.message +
                "); end it with \"rqctl shutdown\", or give another folder with --data");
}

Result<void> DataFolder::TakeToken() {
    const std::string file = File("engine.token");
    platform::OsError error;
    std::error_code unknown;
    const auto status = std::filesystem::symlink_status(PathFromUtf8(file), unknown);
    if (status.type() != std::filesystem::file_type::not_found) {
        if (const auto trouble = platform::FilePrivacyTrouble(file))
            return Fail("the token is no secret: " + *trouble + "; without the file a new token is made");
    }
    if (const auto text = platform::ReadWholeFile(file, &error, kTokenFileLimit_bytes)) {
        m_token = WithoutLineEnd(*text);
        if (IsToken(m_token)) return {};
        return Fail(file + ": not a token (64 hexadecimal digits); remove the file, and a new one is made");
    }
    m_token = platform::RandomHex(kTokenBytes);
    if (!platform::CreatePrivateFile(file, m_token + "\n", &error))
        return Fail("the token cannot be written or read: " + error.message);
    return {};
}

Result<void> DataFolder::Announce(std::uint16_t linkPort, std::uint16_t httpPort, std::int64_t started_us) {
    const nlohmann::json facts = {{"pid", platform::CurrentProcessId()},
                                  {"link_port", linkPort},
                                  {"http_port", httpPort},
                                  {"started", TimeText(started_us)},
                                  {"version", kVersion}};
    platform::OsError error;
    const std::string text = Dump(facts) + "\n";
    if (!platform::ReplaceWholeFile(File("engine.json"), text, true, &error))
        return Fail("engine.json cannot be written: " + error.message);
    m_announcement = text;
    return {};
}

DataFolder::~DataFolder() {
    Withdraw();
}

void DataFolder::Withdraw() {
    const std::string ours = std::exchange(m_announcement, {});
    if (ours.empty() || platform::ReadWholeFile(File("engine.json")) != ours) return;
    std::error_code ignored;
    std::filesystem::remove(PathFromUtf8(File("engine.json")), ignored);
}

std::optional<std::string> DataFolder::Trouble() {
    const auto isThere = [this](const char* name) {
        std::error_code unknown;
        // What cannot be told for want of a right or a network is no reason to end.
        return std::filesystem::exists(PathFromUtf8(File(name)), unknown) || unknown;
    };
    if (!isThere("store.db"))
        return "the data folder " + m_path + " was removed or emptied while the engine runs on it";
    const auto announced = platform::ReadWholeFile(File("engine.json"));
    if (announced && *announced != m_announcement)
        return "another engine has taken over the data folder " + m_path + ", whose lock was removed";
    if (!announced && !isThere("engine.json") && !m_announcement.empty())
        platform::ReplaceWholeFile(File("engine.json"), m_announcement, true);
    return std::nullopt;
}

}  // namespace rq::engine
