#include "ctl/file_argument.h"

#include <filesystem>

#include "base/paths.h"
#include "base/text.h"
#include "platform/error_text.h"
#include "platform/file_name.h"
#include "platform/files.h"

namespace rq::ctl {

namespace fs = std::filesystem;

namespace {

// Characters that XML 1.0 cannot hold in any form.
bool HasUnwritable(const std::string& utf8) {
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        const auto byte = static_cast<unsigned char>(utf8[i]);
        if (byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r') return true;
        // U+FFFE and U+FFFF
        if (byte == 0xEF && utf8.compare(i, 2, "\xEF\xBF") == 0 && i + 2 < utf8.size() &&
            static_cast<unsigned char>(utf8[i + 2]) >= 0xBE)
            return true;
    }
    return false;
}

// "." and ".." taken out. A ".." stays where a link stands before it: there it means another folder.
fs::path Tidy(const fs::path& path) {
    std::error_code code;
    fs::path normal = path.lexically_normal();
    if (!normal.has_filename()) normal = normal.parent_path();
    if (fs::equivalent(path, normal, code)) return normal;
    fs::path tidy;
    for (const auto& part : path) {
        if (part != ".") tidy /= part;
    }
    return tidy;
}

// What a task text can hold.
Result<void> Writable(const std::string& name) {
    if (name.empty()) return Fail("an empty file name");
    if (!IsValidUtf8(name))
        return Fail(RepairUtf8(name) + ": the file name is not UTF-8; rename the file, or give a link to it");
    if (HasUnwritable(name))
        return Fail(
            RepairUtf8(name) +
            ": the file name has a control character that a task text cannot hold; rename the file, or "
            "give a link to it");
    return {};
}

// The absolute form of a name that a task text can hold.
Result<fs::path> AbsolutePath(const std::string& name) {
    if (auto writable = Writable(name); !writable) return writable.error();
    std::error_code code;
    // On Windows with its own separators only, whatever was typed: the path also stands in results.
    fs::path path = Tidy(fs::absolute(PathFromUtf8(name), code)).make_preferred();
    if (code) return Fail(name + ": " + platform::ErrorText(code));
    const std::string absolute = Utf8FromPath(path);
    if (!IsValidUtf8(absolute) || HasUnwritable(absolute))
        return Fail(name + ": the path of its folder is not UTF-8 or has control characters");
    return path;
}

}  // namespace

bool IsOfAnotherSystem(const std::string& name) {
    std::error_code code;
    if (!Writable(name) || fs::exists(PathFromUtf8(name), code)) return false;
    if (fs::path::preferred_separator != '/') return name[0] == '/' && name.substr(0, 2) != "//";
    const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    const bool isDrive =
        name.size() > 2 && isLetter(name[0]) && name[1] == ':' && (name[2] == '\\' || name[2] == '/');
    return isDrive || name.substr(0, 2) == "\\\\";
}

Result<std::string> ExistingFile(const std::string& name) {
    if (IsOfAnotherSystem(name)) return name;
    const auto path = AbsolutePath(name);
    if (!path) return path.error();
    std::error_code code;
    const auto status = fs::status(*path, code);
    if (status.type() == fs::file_type::not_found) return Fail(name + ": no such file");
    if (status.type() == fs::file_type::none) return Fail(name + ": " + platform::ErrorText(code));
    if (status.type() == fs::file_type::directory) return Fail(name + ": is a folder; give the files in it");
    if (status.type() != fs::file_type::regular) return Fail(name + ": is not a plain file");
    std::string absolute = Utf8FromPath(*path);
    std::FILE* file = platform::OpenFile(absolute, "rb");
    if (file == nullptr) return Fail(name + ": cannot be opened for reading");
    std::fclose(file);
    return absolute;
}

bool IsFolderName(const std::string& name) {
    std::error_code code;
    return !name.empty() && IsValidUtf8(name) && fs::is_directory(PathFromUtf8(name), code);
}

Result<std::string> ExistingFolder(const std::string& name) {
    const auto path = AbsolutePath(name);
    if (!path) return path.error();
    if (!IsFolderName(Utf8FromPath(*path))) return Fail(name + ": no such folder");
    return Utf8FromPath(*path);
}

Result<std::string> NewFile(const std::string& name, bool overwrite) {
    if (IsOfAnotherSystem(name)) return name;
    // As it was given: made absolute, it has lost what is wrong with it.
    const std::string last = Utf8FromPath(PathFromUtf8(RepairUtf8(name)).filename());
    const bool isFolder = last == "." || last == "..";
    if (const std::string why = platform::WhyNoFileName(last); !isFolder && !why.empty())
        return Fail(RepairUtf8(name) + ": " + why);
    const auto path = AbsolutePath(name);
    if (!path) return path.error();
    if (!path->has_filename() || path->filename() == "..")
        return Fail(name + ": names a folder; give a file in it");
    std::error_code code;
    if (!fs::is_directory(path->parent_path(), code)) return Fail(name + ": its folder is not there");
    const auto status = fs::status(*path, code);
    if (status.type() == fs::file_type::none) return Fail(name + ": " + platform::ErrorText(code));
    if (status.type() == fs::file_type::directory) return Fail(name + ": is a folder; give a file in it");
    if (status.type() != fs::file_type::not_found && !overwrite)
        return Fail(name + ": exists already; --overwrite replaces it");
    return Utf8FromPath(*path);
}

std::string EscapeXml(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            // A parser may turn these into other white space.
            case '\r':
                escaped += "&#13;";
                break;
            case '\n':
                escaped += "&#10;";
                break;
            case '\t':
                escaped += "&#9;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

}  // namespace rq::ctl
