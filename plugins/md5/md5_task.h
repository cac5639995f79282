// The task text of an MD5 task (docs/tasks/md5.md), read and checked. Pure; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plugin_common/digest.h"
#include "plugin_common/task_xml.h"

namespace rq::md5 {

constexpr int kMaxThreads = 64;

struct TaskFile {
    enum class Kind { kFile, kFolder, kChecksums };  // a checksum file names files and what they should have
    std::string path;                                // absolute, as in the task text
    std::optional<task::Md5Digest> expected;         // of a file
    Kind kind = Kind::kFile;
};

struct ChecksumOutput {
    std::string path;  // absolute
    bool overwrite = false;
};

struct Md5Task {
    std::string id;
    bool verify = false;  // every file has an expected digest; otherwise none has
    std::vector<TaskFile> files;
    int threads = 0;                       // 0: as many as the task has cores
    std::optional<ChecksumOutput> output;  // of a computation

    // Whether the text itself names every file.
    bool IsPlainList() const;
};

// False, with `error` set, for a text that does not fit; the ID is there when that much could be read.
bool ReadMd5Task(std::string_view text, Md5Task& task, task::XmlError& error);

}  // namespace rq::md5
