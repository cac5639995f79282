#include "plugincheck/report.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace rq::plugincheck {
namespace {

const char* ResultName(CheckResult result) {
    switch (result) {
        case CheckResult::Passed:
            return "passed";
        case CheckResult::Failed:
            return "failed";
        case CheckResult::NotChecked:
            break;
    }
    return "not checked";
}

std::string Figure(const std::string& name, double value) {
    char text[96];
    std::snprintf(text, sizeof text, "%s %.10g", name.c_str(), value);
    return text;
}

std::string FindingText(Check check, const Finding& finding) {
    const CatalogueEntry& entry = EntryOf(check);
    std::string text = "FAILED " + std::string(entry.name) + ": " + std::string(entry.message) + "\n";
    text += "    seen:  " + finding.seen;
    if (finding.times > 1) text += " (" + std::to_string(finding.times) + " times; this is the first)";
    text +=
        "\n    asked: " + std::string(entry.asks) + " (contract, \"" + std::string(entry.heading) + "\")\n";
    return text;
}

// The check could not go on: what the plug-in wrote may tell why.
bool HasStopped(const Journal& journal) {
    for (const Check check : {Check::Load, Check::InitFailed, Check::AnalysisFailed, Check::TaskFailed,
                              Check::NoReturn, Check::Crash}) {
        if (journal.findings.count(check) > 0) return true;
    }
    return !journal.isFinished;
}

std::string LastLines(const std::string& text) {
    constexpr int kLines = 20;
    std::size_t begin = text.find_last_not_of('\n');
    for (int line = 0; line < kLines && begin != std::string::npos; ++line)
        begin = begin == 0 ? std::string::npos : text.rfind('\n', begin - 1);
    return begin == std::string::npos ? text : text.substr(begin + 1);
}

std::string Indented(const std::string& text) {
    std::string indented = "    ";
    for (const char c : text) {
        indented += c;
        if (c == '\n') indented += "    ";
    }
    return indented.substr(0, indented.find_last_not_of(" \n") + 1) + "\n";
}

}  // namespace

CheckResult Report::ResultOf(Check check) const {
    if (journal.findings.count(check) > 0) return CheckResult::Failed;
    return journal.exercised.count(check) > 0 ? CheckResult::Passed : CheckResult::NotChecked;
}

std::string ReportText(const Report& report) {
    const Journal& journal = report.journal;
    std::string text = "plug-in " + journal.plugin.name;
    if (!journal.plugin.version.empty()) text += " " + journal.plugin.version;
    text += ", " + report.options.library + "\nseed " + std::to_string(report.options.seed) + "\n";
    for (const auto& [check, finding] : journal.findings) text += FindingText(check, finding);
    if (HasStopped(journal) && !report.output.empty())
        text += "the process wrote at last:\n" + Indented(LastLines(report.output));
    for (const std::string& remark : journal.remarks) text += "remark: " + remark + "\n";
    std::string figures;
    for (const auto& [name, value] : journal.figures)
        figures += (figures.empty() ? "figures: " : ", ") + Figure(name, value);
    if (!figures.empty()) text += figures + "\n";
    std::string missing;
    std::size_t passed = 0;
    std::size_t left = 0;
    for (const CatalogueEntry& entry : Catalogue()) {
        const CheckResult result = report.ResultOf(entry.check);
        if (result == CheckResult::Passed) ++passed;
        if (result != CheckResult::NotChecked) continue;
        ++left;
        missing += (missing.empty() ? "not checked: " : ", ") + std::string(entry.name);
    }
    if (!missing.empty()) text += missing + "\n";
    return text + (report.HasPassed() ? "passed: " : "FAILED: ") + std::to_string(passed) + " passed, " +
           std::to_string(journal.findings.size()) + " failed, " + std::to_string(left) + " not checked\n";
}

std::string ReportJson(const Report& report) {
    using nlohmann::json;
    const Journal& journal = report.journal;
    json checks = json::array();
    for (const CatalogueEntry& entry : Catalogue()) {
        const CheckResult result = report.ResultOf(entry.check);
        json check = {{"name", entry.name}, {"result", ResultName(result)}};
        if (const auto finding = journal.findings.find(entry.check); finding != journal.findings.end()) {
            check["message"] = entry.message;
            check["seen"] = finding->second.seen;
            check["times"] = finding->second.times;
            check["asked"] = entry.asks;
            check["heading"] = entry.heading;
        }
        checks.push_back(std::move(check));
    }
    const json document = {{"library", report.options.library}, {"plugin", journal.plugin.name},
                           {"version", journal.plugin.version}, {"types", journal.plugin.types},
                           {"seed", report.options.seed},       {"passed", report.HasPassed()},
                           {"checks", std::move(checks)},       {"remarks", journal.remarks},
                           {"figures", journal.figures},        {"output", report.output}};
    return document.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace rq::plugincheck
