#include "engine/task_secrets.h"

#include <algorithm>
#include <iterator>

#include "base/text.h"

namespace rq::engine {

namespace {

constexpr std::string_view kWords[] = {"password",    "passwd",    "passphrase", "passcode",  "pwd",
                                       "secret",      "apikey",    "secretkey",  "accesskey", "privatekey",
                                       "accesstoken", "authtoken", "bearertoken"};
constexpr std::string_view kBlank = " \t\r\n";
constexpr std::size_t kLongestShown_bytes = 60;

bool IsLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Of a name of XML or of a URL's scheme; whatever is not ASCII may be part of a name.
bool IsNameChar(char c) {
    return IsLetter(c) || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.' || c == ':' ||
           static_cast<unsigned char>(c) >= 0x80;
}

bool IsBlank(std::string_view text) {
    return text.find_first_not_of(kBlank) == std::string_view::npos;
}

bool NamesSecret(std::string_view name) {
    if (const auto colon = name.rfind(':'); colon != std::string_view::npos) name.remove_prefix(colon + 1);
    std::string plain;
    for (const char c : name) {
        if (c != '_' && c != '-' && c != '.') plain += c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    }
    return std::any_of(std::begin(kWords), std::end(kWords),
                       [&](std::string_view word) { return plain.ends_with(word); });
}

class Search {
  public:
    explicit Search(std::string_view text) : m_text(text) {}

    std::optional<FoundSecret> Run() {
        for (m_at = 0; m_at < m_text.size(); ++m_at) {
            const char c = m_text[m_at];
            if (c == ':') {
                if (auto found = Url()) return found;
            } else if (c == '<') {
                if (auto found = Tag()) return found;
            } else if (c == '"') {
                if (auto found = Field()) return found;
            }
        }
        return std::nullopt;
    }

  private:
    FoundSecret Found(std::size_t at, std::string what) const {
        const auto line = std::count(m_text.begin(), m_text.begin() + static_cast<std::ptrdiff_t>(at), '\n');
        return {static_cast<std::size_t>(line) + 1, std::move(what)};
    }
    std::size_t NameEnd(std::size_t at) const {
        while (at < m_text.size() && IsNameChar(m_text[at])) ++at;
        return at;
    }
    std::size_t AfterBlanks(std::size_t at) const {
        return std::min(m_text.find_first_not_of(kBlank, at), m_text.size());
    }
    std::string Shown(std::string_view name) const { return std::string(CutUtf8(name, kLongestShown_bytes)); }

    // At a colon that may be that of "scheme://".
    std::optional<FoundSecret> Url() const {
        if (m_at == 0 || m_text.substr(m_at, 3) != "://") return std::nullopt;
        const char before = m_text[m_at - 1];
        if (!IsLetter(before) && !(before >= '0' && before <= '9')) return std::nullopt;
        const auto begin = m_at + 3;
        const auto end = std::min(m_text.find_first_of("/?#\\\"'<> \t\r\n", begin), m_text.size());
        const auto authority = m_text.substr(begin, end - begin);
        const auto sign = authority.rfind('@');
        if (sign == std::string_view::npos) return std::nullopt;
        const auto colon = authority.find(':');
        if (colon == std::string_view::npos || colon + 1 >= sign) return std::nullopt;
        return Found(m_at, "a URL with a password (user:password@)");
    }

    // At "<": an element with a text, or an attribute of it.
    std::optional<FoundSecret> Tag() const {
        const auto nameEnd = NameEnd(m_at + 1);
        const auto name = m_text.substr(m_at + 1, nameEnd - m_at - 1);
        if (name.empty()) return std::nullopt;
        auto at = nameEnd;
        for (;;) {
            at = AfterBlanks(at);
            const auto attributeEnd = NameEnd(at);
            if (attributeEnd == at) break;
            const auto attribute = m_text.substr(at, attributeEnd - at);
            const auto equals = AfterBlanks(attributeEnd);
            if (equals >= m_text.size() || m_text[equals] != '=') break;
            const auto quote = AfterBlanks(equals + 1);
            if (quote >= m_text.size() || (m_text[quote] != '"' && m_text[quote] != '\'')) break;
            const auto end = std::min(m_text.find(m_text[quote], quote + 1), m_text.size());
            if (NamesSecret(attribute) && !IsBlank(m_text.substr(quote + 1, end - quote - 1)))
                return Found(at, "the attribute " + Shown(attribute));
            at = std::min(end + 1, m_text.size());
        }
        if (at >= m_text.size() || m_text[at] != '>' || !NamesSecret(name)) return std::nullopt;
        const auto content = at + 1;
        const auto end = std::min(m_text.find('<', content), m_text.size());
        const bool isText =
            !IsBlank(m_text.substr(content, end - content)) || m_text.substr(end, 9) == "<![CDATA[";
        if (!isText) return std::nullopt;
        return Found(m_at, "the element <" + Shown(name) + ">");
    }

    // At a quote that may begin a field of JSON: "name": "value".
    std::optional<FoundSecret> Field() const {
        const auto end = NameEnd(m_at + 1);
        if (end >= m_text.size() || m_text[end] != '"') return std::nullopt;
        const auto name = m_text.substr(m_at + 1, end - m_at - 1);
        const auto colon = AfterBlanks(end + 1);
        if (colon >= m_text.size() || m_text[colon] != ':' || !NamesSecret(name)) return std::nullopt;
        const auto value = AfterBlanks(colon + 1);
        if (m_text.substr(value, 1) != "\"" || m_text.substr(value, 2) == "\"\"") return std::nullopt;
        return Found(m_at, "the field \"" + Shown(name) + "\"");
    }

    const std::string_view m_text;
    std::size_t m_at = 0;
};

}  // namespace

std::optional<FoundSecret> FindSecret(std::string_view text) {
    return Search(text).Run();
}

}  // namespace rq::engine
