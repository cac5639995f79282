#include "plughost/plugin_text.h"

namespace rq {
namespace {

void LogReplaced(const std::string& pluginName, const PluginLog& log) {
    if (log) log(3, "plug-in " + pluginName + ": a text is not UTF-8; what is wrong in it became U+FFFD");
}

}  // namespace

std::string_view PluginTextView(RQText text) {
    return text.p == nullptr ? std::string_view() : std::string_view(text.p, text.n);
}

WideText WidenPluginText(RQText text, const std::string& pluginName, const PluginLog& log) {
    bool isReplaced = false;
    WideText wide = WidenUtf8(PluginTextView(text), &isReplaced);
    if (isReplaced) LogReplaced(pluginName, log);
    return wide;
}

std::string RepairPluginText(RQText text, const std::string& pluginName, const PluginLog& log) {
    bool isReplaced = false;
    std::string repaired = RepairUtf8(PluginTextView(text), &isReplaced);
    if (isReplaced) LogReplaced(pluginName, log);
    return repaired;
}

RQText TextKeeper::Keep(std::string_view utf8) {
    MutexLock lock(m_mutex);
    auto found = m_texts.find(utf8);
    if (found == m_texts.end()) found = m_texts.emplace(utf8).first;
    return {found->data(), found->size()};
}

}  // namespace rq
