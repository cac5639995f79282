#include "av_log.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string_view>

#include "av.h"

namespace rq::transcode {
namespace {

constexpr std::size_t kMaxLine_bytes = 4096;

struct LogState {
    std::mutex mutex;  // guards what follows
    const plugin::Host* host = nullptr;
    std::string firstError;
    int lines = 0;
    int untold = 0;
};

// Never destroyed: a codec's thread may log while the process ends.
LogState& State() {
    static LogState* const state = new LogState;
    return *state;
}

void Take(int level, const std::string& line) {
    LogState& state = State();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (state.host == nullptr) return;
    if (level <= AV_LOG_ERROR && state.firstError.empty()) state.firstError = line;
    if (state.lines >= kMaxLines) {
        ++state.untold;
        return;
    }
    ++state.lines;
    state.host->Log(plugin::Level::kWarning, "transcode: FFmpeg: " + line);
}

// "mov: " when the one who logs has a name.
std::string Speaker(void* object) {
    const AVClass* kind = object == nullptr ? nullptr : *static_cast<AVClass**>(object);
    if (kind == nullptr) return {};
    const char* name = kind->item_name(object);
    return name == nullptr || std::string_view(name) == "NULL" ? "" : std::string(name) + ": ";
}

void OnLine(void* object, int level, const char* format, va_list arguments) {
    if (level > AV_LOG_WARNING) return;
    char text[1024];
    va_list copy;
    va_copy(copy, arguments);
    const int n = std::vsnprintf(text, sizeof text, format, copy);
    va_end(copy);
    if (n <= 0) return;
    // A line may come in pieces; its end is a line feed.
    thread_local std::string speaker;
    thread_local std::string line;
    if (line.empty()) speaker = Speaker(object);
    line += text;
    if (line.back() != '\n' && line.size() < kMaxLine_bytes) return;
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) line.pop_back();
    if (!line.empty()) Take(level, speaker + line);
    line.clear();
}

}  // namespace

AvLog::AvLog(const plugin::Host& host) {
    LogState& state = State();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.host = &host;
    state.firstError.clear();
    state.lines = 0;
    state.untold = 0;
    av_log_set_callback(&OnLine);
}

AvLog::~AvLog() {
    LogState& state = State();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (state.untold > 0)
        state.host->Log(plugin::Level::kWarning,
                        "transcode: FFmpeg: " + std::to_string(state.untold) + " more lines are left out");
    state.host = nullptr;
}

std::string AvLog::TakeError() {
    LogState& state = State();
    const std::lock_guard<std::mutex> lock(state.mutex);
    std::string line;
    line.swap(state.firstError);
    return line;
}

std::string AvWords(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

std::string AvWordsWithLog(int code) {
    const std::string line = AvLog::TakeError();
    return AvWords(code) + (line.empty() ? "" : " (" + line + ")");
}

}  // namespace rq::transcode
