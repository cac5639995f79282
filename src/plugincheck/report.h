// What a check found, as people and as programs read it. Pure functions; any thread.
#pragma once

#include <string>

#include "plugincheck/journal.h"
#include "plugincheck/options.h"

namespace rq::plugincheck {

enum class CheckResult { Passed, Failed, NotChecked };

struct Report {
    CheckOptions options;
    Journal journal;
    std::string output;  // the end of what the checking process and the plug-in wrote

    bool HasPassed() const { return journal.findings.empty(); }
    CheckResult ResultOf(Check check) const;
};

// Several lines; ends with one that counts the checks.
std::string ReportText(const Report& report);
// One document, indented, with a line end.
std::string ReportJson(const Report& report);

}  // namespace rq::plugincheck
