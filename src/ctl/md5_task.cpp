#include "ctl/md5_task.h"

#include <filesystem>

#include "base/paths.h"
#include "base/text.h"
#include "platform/files.h"

namespace rq::ctl {

namespace fs = std::filesystem;

namespace {

bool IsDigest(const std::string& text) {
    return text.size() == 32 && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

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

// "." parts taken out. ".." stays: behind a link it does not mean the folder whose name stands before it.
fs::path Tidy(const fs::path& path) {
    fs::path tidy;
    for (const auto& part : path) {
        if (part != ".") tidy /= part;
    }
    return tidy;
}

Result<Md5Job> PrepareJob(const std::string& name) {
    if (name.empty()) return Fail("an empty file name");
    if (!IsValidUtf8(name))
        return Fail(RepairUtf8(name) + ": the file name is not UTF-8; rename the file, or give a link to it");
    if (HasUnwritable(name))
        return Fail(
            RepairUtf8(name) +
            ": the file name has a control character that a task text cannot hold; rename the file, or "
            "give a link to it");
    std::error_code code;
    const fs::path path = Tidy(fs::absolute(PathFromUtf8(name), code));
    if (code) return Fail(name + ": " + code.message());
    const auto status = fs::status(path, code);
    if (status.type() == fs::file_type::not_found) return Fail(name + ": no such file");
    if (status.type() == fs::file_type::none) return Fail(name + ": " + code.message());
    if (status.type() == fs::file_type::directory) return Fail(name + ": is a folder; give the files in it");
    if (status.type() != fs::file_type::regular) return Fail(name + ": is not a plain file");
    const std::string absolute = Utf8FromPath(path);
    std::FILE* file = platform::OpenFile(absolute, "rb");
    if (file == nullptr) return Fail(name + ": cannot be opened for reading");
    std::fclose(file);
    if (!IsValidUtf8(absolute) || HasUnwritable(absolute))
        return Fail(name + ": the path of its folder is not UTF-8 or has control characters");
    return Md5Job{absolute, {}};
}

}  // namespace

Result<std::vector<Md5Job>> PrepareMd5Jobs(const std::vector<std::string>& files,
                                           const std::vector<std::string>& expected) {
    if (files.empty()) return Fail("no file given");
    if (!expected.empty() && expected.size() != files.size())
        return Fail("--expect was given " + std::to_string(expected.size()) + " time(s) for " +
                    std::to_string(files.size()) +
                    " file(s); give it once for each file, in the same order, or not at all");
    std::vector<Md5Job> jobs;
    for (std::size_t i = 0; i < files.size(); ++i) {
        auto job = PrepareJob(files[i]);
        if (!job) return job.error();
        if (!expected.empty()) {
            if (!IsDigest(expected[i]))
                return Fail("--expect " + expected[i] + ": an MD5 has 32 hexadecimal digits");
            job->expected = expected[i];
        }
        jobs.push_back(std::move(*job));
    }
    return jobs;
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

std::string BuildMd5TaskXml(const std::string& id, const std::vector<Md5Job>& jobs) {
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<MD5Task>\n  <ID>" + EscapeXml(id) +
                      "</ID>\n  <Files>\n";
    for (const auto& job : jobs) {
        xml += "    <File><Path>" + EscapeXml(job.path) + "</Path>";
        if (!job.expected.empty()) xml += "<MD5>" + job.expected + "</MD5>";
        xml += "</File>\n";
    }
    return xml + "  </Files>\n</MD5Task>\n";
}

}  // namespace rq::ctl
