// What a plug-in must know of its node beside the task text: the folder of configuration files, the folder of
// reports, and small files read whole. Paths in UTF-8; codes are the system's own, 0 is success. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace rq::task {

// The variable's value in UTF-8; one that is empty counts as one that is not there.
std::optional<std::string> EnvironmentText(const char* name);

// The processor cores that the submission of the task declares, as the engine says (RQ_TASK_CORES); 1 when it
// declares none.
int TaskCores();

// RQ_CONFIG_DIR, else the folder of the running program. Relative when the variable is: the caller refuses
// that, since the worker's current folder is its plug-in's.
std::string ConfigFolder();

// Where reports and journals go: RQ_REPORT_DIR, else "reports" below RQ_LOG_DIR, else "reports" below the
// data folder of the user that runs the process.
std::string ReportFolder();

// "folder/name", with one separator of the platform's.
std::string PathIn(const std::string& folder, const std::string& name);

// At most `most_bytes` of a plain file; a longer one is not read (code 0 and an empty text, with
// `isTooLong`).
std::uint32_t ReadSmallFile(const std::string& path, std::size_t most_bytes, std::string& text,
                            bool& isTooLong);
// Whether nothing is there under this name (a link that leads nowhere is something).
bool IsAbsent(const std::string& path);

// The folder and those above it that are missing.
std::uint32_t MakeFolders(const std::string& path);

// A new file that only grows. One thread at a time.
class AppendFile {
  public:
    AppendFile() = default;
    ~AppendFile() { Close(); }
    AppendFile(const AppendFile&) = delete;
    AppendFile& operator=(const AppendFile&) = delete;

    // Fails when there is a file of that name already.
    std::uint32_t Create(const std::string& path);
    std::uint32_t Append(const std::string& bytes);
    // Until what was appended is on the disk.
    std::uint32_t Sync();
    void Close();
    bool IsOpen() const { return m_handle != -1; }

  private:
    std::intptr_t m_handle = -1;
};

// 16 hexadecimal digits that nobody else draws; empty when the system has none.
std::string RandomDigits();

}  // namespace rq::task
