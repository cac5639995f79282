#include "ctl/watch_table.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>

#include "ctl/display_width.h"
#include "ctl/output.h"
#include "ctl/progress_line.h"
#include "platform/console.h"

namespace rq::ctl {

namespace {

using nlohmann::json;

constexpr std::chrono::seconds kInterval(1);
constexpr std::size_t kMostRows = 20;
constexpr const char* kActive = "queued,starting,running,paused,finishing";
// Behind every event there is: the answer has the task alone.
constexpr const char* kNoEvents = "/events?after=9007199254740992";

std::string TextOf(const json& task, const char* name) {
    const auto found = task.find(name);
    if (found == task.end() || found->is_null()) return {};
    return found->is_string() ? found->get<std::string>()
                              : found->dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string Harmless(std::string text) {
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
    }
    return text;
}

bool IsEnded(const json& task) {
    const std::string state = task.value("state", "");
    return state == "finished" || state == "failed" || state == "cancelled" || state == "lost";
}

ProgressView ViewOf(const json& task) {
    ProgressView view;
    view.state = task.value("state", "");
    view.percent = task.value("percent", 0.0);
    view.speed = task.value("speed", 0.0);
    view.frameRate_fps = task.value("average_speed", 0.0);
    if (task.contains("type") && task["type"].is_number()) view.type = task["type"];
    return view;
}

// What stands first: what runs, then what waits, then what has ended.
int RankOf(const json& task) {
    if (IsEnded(task)) return 2;
    return task.value("state", "") == "queued" ? 1 : 0;
}

struct Round {
    std::vector<json> tasks;
    bool allEnded = false;
};

class Watcher {
  public:
    Watcher(EngineAccess& engine, std::vector<std::string> ids) : m_engine(engine), m_ids(std::move(ids)) {}

    Outcome<Round> Look() {
        Round round;
        std::vector<std::string> ids = m_ids;
        if (m_ids.empty()) {
            const auto answer = m_engine.Get(std::string("/api/v1/tasks?limit=1000&state=") + kActive);
            if (!answer) return answer.error();
            // Oldest first, as their turns mostly come.
            auto tasks = answer->value("tasks", json::array());
            std::reverse(tasks.begin(), tasks.end());
            std::vector<std::string> now;
            for (const auto& task : tasks) {
                now.push_back(task.value("id", ""));
                round.tasks.push_back(task);
            }
            // Who was there and is not any more has ended: it is shown once more.
            for (const auto& id : std::exchange(m_before, now)) {
                if (std::find(now.begin(), now.end(), id) == now.end()) ids.push_back(id);
            }
        }
        round.allEnded = !m_ids.empty();
        for (const auto& id : ids) {
            const auto ended = m_ended.find(id);
            auto task = ended != m_ended.end() ? Outcome<json>(ended->second) : TaskOf(id);
            if (!task && m_ids.empty()) continue;  // deleted meanwhile
            if (!task) return task.error();
            if (!m_ids.empty() && IsEnded(*task)) m_ended[id] = *task;
            round.allEnded = round.allEnded && IsEnded(*task);
            round.tasks.push_back(std::move(*task));
        }
        std::stable_sort(round.tasks.begin(), round.tasks.end(),
                         [](const json& a, const json& b) { return RankOf(a) < RankOf(b); });
        return round;
    }

  private:
    Outcome<json> TaskOf(const std::string& id) {
        auto answer = m_engine.Get("/api/v1/tasks/" + EncodeSegment(id) + kNoEvents);
        if (!answer) return answer.error();
        return answer->value("task", json::object());
    }

    EngineAccess& m_engine;
    const std::vector<std::string> m_ids;
    std::vector<std::string> m_before;
    std::map<std::string, json> m_ended;
};

int Conclusion(const std::vector<json>& tasks) {
    int code = kExitFinished;
    for (const auto& task : tasks) {
        const std::string state = task.value("state", "");
        if (state == "failed" || state == "lost") return kExitFailed;
        if (state == "cancelled") code = kExitCancelled;
    }
    return code;
}

}  // namespace

std::vector<std::string> WatchLines(const std::vector<json>& tasks, unsigned columns, std::size_t most) {
    const unsigned width = columns > 1 ? columns - 1 : 1;
    std::vector<std::vector<std::string>> rows = {
        {"ID", "STATE", "TYPE", "PRIO", "PERCENT", "SPEED", "NAME"}};
    const std::size_t shown = std::min(most, tasks.size());
    for (std::size_t i = 0; i < shown; ++i) {
        const json& task = tasks[i];
        const ProgressView view = ViewOf(task);
        char percent[32];
        std::snprintf(percent, sizeof percent, "%.1f", view.percent);
        const std::string code = TextOf(task, "type_code");
        const std::string reason = TextOf(task, "reason");
        rows.push_back({TextOf(task, "id"), view.state, code.empty() ? TextOf(task, "type") : code,
                        TextOf(task, "priority"), percent,
                        view.state == "running" ? SpeedText(view.speed, view.type) : "",
                        Harmless(TextOf(task, "name") + (reason.empty() ? "" : "  (" + reason + ")"))});
    }
    std::vector<unsigned> widths(rows[0].size(), 0);
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], DisplayWidth(row[i]));
    }
    std::vector<std::string> lines;
    const auto add = [&](std::string line) {
        line = FitColumns(line, width);
        line.erase(line.find_last_not_of(' ') + 1);
        lines.push_back(std::move(line));
    };
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) line += FitColumns(row[i], widths[i]) + "  ";
        add(std::move(line));
    }
    if (tasks.size() > shown) add("and " + std::to_string(tasks.size() - shown) + " more");
    if (tasks.empty()) add("no task waits or runs");
    return lines;
}

std::string Redraw(std::size_t before, const std::vector<std::string>& lines) {
    std::string text;
    if (before > 0) text = "\x1b[" + std::to_string(before) + "A";
    for (const auto& line : lines) text += "\r" + line + "\x1b[K\n";
    // What is left of a longer table.
    return text + "\x1b[J";
}

std::string ChangeLine(const json& task) {
    const std::string reason = TextOf(task, "reason");
    return TextOf(task, "id") + ": " + PlainLine(ViewOf(task)) +
           (reason.empty() ? "" : ", " + Harmless(reason));
}

std::string ChangeKey(const json& task) {
    return TextOf(task, "state") + " " + std::to_string(static_cast<int>(task.value("percent", 0.0)) / 10) +
           " " + TextOf(task, "reason");
}

Outcome<int> WatchTasks(EngineAccess& engine, const std::vector<std::string>& ids, bool asJson) {
    const bool isTable = !asJson && platform::IsTerminal(platform::StandardStream::Output);
    Watcher watcher(engine, ids);
    std::map<std::string, std::string> told;
    std::size_t drawn = 0;
    for (;;) {
        const auto round = watcher.Look();
        if (!round) return round.error();
        if (isTable) {
            const auto lines = WatchLines(round->tasks, platform::TerminalColumns(), kMostRows);
            Print(Redraw(drawn, lines));
            drawn = lines.size();
        } else {
            for (const auto& task : round->tasks) {
                std::string& last = told[task.value("id", "")];
                const std::string key = ChangeKey(task);
                if (last == key) continue;
                last = key;
                Print(
                    (asJson ? task.dump(-1, ' ', false, json::error_handler_t::replace) : ChangeLine(task)) +
                    "\n");
            }
        }
        if (round->allEnded) return Conclusion(round->tasks);
        if (IsOutputLost()) return kExitFailed;
        std::this_thread::sleep_for(kInterval);
    }
}

}  // namespace rq::ctl
