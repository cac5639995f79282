// A complete plug-in to start from: counts the lines of a text file. Its task text, a line for each key:
//   file=/absolute/path      what to read
//   id=anything              optional: the task's ID
//   pause_ms=200             optional: rest so long after each MiB (at most 500)
#include <rqworker/plugin.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

using namespace rq::plugin;

constexpr std::int32_t kType = 50;        // the number under which RQWorkerConfig.xml names this plug-in
constexpr std::int32_t kBadTaskText = 1;  // codes of this plug-in's own
constexpr std::int32_t kCannotRead = 1001;
constexpr std::size_t kBlock_bytes = 1u << 20;  // the stop flag is read before each

// The value behind "key=", empty when there is none.
std::string Value(std::string_view text, std::string_view key) {
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.size() > key.size() && line.substr(0, key.size()) == key && line[key.size()] == '=')
            return std::string(line.substr(key.size() + 1));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return {};
}

// What Analyse leaves for Perform. The worker may still read it after Perform: the wrapper keeps it that
// long.
struct CountTask : TaskRecord {
    explicit CountTask(std::string_view text)
        : TaskRecord(kType, Value(text, "id")),
          file(Value(text, "file")),
          pause_ms(
              static_cast<std::uint32_t>(std::clamp(std::atoi(Value(text, "pause_ms").c_str()), 0, 500))) {}
    std::string file;  // UTF-8
    std::uint32_t pause_ms;
};

class LineCount final : public Plugin {
  public:
    LineCount() : Plugin({"linecount", "1.0.0", {kType}, RQ_ABILITY_PAUSE | RQ_ABILITY_FINISH}) {}

    Analysis Analyse(std::string_view text) override {
        auto task = std::make_unique<CountTask>(text);
        const bool isGood = std::filesystem::u8path(task->file).has_root_directory();
        return {isGood ? 0 : kBadTaskText, std::move(task), isGood ? "" : "file= must give an absolute path"};
    }

    Outcome Perform(TaskRecord& record, Run& run) override {
        const auto& task = static_cast<const CountTask&>(record);
        const auto path = std::filesystem::u8path(task.file);
        std::error_code problem;
        const auto total_bytes = static_cast<std::int64_t>(std::filesystem::file_size(path, problem));
        std::ifstream input(path, std::ios::binary);
        if (problem || !input) return Fail(record, "cannot open " + task.file + ": " + problem.message());

        std::string block(kBlock_bytes, '\0');
        std::int64_t done_bytes = 0;
        std::int64_t lines = 0;
        while (run.Stop() == RQ_STOP_NONE) {
            input.read(block.data(), static_cast<std::streamsize>(block.size()));
            if (input.gcount() == 0) break;
            lines += std::count(block.begin(), block.begin() + input.gcount(), '\n');
            done_bytes += input.gcount();
            run.Progress(total_bytes, std::min(done_bytes, total_bytes));  // holds a suspended task
            if (task.pause_ms != 0) Services().WaitForStop(task.pause_ms);
        }
        if (input.bad()) return Fail(record, "cannot read " + task.file);
        if (run.Stop() == RQ_STOP_CANCEL) return Outcome::kCancelled;
        record.SetFurtherText(std::to_string(lines) + " lines in " + std::to_string(done_bytes) + " bytes");
        return Outcome::kFinished;  // also when it was told to finish early: what is counted is counted
    }

  private:
    static Outcome Fail(TaskRecord& record, const std::string& why) {
        record.SetError(0, kCannotRead, why, why);
        return Outcome::kFailed;
    }
};

}  // namespace

RQ_PLUGIN(LineCount)
