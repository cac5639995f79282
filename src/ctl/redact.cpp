#include "ctl/redact.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace rq::ctl {

namespace {

constexpr std::string_view kStars = "***";
constexpr std::array<std::string_view, 10> kWords = {"password",   "passwd", "passphrase", "passcode",
                                                     "pwd",        "secret", "token",      "credential",
                                                     "privatekey", "apikey"};

char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

bool IsOf(char c, const char* set) {
    return c != '\0' && std::strchr(set, c) != nullptr;
}

bool IsName(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

// A word at `at`, letter by letter; "_", "-" and "." inside a name are passed over ("api_key").
std::size_t WordEnd(std::string_view text, std::size_t at, std::string_view word) {
    std::size_t matched = 0;
    for (; at < text.size() && matched < word.size(); ++at) {
        if (Lower(text[at]) == word[matched])
            ++matched;
        else if (matched == 0 || !IsOf(text[at], "_-."))
            return 0;
    }
    return matched == word.size() ? at : 0;
}

std::size_t SecretNameEnd(std::string_view text, std::size_t at) {
    for (const auto word : kWords) {
        if (auto end = WordEnd(text, at, word); end != 0) {
            while (end < text.size() && IsName(text[end])) ++end;
            return end;
        }
    }
    // "AccessKey", "encryption_key"; a key that is no more than that is none of a lock's.
    if (at > 0 && (IsName(text[at - 1]) || text[at - 1] == '.')) {
        const auto end = WordEnd(text, at, "key");
        if (end != 0 && (end == text.size() || !IsName(text[end]))) return end;
    }
    return 0;
}

struct Span {
    std::size_t begin = 0, end = 0;
};

// Whether what stands at `at` belongs to the name of an element: "<FtpPassword".
bool IsInTag(std::string_view text, std::size_t at) {
    while (at > 0 && (IsName(text[at - 1]) || IsOf(text[at - 1], ".:"))) --at;
    return at > 0 && text[at - 1] == '<';
}

// The value behind a name that ends at `at`: of an element ("name>value<", the attributes of a tag passed
// over), an attribute or a field ("name" : "value"), or of "name=value".
Span ValueBehind(std::string_view text, std::size_t at, bool isTag) {
    const auto pass = [&](const char* set) {
        while (at < text.size() && IsOf(text[at], set)) ++at;
    };
    pass("\"'\\ \t");
    if (isTag && at < text.size() && IsName(text[at])) {
        const auto end = text.find_first_of("<>", at);
        if (end != std::string_view::npos && text[end - 1] != '/') at = end;
    }
    if (at >= text.size() || !IsOf(text[at], "=:>")) return {};
    if (text[at] == '>') {
        const auto begin = at + 1;
        return {begin, std::min(text.find('<', begin), text.size())};
    }
    ++at;
    pass("\\ \t");
    if (at < text.size() && IsOf(text[at], "\"'")) {
        const char quote = text[at++];
        const auto begin = at;
        // A quote behind a backslash ends the value only where the opening one stood behind one as well.
        const bool isEscaped = begin >= 2 && text[begin - 2] == '\\';
        while (at < text.size() && text[at] != '\n') {
            if (text[at] == quote && (isEscaped || text[at - 1] != '\\')) break;
            ++at;
        }
        return {begin, at > begin && isEscaped && text[at - 1] == '\\' ? at - 1 : at};
    }
    const auto begin = at;
    while (at < text.size() && !IsOf(text[at], " \t\r\n,;&<>\"'\\)}]")) ++at;
    return {begin, at};
}

// "user:password" of a URL whose "://" stands at `at`.
Span UserOf(std::string_view text, std::size_t at) {
    const auto begin = at + 3;
    auto end = begin;
    while (end < text.size() && !IsOf(text[end], "/ \t\r\n\"'<>")) ++end;
    const auto sign = text.substr(begin, end - begin).rfind('@');
    return sign == std::string_view::npos ? Span{} : Span{begin, begin + sign};
}

std::string WithoutKnown(std::string text, const std::vector<std::string>& known) {
    for (const auto& secret : known) {
        if (secret.empty()) continue;
        for (auto at = text.find(secret); at != std::string::npos; at = text.find(secret, at + kStars.size()))
            text.replace(at, secret.size(), kStars);
    }
    return text;
}

}  // namespace

std::string Redact(std::string_view text, const std::vector<std::string>& known) {
    std::string clean;
    std::size_t at = 0;
    while (at < text.size()) {
        Span secret;
        if (const auto name = SecretNameEnd(text, at); name != 0)
            secret = ValueBehind(text, name, IsInTag(text, at));
        else if (text.compare(at, 3, "://") == 0)
            secret = UserOf(text, at);
        if (secret.end > secret.begin) {
            clean += text.substr(at, secret.begin - at);
            clean += kStars;
            at = secret.end;
        } else {
            clean += text[at++];
        }
    }
    return WithoutKnown(std::move(clean), known);
}

}  // namespace rq::ctl
