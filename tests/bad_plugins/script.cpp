#include "script.h"

#include <cstdlib>
#include <sstream>

namespace scripted {
namespace {

std::string_view ScriptText(std::string_view taskText) {
    if (const char* fromEnvironment = std::getenv("RQ_SCRIPT")) return fromEnvironment;
    constexpr std::string_view begin = "<Script>";
    const std::size_t from = taskText.find(begin);
    const std::size_t to = taskText.find("</Script>");
    if (from == std::string_view::npos || to == std::string_view::npos) return taskText;
    return taskText.substr(from + begin.size(), to - from - begin.size());
}

std::string_view Trim(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    const std::size_t from = text.find_first_not_of(blanks);
    if (from == std::string_view::npos) return {};
    return text.substr(from, text.find_last_not_of(blanks) - from + 1);
}

Step ParseStep(std::string_view text) {
    Step step;
    const std::size_t blank = text.find(' ');
    step.word = text.substr(0, blank);
    if (blank != std::string_view::npos) step.rest = Trim(text.substr(blank));
    std::istringstream words(step.rest);
    for (std::string word; words >> word;) step.arguments.push_back(word);
    return step;
}

}  // namespace

std::int64_t Step::Number(std::size_t index) const {
    return index < arguments.size() ? std::strtoll(arguments[index].c_str(), nullptr, 0) : 0;
}

std::string Step::TextAfter(std::size_t count) const {
    std::string text;
    for (std::size_t i = count; i < arguments.size(); ++i) text += (i == count ? "" : " ") + arguments[i];
    return text;
}

std::vector<Step> ParseScript(std::string_view taskText) {
    std::vector<Step> steps;
    std::string_view rest = ScriptText(taskText);
    while (!rest.empty()) {
        const std::size_t end = rest.find_first_of(";\n");
        if (const std::string_view step = Trim(rest.substr(0, end)); !step.empty())
            steps.push_back(ParseStep(step));
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    }
    return steps;
}

RQText Borrow(std::string_view text) {
    return {text.data(), text.size()};
}

void Log(const RQHostServices* host, std::int32_t level, std::string_view text) {
    if (host != nullptr) host->log(host->context, level, Borrow(text));
}

}  // namespace scripted
