// The engine's data folder: one engine at a time, its token, and "engine.json", which tells clients where it
// listens. I/O thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/result.h"
#include "platform/files.h"

namespace rq::engine {

class DataFolder {
  public:
    // Makes the folder when it is missing, takes its lock, and reads or makes the token.
    static Result<std::unique_ptr<DataFolder>> Open(const std::string& path);
    // Withdraws, then lets the lock go.
    ~DataFolder();
    DataFolder(const DataFolder&) = delete;
    DataFolder& operator=(const DataFolder&) = delete;

    // 64 hexadecimal digits.
    const std::string& Token() const { return m_token; }
    std::string File(const std::string& name) const;
    Result<void> Announce(std::uint16_t linkPort, std::uint16_t httpPort, std::int64_t started_us);
    // Removes "engine.json", unless another engine has written one since.
    void Withdraw();
    // What has become of the folder while the engine runs: removed, or taken over by another engine after
    // that. Nothing when all is well; an "engine.json" that alone is missing is written again.
    std::optional<std::string> Trouble();

  private:
    explicit DataFolder(std::string path) : m_path(std::move(path)) {}
    Result<void> TakeLock();
    Result<void> TakeToken();

    const std::string m_path;
    std::unique_ptr<platform::FolderLock> m_lock;
    std::string m_token;
    std::string m_announcement;  // what we wrote to "engine.json"; empty when there is none of ours
};

}  // namespace rq::engine
