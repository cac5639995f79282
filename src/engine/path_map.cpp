#include "engine/path_map.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "util/xml_bounds.h"

namespace rq::engine {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";
constexpr std::string_view kDataBegin = "<![CDATA[";
constexpr std::string_view kDataEnd = "]]>";

bool IsLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool IsSlash(char c) {
    return c == '/' || c == '\\';
}

char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

// With a drive letter, or of a share.
bool IsWindows(std::string_view path) {
    if (path.size() >= 2 && IsLetter(path[0]) && path[1] == ':') return path.size() == 2 || IsSlash(path[2]);
    return path.size() > 2 && path[0] == '\\' && path[1] == '\\' && !IsSlash(path[2]);
}

bool IsAbsolute(std::string_view path) {
    return IsWindows(path) || (!path.empty() && path[0] == '/');
}

// Without the separators at its end.
std::string_view Trimmed(std::string_view prefix) {
    const bool isWindows = IsWindows(prefix);
    while (!prefix.empty() && (prefix.back() == '/' || (isWindows && prefix.back() == '\\')))
        prefix.remove_suffix(1);
    return prefix;
}

bool BeginsWith(std::string_view path, std::string_view prefix) {
    const bool isWindows = IsWindows(prefix);
    if (path.size() < prefix.size()) return false;
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        const bool isSame =
            isWindows ? Lower(path[i]) == Lower(prefix[i]) || (IsSlash(path[i]) && IsSlash(prefix[i]))
                      : path[i] == prefix[i];
        if (!isSame) return false;
    }
    if (path.size() == prefix.size()) return true;
    return path[prefix.size()] == '/' || (isWindows && path[prefix.size()] == '\\');
}

// ---- values of XML ----

std::optional<std::uint32_t> CharacterOf(std::string_view reference) {
    if (reference == "amp") return '&';
    if (reference == "lt") return '<';
    if (reference == "gt") return '>';
    if (reference == "quot") return '"';
    if (reference == "apos") return '\'';
    if (reference.size() < 2 || reference[0] != '#') return std::nullopt;
    const bool isHex = reference[1] == 'x';
    const std::string_view digits = reference.substr(isHex ? 2 : 1);
    if (digits.empty() || digits.size() > 7) return std::nullopt;
    std::uint32_t value = 0;
    for (const char digit : digits) {
        const char c = Lower(digit);
        const bool isDigit = c >= '0' && c <= '9';
        if (!isDigit && !(isHex && c >= 'a' && c <= 'f')) return std::nullopt;
        value = value * (isHex ? 16 : 10) + static_cast<std::uint32_t>(isDigit ? c - '0' : c - 'a' + 10);
    }
    if (value == 0 || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return std::nullopt;
    return value;
}

void AppendUtf8(std::string& text, std::uint32_t character) {
    const auto byte = [&](std::uint32_t value) { text += static_cast<char>(value); };
    if (character < 0x80) {
        byte(character);
    } else if (character < 0x800) {
        byte(0xC0 | character >> 6);
        byte(0x80 | (character & 0x3F));
    } else {
        if (character < 0x10000) {
            byte(0xE0 | character >> 12);
        } else {
            byte(0xF0 | character >> 18);
            byte(0x80 | (character >> 12 & 0x3F));
        }
        byte(0x80 | (character >> 6 & 0x3F));
        byte(0x80 | (character & 0x3F));
    }
}

// Nothing when it refers to something that only a DTD could say.
std::optional<std::string> Decoded(std::string_view raw) {
    std::string text;
    for (std::size_t at = 0; at < raw.size();) {
        if (raw[at] != '&') {
            text += raw[at++];
            continue;
        }
        const auto end = raw.find(';', at);
        if (end == std::string_view::npos) return std::nullopt;
        const auto character = CharacterOf(raw.substr(at + 1, end - at - 1));
        if (!character) return std::nullopt;
        AppendUtf8(text, *character);
        at = end + 1;
    }
    return text;
}

std::string Encoded(std::string_view text) {
    std::string raw;
    for (const char c : text) {
        switch (c) {
            case '&':
                raw += "&amp;";
                break;
            case '<':
                raw += "&lt;";
                break;
            case '>':
                raw += "&gt;";
                break;
            case '"':
                raw += "&quot;";
                break;
            case '\'':
                raw += "&apos;";
                break;
            default:
                raw += c;
        }
    }
    return raw;
}

// Copies a text, values replaced as it goes.
class Rewriter {
  public:
    Rewriter(const PathMap& map, std::string_view xml, std::vector<MappedPath>* mapped)
        : m_map(map), m_xml(xml), m_mapped(mapped) {}

    std::string Run() {
        // The two tags before the present one: an element's opening one, and behind it perhaps its character
        // data.
        XmlTag before, beforeThat;
        std::size_t from = 0;
        while (const auto tag = NextXmlTag(m_xml, from)) {
            from = tag->end;
            if (tag->kind == XmlTagKind::Close) Content(beforeThat, before, *tag);
            if (tag->kind == XmlTagKind::Open || tag->kind == XmlTagKind::Empty) Attributes(*tag);
            beforeThat = std::exchange(before, *tag);
        }
        m_out.append(m_xml.substr(m_copied));
        return std::move(m_out);
    }

  private:
    // Of an element that ends with `close`, when nothing but one text is in it.
    void Content(const XmlTag& first, const XmlTag& second, const XmlTag& close) {
        if (second.kind == XmlTagKind::Open) return Value(second.end, close.begin, true);
        const std::string_view data = m_xml.substr(second.begin, second.end - second.begin);
        if (first.kind != XmlTagKind::Open || !data.starts_with(kDataBegin)) return;
        if (!IsBlank(first.end, second.begin) || !IsBlank(second.end, close.begin)) return;
        Value(second.begin + kDataBegin.size(), second.end - kDataEnd.size(), false);
    }

    bool IsBlank(std::size_t begin, std::size_t end) const {
        return m_xml.substr(begin, end - begin).find_first_not_of(kBlanks) == std::string_view::npos;
    }

    void Attributes(const XmlTag& tag) {
        for (std::size_t at = tag.begin; at < tag.end; ++at) {
            const char quote = m_xml[at];
            if (quote != '"' && quote != '\'') continue;
            const auto end = m_xml.find(quote, at + 1);
            if (end == std::string_view::npos || end >= tag.end) return;
            Value(at + 1, end, true);
            at = end;
        }
    }

    void Value(std::size_t begin, std::size_t end, bool isEncoded) {
        const std::string_view raw = m_xml.substr(begin, end - begin);
        const auto first = raw.find_first_not_of(kBlanks);
        if (first == std::string_view::npos) return;
        const auto last = raw.find_last_not_of(kBlanks);
        const std::string_view value = raw.substr(first, last - first + 1);
        const auto given = isEncoded ? Decoded(value) : std::string(value);
        const auto local = given ? m_map.Local(*given) : std::nullopt;
        if (!local) return;
        m_out.append(m_xml.substr(m_copied, begin + first - m_copied));
        m_out += isEncoded ? Encoded(*local) : *local;
        m_copied = begin + last + 1;
        if (m_mapped != nullptr) m_mapped->push_back({*given, *local});
    }

    const PathMap& m_map;
    const std::string_view m_xml;
    std::vector<MappedPath>* m_mapped;
    std::string m_out;
    std::size_t m_copied = 0;
};

}  // namespace

