// The task text of an MD5 computation or verification (docs/tasks/md5.md) from file names of a command line.
// Pure but for looking at the files; any thread.
#pragma once

#include <string>
#include <vector>

#include "base/result.h"

namespace rq::ctl {

constexpr int kMaxMd5Threads = 64;

struct Md5Job {
    std::string path;              // absolute, UTF-8
    std::string expected;          // 32 hexadecimal digits, or empty
    std::string element = "File";  // or "Folder", "ChecksumFile"
};

// What a task may say beside its files.
struct Md5Settings {
    int threads = 1;
    std::string checksumFile;  // to be made, absolute; empty: none
    bool overwrite = false;
};

// Makes the names absolute (without following links) and tests that each names a readable plain file and can
// be written as XML. `expected` is empty or has one digest for each file; without it `files` may be folders.
Result<std::vector<Md5Job>> PrepareMd5Jobs(const std::vector<std::string>& files,
                                           const std::vector<std::string>& expected);

// The same for checksum files, whose files are to be verified.
Result<std::vector<Md5Job>> PrepareMd5Checks(const std::vector<std::string>& checksumFiles);

// `id` is the ID within the text.
std::string BuildMd5TaskXml(const std::string& id, const std::vector<Md5Job>& jobs,
                            const Md5Settings& settings = {});

}  // namespace rq::ctl
