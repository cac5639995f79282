// Child: a program that a test runs. Standard input is null; output and errors go to files and are read as
// bytes. The child and all it started are ended with the object. One thread.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kit/files.h"
#include "kit/temp_dir.h"
#include "platform/process.h"

namespace rq::kit {

class Child {
  public:
    struct Options {
        std::vector<std::pair<std::string, std::string>> environment;
        std::filesystem::path directory;  // empty: the test's own
    };

    // Throws std::runtime_error when the program cannot be started.
    Child(const std::filesystem::path& program, const std::vector<std::string>& arguments);
    Child(const std::filesystem::path& program, const std::vector<std::string>& arguments,
          const Options& options);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    std::uint64_t Id() const { return m_process->Id(); }
    // Nothing when it has not ended in time.
    std::optional<platform::ExitStatus> Wait(std::chrono::milliseconds bound = kPatience);
    // Its exit code; -1 when it has not ended in time, 1000 + the number when a signal ended it.
    int ExitCode(std::chrono::milliseconds bound = kPatience);
    bool IsRunning();
    void Kill() { m_process->KillTree(); }
    void RequestEnd() { m_process->RequestEnd(); }

    std::filesystem::path OutputFile() const { return m_folder.Path() / "out"; }
    std::filesystem::path ErrorsFile() const { return m_folder.Path() / "err"; }
    // With line ends as "\n".
    std::string Output() const { return ReadText(OutputFile()); }
    std::string Errors() const { return ReadText(ErrorsFile()); }

  private:
    TempDir m_folder;
    std::unique_ptr<platform::ChildProcess> m_process;
};

}  // namespace rq::kit