Result<PathMap> PathMap::Make(std::vector<PathRule> rules) {
    for (auto rule = rules.begin(); rule != rules.end(); ++rule) {
        for (const std::string& path : {rule->given, rule->local}) {
            if (!IsAbsolute(path))
                return Fail("\"" + path + "\" is no absolute path: Z:\\folder, \\\\server\\share or /folder");
            if (std::any_of(path.begin(), path.end(), [](unsigned char c) { return c < 0x20; }))
                return Fail("\"" + rule->given +
                            "\": a path with a control character cannot be in a task text");
        }
        const auto twin = std::find_if(rules.begin(), rule, [&](const PathRule& other) {
            const auto a = Trimmed(other.given), b = Trimmed(rule->given);
            return a.size() == b.size() && BeginsWith(a, b) && BeginsWith(b, a);
        });
        if (twin != rule)
            return Fail("\"" + rule->given + "\" is the same prefix as \"" + twin->given + "\"");
    }
    PathMap map;
    map.m_rules = std::move(rules);
    return map;
}

const PathRule* PathMap::RuleFor(std::string_view path) const {
    const PathRule* longest = nullptr;
    for (const auto& rule : m_rules) {
        const bool isLonger =
            longest == nullptr || Trimmed(rule.given).size() > Trimmed(longest->given).size();
        if (isLonger && IsAbsolute(path) && BeginsWith(path, Trimmed(rule.given))) longest = &rule;
    }
    return longest;
}

std::optional<std::string> PathMap::Local(std::string_view path) const {
    const PathRule* rule = RuleFor(path);
    if (rule == nullptr) return std::nullopt;
    std::string rest(path.substr(Trimmed(rule->given).size()));
    const bool isToWindows = IsWindows(rule->local);
    if (isToWindows)
        std::replace(rest.begin(), rest.end(), '/', '\\');
    else if (IsWindows(rule->given))
        std::replace(rest.begin(), rest.end(), '\\', '/');
    std::string local(Trimmed(rule->local));
    // A root needs its separator.
    if (rest.empty() && (local.empty() || local.back() == ':')) rest += isToWindows ? '\\' : '/';
    return local + rest;
}

std::string PathMap::Apply(std::string_view xml, std::vector<MappedPath>* mapped) const {
    if (m_rules.empty()) return std::string(xml);
    return Rewriter(*this, xml, mapped).Run();
}

}  // namespace rq::engine
