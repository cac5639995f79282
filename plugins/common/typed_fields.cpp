#include "plugin_common/typed_fields.h"

#include <algorithm>
#include <numeric>

#include "plugin_common/file.h"

namespace rq::task {
namespace {

constexpr std::string_view kSecondsHint = "give seconds, as 12.5, with at most six decimals";

std::string List(std::initializer_list<std::string_view> words) {
    std::string list;
    for (const std::string_view word : words) list += (list.empty() ? "" : ", ") + std::string(word);
    return list;
}

}  // namespace

bool IsDigits(std::string_view text, std::size_t most) {
    return !text.empty() && text.size() <= most &&
           text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::int64_t NumberOf(std::string_view digits) {
    return std::accumulate(digits.begin(), digits.end(), std::int64_t{0},
                           [](std::int64_t sum, char c) { return sum * 10 + (c - '0'); });
}

std::optional<std::int64_t> ParseDecimal(std::string_view text, std::size_t decimals) {
    const std::size_t point = text.find('.');
    std::string fraction(point == std::string_view::npos ? "0" : text.substr(point + 1));
    const std::string_view whole = text.substr(0, point);
    if (!IsDigits(whole, 6) || !IsDigits(fraction, decimals)) return std::nullopt;
    std::int64_t value = NumberOf(whole);
    fraction.resize(decimals, '0');
    for (std::size_t i = 0; i < decimals; ++i) value *= 10;
    return value + NumberOf(fraction);
}

std::optional<std::string> TypedFields::Trimmed(std::string_view name, std::string_view hint) {
    std::optional<std::string> text = m_fields.Optional(name, hint);
    if (!text || m_error.Failed()) return std::nullopt;
    return std::string(TrimXml(*text));
}

void TypedFields::Refuse(std::string_view name, std::string_view text) {
    m_error.Set(m_fields.LineOf(name), "<" + std::string(name) + "> " + std::string(text));
}

void TypedFields::Forbid(std::string_view name, std::string_view reason) {
    for (const XmlElement& child : m_fields.Element().children)
        if (child.name == name) Refuse(name, reason);
}

std::optional<std::int64_t> TypedFields::Whole(std::string_view name, std::int64_t least, std::int64_t most) {
    const std::string hint =
        "give a whole number between " + std::to_string(least) + " and " + std::to_string(most);
    const std::optional<std::string> text = Trimmed(name, hint);
    if (!text) return std::nullopt;
    const std::int64_t value = IsDigits(*text, 18) ? NumberOf(*text) : -1;
    if (value >= least && value <= most) return value;
    Refuse(name, "is \"" + *text + "\"; " + hint);
    return std::nullopt;
}

std::optional<std::int64_t> TypedFields::Seconds(std::string_view name) {
    const std::optional<std::string> text = Trimmed(name, kSecondsHint);
    if (!text) return std::nullopt;
    const std::optional<std::int64_t> value = ParseDecimal(*text, 6);
    if (!value) Refuse(name, "is \"" + *text + "\"; " + std::string(kSecondsHint));
    return value;
}

std::optional<std::string> TypedFields::Word(std::string_view name,
                                             std::initializer_list<std::string_view> words) {
    const std::string hint = "give one of: " + List(words);
    std::optional<std::string> text = Trimmed(name, hint);
    if (!text || std::find(words.begin(), words.end(), *text) != words.end()) return text;
    Refuse(name, "is \"" + *text + "\"; " + hint);
    return std::nullopt;
}

std::string TypedFields::RequiredWord(std::string_view name, std::initializer_list<std::string_view> words) {
    m_fields.Required(name, "give one of: " + List(words));
    return Word(name, words).value_or("");
}

std::optional<bool> TypedFields::Flag(std::string_view name) {
    const std::optional<std::string> word = Word(name, {"true", "false"});
    if (!word) return std::nullopt;
    return *word == "true";
}

std::string TypedFields::AbsolutePath(std::string_view name, std::string_view hint) {
    std::string path = m_fields.Required(name, hint);
    if (!m_error.Failed() && !IsAbsolutePath(path))
        Refuse(name, "is not an absolute path: \"" + path +
                         "\"; the worker has no folder of its own to start from");
    return path;
}

std::string TypedFields::FilePath(std::string_view name, std::string_view hint) {
    std::string path = AbsolutePath(name, hint);
    if (!m_error.Failed() && (path.back() == '/' || path.back() == '\\'))
        Refuse(name, "names a folder: \"" + path + "\"; " + std::string(hint));
    return path;
}

std::optional<std::string> TypedFields::OptionalPath(std::string_view name, std::string_view hint) {
    for (const XmlElement& child : m_fields.Element().children)
        if (child.name == name) return AbsolutePath(name, hint);
    return std::nullopt;
}

}  // namespace rq::task
