#include "engine/stage_check.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "base/paths.h"
#include "platform/files.h"
#include "records/task_codes.h"

namespace rq::engine {

namespace fs = std::filesystem;

namespace {

constexpr const char* kTableFile = "RQWorkerConfig.xml";
bool IsWindows() {
    return PathSeparator() == L'\\';
}

std::string TypeText(std::int32_t type) {
    const auto code = CodeOfTaskType(type);
    return "type " + (code.empty() ? std::to_string(type) : std::string(code));
}

bool IsFile(const fs::path& path) {
    std::error_code ignored;
    return fs::is_regular_file(path, ignored);
}

bool CanBeRead(const fs::path& path) {
    std::FILE* file = platform::OpenFile(Utf8FromPath(path), "rb");
    if (file == nullptr) return false;
    std::fclose(file);
    return true;
}

// As the worker does it: the PATH of the table behind the folder, with the backslashes of a table from
// Windows.
fs::path PluginPath(const std::string& folder, const WideText& tablePath) {
    WideText path = tablePath;
    if (!IsWindows()) std::replace(path.begin(), path.end(), L'\\', L'/');
    return PathFromUtf8(folder + NarrowUtf8(WideText(1, PathSeparator()) + path));
}

}  // namespace

std::string StageCheck::File(const std::string& name) const {
    return Utf8FromPath(PathFromUtf8(m_folder) / PathFromUtf8(name));
}

std::optional<std::string> StageCheck::ProgramProblem() const {
    const std::string program = File(RQ_WORKER_FILE_NAME);
    const fs::path path = PathFromUtf8(program);
    if (!IsFile(path)) return "the worker program " + program + " is missing";
    std::error_code unknown;
    const auto rights = fs::status(path, unknown).permissions();
    constexpr auto kExecute = fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec;
    if (!IsWindows() && !unknown && (rights & kExecute) == fs::perms::none)
        return "the worker program " + program + " may not be executed";
    return std::nullopt;
}

std::optional<std::string> StageCheck::TableProblem(const TypeTableReading& table) const {
    if (table.state == TypeTableReading::State::Read) return std::nullopt;
    const std::string file = File(kTableFile);
    if (!IsFile(PathFromUtf8(file))) return "the type table " + file + " is missing";
    return "the type table " + file + " cannot be used" +
           (table.problem.empty() ? ": it has no element" : ": " + table.problem);
}

std::optional<std::string> StageCheck::PluginProblem(const WorkerTypeEntry& entry) const {
    if (entry.path.empty())
        return "the type table " + File(kTableFile) + " names no PATH for " + TypeText(entry.type);
    fs::path path = PluginPath(m_folder, entry.path);
    // Windows adds the ending itself when the name has none.
    if (IsWindows() && !path.has_extension()) path += ".dll";
    if (!IsFile(path))
        return "the plug-in of " + TypeText(entry.type) + ", " + Utf8FromPath(path) + ", is missing";
    if (!CanBeRead(path))
        return "the plug-in of " + TypeText(entry.type) + ", " + Utf8FromPath(path) + ", cannot be read";
    return std::nullopt;
}

std::optional<std::string> StageCheck::Problem(std::int32_t type) const {
    if (auto problem = ProgramProblem()) return problem;
    const auto table = ReadTypeTable(File(kTableFile));
    if (auto problem = TableProblem(table)) return problem;
    const auto found = table.entries.find(type);
    if (found == table.entries.end())
        return "the type table " + File(kTableFile) + " has no WORKER for " + TypeText(type);
    return PluginProblem(found->second);
}

std::vector<std::string> StageCheck::Problems() const {
    std::vector<std::string> problems;
    const auto take = [&](std::optional<std::string> problem) {
        if (problem) problems.push_back(std::move(*problem));
    };
    take(ProgramProblem());
    const auto table = ReadTypeTable(File(kTableFile));
    take(TableProblem(table));
    for (const auto& [type, entry] : table.entries) take(PluginProblem(entry));
    return problems;
}

}  // namespace rq::engine
