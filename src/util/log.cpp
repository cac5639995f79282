// OVLInitWriteLog, OVLWriteLog and what goes with them, over LogRegistry.
#include <algorithm>

#include "base/text.h"
#include "log/log_text.h"
#include "util/capture_hub.h"
#include "util/log_capture.h"
#include "util/log_crash.h"
#include "util/log_registry.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {
namespace {

void WriteReadable(spdlog::logger& logger, const std::string& tag, std::int32_t level, std::string_view text,
                   const std::string& module) {
    // Levels 1 to 5 are the library's debug to critical, with the same numbers.
    const auto severity = static_cast<spdlog::level::level_enum>(std::clamp(level, 1, 5));
    const spdlog::source_loc place{module.c_str(), 1, tag.c_str()};
    logger.log(place, severity, spdlog::string_view_t(text.data(), text.size()));
}

void WriteLine(const std::string& tag, std::int32_t level, const std::string& text,
               const std::string& module) {
    if (LogHub().IsHeard()) LogHub().Tell(LogLine{tag, level, text, module});
    spdlog::logger* logger = LogRegistry::Instance().Find(tag);
    if (logger == nullptr) return;
    if (IsPlainLogText(text) && IsPlainLogText(module) && IsPlainLogText(tag)) {
        WriteReadable(*logger, tag, level, text, module);
    } else {
        WriteReadable(*logger, MakeLogText(tag), level, MakeLogText(text), MakeLogText(module));
    }
}

// A log call reports nothing and throws nothing, also when there is no memory for its line.
template <class Function>
void Quietly(Function function) noexcept {
    try {
        function();
    } catch (...) {
    }
}

}  // namespace

void Log(int level, std::string text, std::string module) {
    KWOVL_UTILITY::OVLWriteLog(LogChannelTag, level, std::move(text), std::move(module));
}

void CrashFlushLog() noexcept {
    LogRegistry::Instance().CrashFlush();
}

void CrashLogLine(std::string_view text, std::uint32_t thread) noexcept {
    LogRegistry::Instance().CrashLine(text, thread);
}

}  // namespace rq

namespace KWOVL_UTILITY {

void OVLInitWriteLog(std::string tag, std::wstring path, bool /*flag*/) {
    rq::Quietly([&] { rq::LogRegistry::Instance().Register(tag, rq::NarrowUtf8(path)); });
}

void OVLWriteLog(std::string tag, std::int32_t level, std::string text, std::string module) {
    rq::Quietly([&] { rq::WriteLine(tag, level, text, module); });
}

void OVLWriteLog(std::string tag, std::int32_t level, std::wstring text, std::wstring module) {
    rq::Quietly([&] { rq::WriteLine(tag, level, rq::NarrowUtf8(text), rq::NarrowUtf8(module)); });
}

// An empty tag is never registered, so that the line goes to the first registered file.
void OVLWriteLog(std::int32_t level, std::string text, std::string module) {
    rq::Quietly([&] { rq::WriteLine(std::string(), level, text, module); });
}

void OVLFlushLog() {
    rq::Quietly([] { rq::LogRegistry::Instance().Flush(); });
}

}  // namespace KWOVL_UTILITY
