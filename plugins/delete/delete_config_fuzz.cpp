// The node's list of folders below which something may be deleted, any bytes.
#include "delete_task.h"
#include "fuzz/checks.h"
#include "plugin_common/file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
    using rq::fuzz::Require;
    const std::string_view text(reinterpret_cast<const char*>(bytes), count);
    const rq::del::AllowedFolders allowed = rq::del::ParseAllowedFolders("config", text);
    if (!allowed.words.empty()) {
        const std::string_view words = allowed.words;
        Require(words.substr(0, 8) == "config: ", "the file is named", words);
        rq::fuzz::RequireGoodRefusal(words.substr(8), text);
        Require(allowed.folders.empty(), "a list that is wrong allows nothing", text);
        return 0;
    }
    Require(!allowed.folders.empty(), "a list that is taken has folders", text);
    for (const std::string& folder : allowed.folders) {
        Require(rq::task::IsAbsolutePath(folder), "a folder that is taken is absolute", folder);
        const rq::del::PathParts path = rq::del::SplitPath(folder);
        Require(path.refusal.empty() && !path.parts.empty(), "and no whole file system", folder);
        Require(!rq::del::PlaceOf({folder}, path), "and does not lie below itself", folder);
        const auto below = rq::del::PlaceOf({folder}, rq::del::SplitPath(folder + "/x"));
        Require(below && below->below == std::vector<std::string>{"x"}, "but what is in it does", folder);
    }
    return 0;
}
