// The task text of an MD5 computation or verification (docs/tasks/md5.md) from file names of a command line.
// Pure but for looking at the files; any thread.
#pragma once

#include <string>
#include <vector>

#include "base/result.h"

namespace rq::ctl {

struct Md5Job {
    std::string path;      // absolute, UTF-8
    std::string expected;  // 32 hexadecimal digits, or empty
};

// Makes the names absolute (without following links) and tests that each names a readable plain file and can
// be written as XML. `expected` is empty or has one digest for each file.
Result<std::vector<Md5Job>> PrepareMd5Jobs(const std::vector<std::string>& files,
                                           const std::vector<std::string>& expected);

// `id` is the ID within the text.
std::string BuildMd5TaskXml(const std::string& id, const std::vector<Md5Job>& jobs);

}  // namespace rq::ctl
