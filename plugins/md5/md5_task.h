// The task text of an MD5 task (docs/tasks/md5.md), read and checked. Pure; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plugin_common/digest.h"
#include "plugin_common/task_xml.h"

namespace rq::md5 {

struct TaskFile {
    std::string path;  // absolute, as in the task text
    std::optional<task::Md5Digest> expected;
};

struct Md5Task {
    std::string id;
    bool verify = false;  // every file has an expected digest; otherwise none has
    std::vector<TaskFile> files;
};

// False, with `error` set, for a text that does not fit; the ID is there when that much could be read.
bool ReadMd5Task(std::string_view text, Md5Task& task, task::XmlError& error);

}  // namespace rq::md5
