// Texts at the contract's boundary. A plug-in's texts are UTF-8 by contract; what is not becomes U+FFFD here,
// with one line (level 3) for each call that names the plug-in. Any thread.
#pragma once

#include <rqworker/text.h>

#include <functional>
#include <set>
#include <string>
#include <string_view>

#include "base/sync.h"
#include "base/text.h"

namespace rq {

// Writes one line to the worker's log. Called on whatever thread the plug-in or the runner is on.
using PluginLog = std::function<void(int level, std::string utf8)>;

// The bytes of a plug-in's text; {NULL, n} is taken as empty.
std::string_view PluginTextView(RQText text);

WideText WidenPluginText(RQText text, const std::string& pluginName, const PluginLog& log);
std::string RepairPluginText(RQText text, const std::string& pluginName, const PluginLog& log);

// Keeps texts of the worker's that were written into a task information record: they stay where they are
// until the keeper ends. Equal texts are kept once, so a fixed error text costs nothing however often it is
// written.
class TextKeeper {
  public:
    RQText Keep(std::string_view utf8) RQ_EXCLUDES(m_mutex);

  private:
    Mutex m_mutex;
    std::set<std::string, std::less<>> m_texts RQ_GUARDED_BY(m_mutex);
};

}  // namespace rq
