#include "ctl/md5_task.h"

#include <algorithm>

#include "ctl/file_argument.h"

namespace rq::ctl {

namespace {

bool IsDigest(const std::string& text) {
    return text.size() == 32 && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

bool IsUnknown(const std::string& text) {
    return IsDigest(text) && text.find_first_not_of('0') == std::string::npos;
}

}  // namespace

Result<std::vector<Md5Job>> PrepareMd5Jobs(const std::vector<std::string>& files,
                                           const std::vector<std::string>& expected) {
    if (files.empty()) return Fail("no file given");
    if (!expected.empty() && expected.size() != files.size())
        return Fail("--expect was given " + std::to_string(expected.size()) + " time(s) for " +
                    std::to_string(files.size()) +
                    " file(s); give it once for each file, in the same order, or not at all");
    // To the plug-in 32 zeros mean "not known": it computes and compares with nothing.
    const bool nothingIsKnown = !expected.empty() && std::all_of(expected.begin(), expected.end(), IsUnknown);
    if (nothingIsKnown)
        return Fail(
            "--expect " + expected.front() +
            ": 32 zeros stand for \"not known\" and are compared with nothing; give the MD5 that the file "
            "should have, or leave --expect out to compute it");
    std::vector<Md5Job> jobs;
    for (std::size_t i = 0; i < files.size(); ++i) {
        const bool isFolder = expected.empty() && IsFolderName(files[i]);
        auto path = isFolder ? ExistingFolder(files[i]) : ExistingFile(files[i]);
        if (!path) return path.error();
        Md5Job job{*path, {}, isFolder ? "Folder" : "File"};
        if (!expected.empty()) {
            if (!IsDigest(expected[i]))
                return Fail("--expect " + expected[i] + ": an MD5 has 32 hexadecimal digits");
            job.expected = expected[i];
        }
        jobs.push_back(std::move(job));
    }
    return jobs;
}

Result<std::vector<Md5Job>> PrepareMd5Checks(const std::vector<std::string>& checksumFiles) {
    std::vector<Md5Job> jobs;
    for (const std::string& name : checksumFiles) {
        auto path = ExistingFile(name);
        if (!path) return path.error();
        jobs.push_back({*path, {}, "ChecksumFile"});
    }
    return jobs;
}

std::string BuildMd5TaskXml(const std::string& id, const std::vector<Md5Job>& jobs,
                            const Md5Settings& settings) {
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<MD5Task>\n  <ID>" + EscapeXml(id) +
                      "</ID>\n  <Files>\n";
    for (const auto& job : jobs) {
        xml += "    <" + job.element + "><Path>" + EscapeXml(job.path) + "</Path>";
        if (!job.expected.empty()) xml += "<MD5>" + job.expected + "</MD5>";
        xml += "</" + job.element + ">\n";
    }
    xml += "  </Files>\n";
    if (settings.threads != 1) xml += "  <Threads>" + std::to_string(settings.threads) + "</Threads>\n";
    if (!settings.checksumFile.empty())
        xml += "  <WriteChecksums><Path>" + EscapeXml(settings.checksumFile) + "</Path>" +
               (settings.overwrite ? "<Overwrite>true</Overwrite>" : "") + "</WriteChecksums>\n";
    return xml + "</MD5Task>\n";
}

}  // namespace rq::ctl
