// Scopes that put things back: a folder of its own, an environment variable, the current directory.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace rq::kit {

// A new folder with a blank and Chinese characters in its name, removed with all it holds at the end.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& Path() const { return m_path; }
    // The path of `name` inside, or of the folder itself, as UTF-8.
    std::string Utf8(std::string_view name = {}) const;
    // Writes a file (its folders are made) and tells its path.
    std::filesystem::path Write(std::string_view name, std::string_view bytes) const;

  private:
    std::filesystem::path m_path;
};

// Sets (or with nothing: removes) an environment variable for a scope. No other thread may be running.
class ScopedEnvironment {
  public:
    ScopedEnvironment(const char* name, std::optional<std::string> value);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  private:
    std::string m_name;
    std::optional<std::string> m_before;
};

// Changes the current directory for a scope.
class ScopedDirectory {
  public:
    explicit ScopedDirectory(const std::filesystem::path& path);
    ~ScopedDirectory();
    ScopedDirectory(const ScopedDirectory&) = delete;
    ScopedDirectory& operator=(const ScopedDirectory&) = delete;

  private:
    std::filesystem::path m_before;
};

}  // namespace rq::kit
