#include "kit/stage_copy.h"

#include <string>

#include "base/paths.h"

namespace rq::kit {

namespace fs = std::filesystem;

namespace {

bool IsBinary(const fs::path& path) {
    const auto ending = path.extension();
    if (ending == ".so" || ending == ".dll" || ending == ".exe") return true;
    // Programs have no ending on Linux, and a permission that data files lack.
    return ending.empty() && (fs::status(path).permissions() & fs::perms::owner_exec) != fs::perms::none;
}

void CopyOne(const fs::path& from, const fs::path& to) {
    if (IsBinary(from)) {
        std::error_code error;
        fs::create_hard_link(from, to, error);
        if (!error) return;
    }
    fs::copy_file(from, to);
}

}  // namespace

fs::path StageFolder() {
    return PathFromUtf8(RQ_STAGE_DIR);
}

void CopyStage(const fs::path& to) {
    const fs::path stage = StageFolder();
    fs::create_directories(to);
    for (const auto& entry : fs::recursive_directory_iterator(stage)) {
        const fs::path target = to / entry.path().lexically_relative(stage);
        if (entry.is_directory()) {
            fs::create_directories(target);
        } else {
            CopyOne(entry.path(), target);
        }
    }
}

fs::path ProgramIn(const fs::path& folder, std::string_view name) {
    fs::path plain = folder / PathFromUtf8(name);
    fs::path windows = plain;
    windows += ".exe";
    return fs::exists(windows) ? windows : plain;
}

}  // namespace rq::kit
