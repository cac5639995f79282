#include "url.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "plugin_common/task_xml.h"

namespace rq::transfer {
namespace {

constexpr std::array<std::string_view, 5> kSchemes{"http", "https", "ftp", "ftps", "sftp"};

std::string Lower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return lower;
}

bool IsAlphanumeric(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string_view Authority(std::string_view url) {
    const std::size_t begin = url.find("://") + 3;
    return url.substr(begin, url.find_first_of("/?#", begin) - begin);
}

// False when an escape is broken or stands for a control character.
bool Decode(std::string_view text, std::string& decoded) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        int value = static_cast<unsigned char>(text[i]);
        if (value == '%') {
            if (i + 2 >= text.size()) return false;
            const int high = HexDigit(text[i + 1]);
            const int low = HexDigit(text[i + 2]);
            if (high < 0 || low < 0) return false;
            value = high * 16 + low;
            i += 2;
        }
        if (value < 0x20 || value == 0x7F) return false;
        decoded += static_cast<char>(value);
    }
    return true;
}

// A name, an IPv4 address or an IPv6 one in brackets, and maybe a port.
bool IsHostAndPort(std::string_view authority) {
    const std::size_t bracket = authority.rfind(']');
    const std::size_t colon = authority.find(':', bracket == std::string_view::npos ? 0 : bracket);
    std::string_view host = authority.substr(0, colon);
    const std::string_view port =
        colon == std::string_view::npos ? std::string_view("0") : authority.substr(colon + 1);
    if (port.empty() || port.size() > 5 ||
        !std::all_of(port.begin(), port.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    if (!host.empty() && host.front() == '[') {
        if (host.back() != ']' || host.size() < 4) return false;
        host = host.substr(1, host.size() - 2);
        return std::all_of(host.begin(), host.end(),
                           [](char c) { return HexDigit(c) >= 0 || c == ':' || c == '.'; });
    }
    return !host.empty() && host.front() != '-' && std::all_of(host.begin(), host.end(), [](char c) {
        return IsAlphanumeric(c) || c == '.' || c == '-' || c == '_';
    });
}

}  // namespace

bool IsUrl(std::string_view text) {
    text = task::TrimXml(text);
    const std::size_t end = text.find("://");
    return end != std::string_view::npos && end > 1 &&
           std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(end),
                       [](char c) { return IsAlphanumeric(c) || c == '+' || c == '-' || c == '.'; });
}

std::string WhyNotTaken(std::string_view url) {
    const std::string scheme = SchemeOf(url);
    if (std::find(kSchemes.begin(), kSchemes.end(), scheme) == kSchemes.end())
        return "is a URL of another kind than http, https, ftp, ftps and sftp";
    const std::string_view authority = Authority(url);
    if (authority.find('@') != std::string_view::npos)
        return "is a URL with a user in it; put user and password into RQWorkerCredentials.xml on the node, "
               "and the "
               "name of their entry into <Credentials>";
    if (url.find_first_of("?#") != std::string_view::npos)
        return "is a URL with a query or a fragment, which may be a secret; give one without";
    if (!std::all_of(url.begin(), url.end(),
                     [](char c) { return c > 0x20 && c < 0x7F && c != '\\' && c != '"'; }))
        return "is a URL with characters that must be written as %XX";
    if (!IsHostAndPort(authority)) return "is a URL without a host that can be read";
    std::string name;
    const std::string_view path = url.substr(url.find("://") + 3 + authority.size());
    if (path.empty() || path.back() == '/') return "is a URL that names no file";
    if (!Decode(path, name)) return "is a URL in which a %XX is broken or stands for a control character";
    return {};
}

std::string SchemeOf(std::string_view url) {
    return Lower(url.substr(0, url.find("://")));
}

std::string HostOf(std::string_view url) {
    const std::string_view authority = Authority(url);
    const std::size_t bracket = authority.rfind(']');
    return Lower(authority.substr(0, authority.find(':', bracket == std::string_view::npos ? 0 : bracket)));
}

std::string FolderOf(std::string_view url) {
    return std::string(url.substr(0, url.rfind('/') + 1));
}

std::string FileNameOf(std::string_view url) {
    std::string name;
    (void)Decode(url.substr(url.rfind('/') + 1), name);
    return name;
}

std::string PathOnServer(std::string_view url) {
    std::string path;
    (void)Decode(url.substr(url.find("://") + 3 + Authority(url).size()), path);
    return path.rfind("/~/", 0) == 0 ? path.substr(3) : path;
}

std::string Encoded(std::string_view name) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (const char c : name) {
        if (IsAlphanumeric(c) || c == '.' || c == '-' || c == '_') {
            text += c;
            continue;
        }
        const auto value = static_cast<unsigned char>(c);
        text += '%';
        text += kDigits[value >> 4];
        text += kDigits[value & 15];
    }
    return text;
}

}  // namespace rq::transfer
