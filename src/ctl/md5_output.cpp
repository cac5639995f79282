#include "ctl/md5_output.h"

#include <nlohmann/json.hpp>

#include "base/paths.h"

namespace rq::ctl {

namespace {

using nlohmann::json;

// A path for one line, as md5sum writes it: one with a line end in it, or with a backslash where that parts
// no folders, has both escaped. True when it has.
bool EscapePath(const std::string& path, std::string& line) {
    const bool separates = PathSeparator() == L'\\';
    const bool escaped = path.find_first_of(separates ? "\n\r" : "\n\r\\") != std::string::npos;
    if (!escaped) line += path;
    for (const char c : escaped ? path : std::string()) {
        if (c == '\\')
            line += "\\\\";
        else if (c == '\n')
            line += "\\n";
        else if (c == '\r')
            line += "\\r";
        else
            line += c;
    }
    return escaped;
}

std::string Marked(const std::string& path, const std::string& before, const std::string& after) {
    std::string shown;
    const bool escaped = EscapePath(path, shown);
    return (escaped ? "\\" : "") + before + shown + after;
}

void AddComputation(const json& file, Md5Report& report) {
    const std::string path = file.value("first", "");
    const std::string sum = file.value("computed_md5", "");
    if (!sum.empty()) {
        report.text += Marked(path, sum + "  ", "\n");
        return;
    }
    const std::string why = file.value("second", "");
    report.problems.push_back(path + ": " + (why.empty() ? "no MD5 was computed" : why));
}

void AddVerification(const json& file, Md5Report& report) {
    const std::string path = file.value("first", "");
    const std::string verdict = file.value("verification", "");
    if (verdict == "equal") {
        report.text += Marked(path, "", ": OK\n");
    } else if (verdict == "different") {
        report.text += Marked(path, "", ": FAILED\n");
        const std::string found = file.value("second_md5", "");
        const std::string why = file.value("second", "");
        report.problems.push_back(path + ": " +
                                  (found.empty()
                                       ? (why.empty() ? "could not be read" : why)
                                       : "expected " + file.value("first_md5", "") + ", found " + found));
    } else {
        report.text += Marked(path, "", ": not compared\n");
    }
}

}  // namespace

Md5Report ReportMd5(const json& result) {
    Md5Report report;
    if (!result.is_object() || result.value("kind", "") != "md5" || !result.contains("files")) return report;
    for (const auto& file : result["files"]) {
        if (!file.is_object()) continue;
        if (file.value("mode", "") == "computation")
            AddComputation(file, report);
        else
            AddVerification(file, report);
    }
    return report;
}

}  // namespace rq::ctl
