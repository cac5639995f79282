// Node: a stage copy with an engine of its own (free ports, own data and log folders) that a test talks to
// through rqctl. Everything is ended and removed with the object. One thread.
#pragma once

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "kit/child.h"
#include "kit/files.h"
#include "kit/reference_md5.h"
#include "kit/stage_copy.h"
#include "kit/temp_dir.h"

namespace rq::system_test {

// What a finished program left.
struct Outcome {
    int code = -1;  // as kit::Child::ExitCode
    std::string output;
    std::string errors;
};

class Node {
  public:
    // Copies the stage and starts the engine (unless told not to), which gives each task so many attempts.
    // Throws when it does not come up.
    explicit Node(bool startEngine = true, int attempts = 1);
    ~Node();
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    void StartEngine(int linkPort = 0);
    // Copies the library into a folder of its own in the stage; it alone serves `type` from then on.
    // Returns its folder.
    std::filesystem::path InstallPlugin(const std::filesystem::path& library, std::int32_t type) const;
    // Ends the engine in the orderly way; its exit code.
    int EndEngine();
    kit::Child& Engine() { return *m_engine; }

    std::filesystem::path Stage() const { return m_folder.Path() / "stage"; }
    std::filesystem::path Data() const { return m_folder.Path() / "data"; }
    const kit::TempDir& Folder() const { return m_folder; }
    int LinkPort() const;
    std::string Token() const;

    Outcome Ctl(std::vector<std::string> arguments) const;
    // `rqctl show ID --json`.
    nlohmann::json Show(const std::string& task) const;
    // Submits a raw task text; its ID. Empty, with a test failure, when it was refused.
    std::string SubmitText(const std::string& type, const std::string& text) const;
    std::string SubmitMd5(const std::filesystem::path& file) const;
    // Waits until the task is in one of the states; its record then. A test failure when it does not get
    // there.
    nlohmann::json WaitForState(const std::string& task, const std::vector<std::string>& states) const;
    nlohmann::json WaitForEnd(const std::string& task) const;
    // The worker's log of the only worker that this node has had; empty when there is none or more than one.
    std::string WorkerLog() const;

  private:
    const int m_attempts;
    kit::TempDir m_folder;
    std::unique_ptr<kit::Child> m_engine;
};

// A file of `size` bytes; sparse, with a few bytes at its start.
std::filesystem::path MakeSparse(const std::filesystem::path& path, std::uintmax_t size);

}  // namespace rq::system_test
