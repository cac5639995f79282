#include "plugin/parameter_file.h"

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "base/paths.h"
#include "platform/files.h"
#include "util/worker_util.h"

namespace rq {

void ProvideParameterFile(const WideText& moduleDirectory) {
    const std::string source = NarrowUtf8(moduleDirectory) + kParameterFile;
    const std::string folder = platform::CurrentDirectory();
    platform::OsError problem;
    const std::optional<std::string> bytes = platform::ReadWholeFile(source, &problem);
    std::error_code error;
    if (std::filesystem::exists(PathFromUtf8(kParameterFile), error) || error) {
        const std::optional<std::string> there = platform::ReadWholeFile(kParameterFile);
        if (bytes && there != bytes)
            Log(3, "the plug-in reads the actor.xml in " + folder + ", which differs from " + source);
        return;
    }
    if (!bytes || !platform::ReplaceWholeFile(kParameterFile, *bytes, false, &problem)) {
        Log(3, "there is no actor.xml for the plug-in in " + folder + ": " + problem.message);
        return;
    }
    Log(2, "actor.xml was copied to " + folder + ", where the plug-in reads it");
}

}  // namespace rq
