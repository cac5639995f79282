#include "ctl/watch.h"

#include <cmath>
#include <cstdio>

#include "ctl/md5_output.h"
#include "ctl/output.h"
#include "ctl/progress_line.h"
#include "ctl/transcode_output.h"
#include "ctl/transfer_task.h"
#include "platform/console.h"

namespace rq::ctl {

namespace {

using nlohmann::json;

// How long a poll waits for an event; a bar is redrawn at least this often.
constexpr int kBarPoll_ms = 500;
constexpr int kQuietPoll_ms = 20'000;
constexpr int kPlainStep_percent = 10;

bool IsEnded(const std::string& state) {
    return state == "finished" || state == "failed" || state == "cancelled" || state == "lost";
}

// The one line, or the lines, on standard error.
class Display {
  public:
    Display(Follow follow, std::string id, std::uintmax_t work_bytes)
        : m_on(follow == Follow::WithProgress),
          m_bar(m_on && platform::IsTerminal(platform::StandardStream::Errors)),
          m_id(std::move(id)),
          m_work_MiB(static_cast<double>(work_bytes) / (1024.0 * 1024.0)) {}
    ~Display() { End(); }
    Display(const Display&) = delete;
    Display& operator=(const Display&) = delete;

    int Poll_ms() const { return m_on ? kBarPoll_ms : kQuietPoll_ms; }

    void Show(const json& task) {
        TellWhyItWaits(task);
        if (!m_on) return;
        ProgressView view;
        view.state = task.value("state", "");
        view.percent = task.value("percent", 0.0);
        view.speed = task.value("speed", 0.0);
        view.frameRate_fps = task.value("average_speed", 0.0);
        if (task.contains("type") && task["type"].is_number()) view.type = task["type"];
        if (view.state == "running") {
            const auto pace = m_pace.Update(view.percent, std::chrono::steady_clock::now());
            if (pace) view.left = TimeLeft(view.percent, *pace);
            if (pace && view.speed <= 0) view.speed = *pace / 100.0 * m_work_MiB;
            m_speed = view.speed;
            m_frameRate_fps = view.frameRate_fps;
        }
        if (view.state == "finished") {
            view.speed = m_speed;
            view.frameRate_fps = m_frameRate_fps;
            view.left = std::chrono::seconds(0);
        }
        if (m_bar)
            Draw(BarLine(view, platform::TerminalColumns()));
        else
            Print(view);
    }

    // Leaves the bar as it is and goes to the next line.
    void End() {
        if (!m_drawn.empty()) std::fputs("\n", stderr);
        m_drawn.clear();
    }

  private:
    // Once for each reason; nobody should sit before a task that cannot start without being told.
    void TellWhyItWaits(const json& task) {
        const json reason = task.value("reason", json());
        if (task.value("state", "") != "queued" || !reason.is_string() || reason == m_toldReason) return;
        m_toldReason = reason;
        End();
        std::fprintf(stderr, "rqctl: %s %s\n", m_id.c_str(), m_toldReason.c_str());
    }

    void Draw(const std::string& line) {
        const std::size_t before = m_drawn.size();
        const std::string rest(before > line.size() ? before - line.size() : 0, ' ');
        std::fprintf(stderr, "\r%s%s", line.c_str(), rest.c_str());
        std::fflush(stderr);
        m_drawn = line;
    }

    void Print(const ProgressView& view) {
        const int step = static_cast<int>(view.percent) / kPlainStep_percent;
        if (view.state == m_lastState && step == m_lastStep) return;
        m_lastState = view.state;
        m_lastStep = step;
        std::fprintf(stderr, "%s: %s\n", m_id.c_str(), PlainLine(view).c_str());
    }

    const bool m_on;
    const bool m_bar;
    const std::string m_id;
    const double m_work_MiB;
    Pace m_pace;
    double m_speed = 0;
    double m_frameRate_fps = 0;
    std::string m_drawn;
    std::string m_lastState;
    std::string m_toldReason;
    int m_lastStep = 0;
};

int Conclude(const json& task, const std::string& id) {
    const Md5Report report = ReportMd5(task.value("result", json()));
    Print(report.text + ReportTranscode(task.value("result", json())) +
          ReportTransfer(task.value("result", json())));
    for (const auto& problem : report.problems) std::fprintf(stderr, "rqctl: %s\n", problem.c_str());
    const std::string state = task.value("state", "");
    if (state == "finished") return report.problems.empty() ? kExitFinished : kExitFailed;
    const json reason = task.value("reason", json());
    std::fprintf(stderr, "rqctl: %s %s%s\n", id.c_str(), state.c_str(),
                 reason.is_string() ? (": " + reason.get<std::string>()).c_str() : "");
    return state == "cancelled" ? kExitCancelled : kExitFailed;
}

}  // namespace

Outcome<int> WatchTask(EngineAccess& engine, const std::string& id, Follow follow,
                       std::uintmax_t work_bytes) {
    const std::string path = "/api/v1/tasks/" + EncodeSegment(id);
    Display display(follow, id, work_bytes);
    std::int64_t last = 0;
    for (;;) {
        const auto answer = engine.Get(path + "/events?after=" + std::to_string(last) +
                                       "&wait_ms=" + std::to_string(display.Poll_ms()));
        if (!answer) return answer.error();
        last = answer->value("last", last);
        const json task = answer->value("task", json::object());
        display.Show(task);
        if (IsEnded(task.value("state", ""))) break;
    }
    display.End();
    const auto details = engine.Get(path);
    if (!details) return details.error();
    return Conclude(*details, id);
}

}  // namespace rq::ctl
