#include "ctl/progress_line.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "records/engine_messages.h"

namespace rq::ctl {

namespace {

constexpr unsigned kWidestBar = 30;
constexpr unsigned kNarrowestBar = 10;

std::string OneDigit(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

// Never "100.0" before the end.
std::string PercentText(double percent) {
    const double shown = std::clamp(percent, 0.0, 100.0);
    std::string text = OneDigit(shown < 100.0 ? std::min(shown, 99.9) : shown);
    return std::string(5 - std::min<std::size_t>(5, text.size()), ' ') + text + " %";
}

const char* UnitOf(std::int32_t type) {
    switch (type) {
        case RQ_TASK_TRANSCODE:
        case RQ_TASK_REALTIME_MERGE:
            return "x";
        case RQ_TASK_REVIEW:
            return " /s";
        case RQ_TASK_FRAMES:
        case 20:
        case RQ_TASK_PACKAGE_PARAMETER_FILE:
            return " /ms";
        default:
            return " MiB/s";
    }
}

std::string Bar(double percent, unsigned width) {
    const auto full = static_cast<unsigned>(std::clamp(percent, 0.0, 100.0) / 100.0 * width);
    return "[" + std::string(full, '#') + std::string(width - full, ' ') + "]";
}

}  // namespace

std::string DurationText(std::chrono::seconds duration) {
    const auto total = std::max<std::chrono::seconds::rep>(0, duration.count());
    char text[64];
    if (total >= 3600)
        std::snprintf(text, sizeof text, "%lld:%02d:%02d", static_cast<long long>(total / 3600),
                      static_cast<int>(total / 60 % 60), static_cast<int>(total % 60));
    else
        std::snprintf(text, sizeof text, "%d:%02d", static_cast<int>(total / 60),
                      static_cast<int>(total % 60));
    return text;
}

std::string SpeedText(double speed, std::int32_t type) {
    if (!std::isfinite(speed) || speed <= 0) return {};
    return OneDigit(speed) + UnitOf(type);
}

std::string FrameRateText(double frameRate_fps, std::int32_t type) {
    if (type != RQ_TASK_TRANSCODE && type != RQ_TASK_REALTIME_MERGE) return {};
    if (!std::isfinite(frameRate_fps) || frameRate_fps <= 0) return {};
    return OneDigit(frameRate_fps) + " fps";
}

std::string BarLine(const ProgressView& view, unsigned columns) {
    std::string right = " " + PercentText(view.percent);
    const std::string frames = FrameRateText(view.frameRate_fps, view.type);
    const std::string speed = SpeedText(view.speed, view.type);
    std::string more;
    if (view.state != "running" && view.state != "finished") {
        more = "   " + view.state;
    } else {
        if (!frames.empty()) more += "   " + frames;
        if (!speed.empty()) more += "   " + speed;
        if (view.left) more += "   " + DurationText(*view.left) + " left";
    }
    const unsigned most = columns > 1 ? columns - 1 : 1;
    const auto room = [&](const std::string& text) {
        return most > text.size() + 2 ? static_cast<unsigned>(most - text.size() - 2) : 0u;
    };
    if (room(right + more) >= kNarrowestBar) right += more;
    const unsigned width = std::min(kWidestBar, room(right));
    const std::string line = width >= 1 ? Bar(view.percent, width) + right : right;
    return line.substr(0, most);
}

std::string PlainLine(const ProgressView& view) {
    std::string line = view.state;
    if (view.state != "running" && view.state != "paused") return line;
    std::string percent = PercentText(view.percent);
    percent.erase(0, percent.find_first_not_of(' '));
    line += ", " + percent;
    const std::string frames = FrameRateText(view.frameRate_fps, view.type);
    if (!frames.empty()) line += ", " + frames;
    const std::string speed = SpeedText(view.speed, view.type);
    if (!speed.empty()) line += ", " + speed;
    if (view.left) line += ", " + DurationText(*view.left) + " left";
    return line;
}

std::optional<std::chrono::seconds> TimeLeft(double percent, double percentPerSecond) {
    const double left_s = (100.0 - percent) / percentPerSecond;
    if (!(left_s >= 0 && left_s < 1e8)) return std::nullopt;
    return std::chrono::seconds(std::llround(left_s));
}

std::optional<double> Pace::Update(double percent, Time now) {
    // One that goes back begins anew.
    if (!m_since || percent < m_latest) {
        m_since = m_changed = now;
        m_first = m_latest = percent;
    }
    if (percent > m_latest) {
        m_latest = percent;
        m_changed = now;
    }
    const std::chrono::duration<double> passed = m_changed - *m_since;
    if (passed.count() < 1.0) return std::nullopt;
    return (m_latest - m_first) / passed.count();
}

}  // namespace rq::ctl
