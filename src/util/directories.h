// The folders of this process: log root, INI folder, executable's folder. The log root is RQ_LOG_DIR, else
// [Log] Root of "RQWorker.ini" in the INI folder, else "logs" in the data folder of the user; the INI folder
// is RQ_CONFIG_DIR, else the executable's. All are found, and made absolute against the working directory,
// when the first of them is asked for: the worker moves its working directory later. Any thread.
#pragma once

#include <string>
#include <string_view>

#include "base/text.h"

namespace rq {

struct Directories {
    std::string logRoot;    // absolute UTF-8, ends with a separator
    std::string iniFolder;  // likewise
};

// Found at the first call, the same ever after.
Directories ProcessDirectories();
// Finds them anew at the next call. Tests only.
void ForgetProcessDirectories();

// `path` made absolute, with one separator at its end.
std::string AbsoluteFolder(std::string_view path);

// The path of an executable cut after its last separator; without any separator, the whole path and a
// separator.
WideText CutToDirectory(const WideText& modulePath);

// log root + "RQWorker" + separator + YYYYMMDD + separator.
WideText DailyLogDir(const WideText& logRoot, int year, unsigned month, unsigned day);

}  // namespace rq
