#include "plugincheck/supervise.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <utility>

#include "base/paths.h"
#include "base/remove_tree.h"
#include "base/text.h"
#include "platform/files.h"
#include "platform/identity.h"
#include "platform/process.h"
#include "platform/process_facts.h"
#include "plughost/plugin_library.h"
#include "plugincheck/session.h"

namespace rq::plugincheck {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kOutputKept_bytes = 4000;
constexpr std::chrono::seconds kGrace(60);  // beyond all that the process bounds by itself

// A folder for one check, removed with all that the plug-in left in it.
class CheckFolder {
  public:
    CheckFolder() {
        std::error_code error;
        const fs::path top = fs::temp_directory_path(error);
        m_path = Utf8FromPath(top / ("rqplugin-check-" + platform::RandomHex(8)));
        m_isMade =
            !error && platform::CreatePrivateFolder(m_path) && platform::CreatePrivateFolder(In("temporary"));
    }
    ~CheckFolder() { RemoveTree(PathFromUtf8(m_path)); }
    CheckFolder(const CheckFolder&) = delete;
    CheckFolder& operator=(const CheckFolder&) = delete;

    bool IsMade() const { return m_isMade; }
    const std::string& Path() const { return m_path; }
    std::string In(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
    bool m_isMade = false;
};

platform::ProcessSpec SessionProcess(const std::string& program, const CheckFolder& folder) {
    platform::ProcessSpec spec;
    spec.program = program;
    spec.arguments = {kSessionArgument, folder.Path()};
    spec.environment = platform::MarkFreedMemory();
    // Temporary files of a process that crashes go with the folder.
    for (const char* name : {"TMPDIR", "TMP", "TEMP"})
        spec.environment.emplace_back(name, folder.In("temporary"));
    spec.output = spec.errors = platform::ProcessSpec::Stream::File;
    spec.outputFile = spec.errorsFile = folder.In("output");
    return spec;
}

std::string HowItEnded(const platform::ExitStatus& status) {
    char text[64];
    const auto code = static_cast<unsigned>(status.code);
    if (status.signalled)
        std::snprintf(text, sizeof text, code > 0xFFFF ? "exception code 0x%08X" : "signal %u", code);
    else
        std::snprintf(text, sizeof text, "exit code %u", code);
    return text;
}

// A process that ended by itself before it was through did so inside the plug-in.
void BlameTheEnd(const platform::ExitStatus& status, Journal& journal) {
    if (journal.isFinished && !status.signalled && status.code == 0) return;
    if (journal.findings.count(Check::NoReturn) > 0) return;
    const OpenStep* blamed = nullptr;
    std::string where;
    for (const auto& step : journal.steps) {
        if (!step) continue;
        where += (where.empty() ? " in " : ", beside ") + step->what;
        if (blamed == nullptr || step->blame != Check::Crash) blamed = &*step;
    }
    if (where.empty())
        where =
            journal.isFinished ? " at the end of the process, after RQWorkerRelease" : " between two calls";
    const Check check = blamed == nullptr ? Check::Crash : blamed->blame;
    journal.findings.emplace(check, Finding{HowItEnded(status) + where, 1});
    journal.exercised.insert(check);
}

std::string EndOf(const std::string& path) {
    std::string bytes = RepairUtf8(platform::ReadWholeFile(path).value_or(""));
    if (bytes.size() <= kOutputKept_bytes) return bytes;
    const std::size_t line = bytes.find('\n', bytes.size() - kOutputKept_bytes);
    return line == std::string::npos ? std::string() : "...\n" + bytes.substr(line + 1);
}

}  // namespace

Result<Report> RunCheck(const std::string& program, const CheckOptions& options) {
    const CheckFolder folder;
    platform::OsError error;
    if (!folder.IsMade()) return Fail(folder.Path() + ": the folder for the check could not be made");
    if (!platform::CreatePrivateFile(folder.In(kOptionsFile), ToJson(options), &error))
        return Fail(error.message);
    const auto process = platform::ChildProcess::Start(SessionProcess(program, folder), &error);
    if (process == nullptr) return Fail(error.message);
    const auto bound =
        std::chrono::seconds(options.time_s) + std::chrono::seconds(options.patience_s) * 2 + kGrace;
    const auto status = process->Wait(bound);
    process->KillTree();  // also what the plug-in may have started
    if (!status) process->WaitForever();

    Report report{options, ReadJournal(platform::ReadWholeFile(folder.In(kJournalFile)).value_or("")),
                  EndOf(folder.In("output"))};
    if (report.journal.plugin.name.empty())
        report.journal.plugin.name = PluginFileStem(WidenUtf8(options.library));
    if (!status)
        report.journal.findings.emplace(
            Check::NoReturn,
            Finding{"the checking process had not ended after " + std::to_string(bound.count()) + " s", 1});
    else
        BlameTheEnd(*status, report.journal);
    return report;
}

}  // namespace rq::plugincheck
