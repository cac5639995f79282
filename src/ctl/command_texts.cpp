// How lists and single tasks look.
#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "ctl/commands.h"

namespace rq::ctl {

namespace {

using nlohmann::json;

std::string Field(const json& object, const char* name) {
    const auto found = object.find(name);
    if (found == object.end() || found->is_null()) return "-";
    return found->is_string() ? found->get<std::string>()
                              : found->dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string Percent(const json& task) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", task.value("percent", 0.0));
    return text;
}

// "2025-01-31T10:00:00.123456Z" without its fraction.
std::string Time(const json& object, const char* name) {
    const std::string text = Field(object, name);
    return text.size() > 20 ? text.substr(0, 10) + " " + text.substr(11, 8) + "Z" : text;
}

std::string Type(const json& task) {
    const std::string code = Field(task, "type_code");
    return code != "-" ? code : Field(task, "type");
}

// A terminal's control characters in names and texts of others are shown as "?".
std::string Harmless(std::string text) {
    for (char& c : text) {
        if ((static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\t') || c == 0x7F) c = '?';
    }
    return text;
}

void AddLine(std::string& text, const std::string& label, const std::string& value) {
    if (value.empty() || value == "-") return;
    text += label + ":" + std::string(18 - std::min<std::size_t>(17, label.size() + 1), ' ') +
            Harmless(value) + "\n";
}

std::string CodeAndText(const json& object, const char* name) {
    const auto found = object.find(name);
    if (found == object.end() || !found->is_object()) return {};
    const auto code = found->value("code", std::int64_t{0});
    const std::string text = found->value("text", "");
    if (code == 0 && text.empty()) return {};
    char hex[32];
    std::snprintf(hex, sizeof hex, "0x%08llX", static_cast<unsigned long long>(code));
    return std::string(hex) + (text.empty() ? "" : " " + text);
}

std::string ExitOf(const json& attempt) {
    const auto found = attempt.find("exit");
    if (found == attempt.end() || !found->is_object()) return {};
    if (found->contains("unknown")) return "unknown";
    const char* kind = found->contains("signal") ? "signal" : "code";
    // From 0xC0000000 on it is a Windows exception or kill, and known by its hexadecimal form.
    constexpr std::int64_t kFirstExceptionCode = 0xC0000000;
    if (const json& code = (*found)[kind]; code.is_number_integer() && code >= kFirstExceptionCode) {
        char hex[32];
        std::snprintf(hex, sizeof hex, "0x%08llX", static_cast<unsigned long long>(code.get<std::int64_t>()));
        return std::string(kind) + " " + hex;
    }
    return std::string(kind) + " " + Field(*found, kind);
}

void AddAttempt(std::string& text, const json& attempt) {
    text += "\nattempt " + Field(attempt, "number") + "\n";
    AddLine(text, "  state", Field(attempt, "state"));
    AddLine(text, "  reason", Field(attempt, "reason"));
    AddLine(text, "  process", Field(attempt, "pid"));
    AddLine(text, "  session", Field(attempt, "session"));
    AddLine(text, "  connected", Time(attempt, "connected"));
    AddLine(text, "  started", Time(attempt, "started"));
    AddLine(text, "  finished", Time(attempt, "finished"));
    AddLine(text, "  exited", Time(attempt, "exited"));
    AddLine(text, "  exit", ExitOf(attempt));
    AddLine(text, "  final status", Field(attempt, "status"));
    AddLine(text, "  error", attempt.value("status", json()) == 0 ? "" : CodeAndText(attempt, "error"));
    AddLine(text, "  detail error", CodeAndText(attempt, "detail_error"));
    AddLine(text, "  further text", Field(attempt, "further_text"));
    AddLine(text, "  output", Field(attempt, "output"));
    AddLine(text, "  log", Field(attempt, "log"));
    AddLine(text, "  crash report", Field(attempt, "crash_report"));
}

}  // namespace

std::string ListTable(const json& tasks) {
    const std::vector<std::string> head = {"ID", "STATE", "TYPE", "PERCENT", "CREATED", "NAME"};
    std::vector<std::vector<std::string>> rows = {head};
    for (const auto& task : tasks)
        rows.push_back({Field(task, "id"), Field(task, "state"), Type(task), Percent(task),
                        Time(task, "created"), Harmless(Field(task, "name"))});
    std::vector<std::size_t> widths(head.size(), 0);
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (const auto& row : rows) {
        for (std::size_t i = 0; i + 1 < row.size(); ++i)
            text += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
        text += row.back() + "\n";
    }
    return text;
}

std::string ExplainText(const json& answer) {
    std::string text = Harmless(Field(answer, "summary")) + "\n";
    const auto part = [&](const char* head, const json& list) {
        if (!list.empty()) text += std::string("\n") + head + "\n";
        for (const auto& one : list) {
            text += "  " + Field(one, "rule") + ": " + Harmless(Field(one, "text"));
            if (one.contains("until") && !one["until"].is_null())
                text += " (until " + Time(one, "until") + ")";
            text += "\n";
        }
    };
    part("why it waits, in the order of the rules", answer.value("waits", json::array()));
    const json ahead = answer.value("ahead", json());
    if (ahead.is_number() && ahead != 0)
        text += "\n" + ahead.dump() + " queued tasks have their turn before it\n";
    const json pace = answer.value("pace", json());
    if (pace.is_object()) part("how fast it is", pace.value("findings", json::array()));
    part("what decided", answer.value("because", json::array()));
    const json history = answer.value("history", json::array());
    if (!history.empty()) text += "\nhistory\n";
    for (const auto& one : history) {
        const std::string attempt = Field(one, "attempt");
        text += "  " + Time(one, "time") + "  " + (attempt == "-" ? "" : "attempt " + attempt + ": ") +
                Harmless(Field(one, "text")) + "\n";
    }
    if (answer.value("history_is_cut", false))
        text += "  (older events are not shown, or not kept any more)\n";
    return text;
}

std::string ShowText(const json& task, const json& events) {
    std::string text;
    AddLine(text, "id", Field(task, "id"));
    AddLine(text, "name", Field(task, "name"));
    AddLine(text, "type", Type(task));
    AddLine(text, "origin", Field(task, "origin"));
    AddLine(text, "state", Field(task, "state"));
    AddLine(text, "reason", Field(task, "reason"));
    if (task.value("priority", 50) != 50) AddLine(text, "priority", Field(task, "priority"));
    AddLine(text, "deadline", Time(task, "deadline"));
    AddLine(text, "key", Field(task, "key"));
    AddLine(text, "percent", Percent(task));
    AddLine(text, "created", Time(task, "created"));
    AddLine(text, "started", Time(task, "started"));
    AddLine(text, "finished", Time(task, "finished"));
    AddLine(text, "cancel requested", Time(task, "cancel_requested"));
    for (const auto& reason : task.value("waits", json::array()))
        AddLine(text, "waits", Field(reason, "text"));
    AddLine(text, "text", Field(task, "text"));
    for (const auto& attempt : task.value("attempt_list", json::array())) AddAttempt(text, attempt);
    const json result = task.value("result", json());
    if (!result.is_null())
        text += "\nresult\n" + Harmless(result.dump(2, ' ', false, json::error_handler_t::replace)) + "\n";
    if (!events.empty()) text += "\nevents\n";
    for (const auto& event : events) {
        text +=
            Field(event, "time") + "  " + Field(event, "kind") + "  " + Harmless(Field(event, "data")) + "\n";
    }
    return text;
}

}  // namespace rq::ctl
