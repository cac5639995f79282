// A folder in which tasks may delete ("allowed") and one in which they may not ("other"). For tests.
#pragma once

#include "plugin_common/plugin_driver.h"
#include "plugin_common/report.h"

namespace rq::del {

class DeleteTest : public task::PluginDriver {
  protected:
    DeleteTest() {
        std::filesystem::create_directory(At("allowed"));
        std::filesystem::create_directory(At("other"));
        Allow({PathOf("allowed")});
    }
    void Allow(const std::vector<std::string>& folders) const {
        std::string text = "<DeleteConfig>";
        for (const std::string& folder : folders) text += "<Folder>" + folder + "</Folder>";
        m_configDir.Write("RQWorkerDelete.xml", text + "</DeleteConfig>");
    }
    std::string Item(const std::string& name, bool recursive = false) const {
        return "<Item><Path>" + PathOf(name) + "</Path>" + (recursive ? "<Recursive>true</Recursive>" : "") +
               "</Item>";
    }
    static std::string Text(const std::string& items, bool dryRun = false) {
        return "<DeleteTask><ID>t1</ID>" + std::string(dryRun ? "<DryRun>true</DryRun>" : "") + "<Items>" +
               items + "</Items></DeleteTask>";
    }
    std::string Line(const std::string& word, const std::string& name) const {
        return word + " " + task::EscapedPath(Utf8FromPath(At(name).make_preferred()));
    }
};

}  // namespace rq::del
