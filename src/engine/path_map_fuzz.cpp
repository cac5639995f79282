// The mapping of paths in task texts, which reads every text that is submitted, on any bytes.
#include "engine/path_map.h"
#include "fuzz/checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
    using rq::fuzz::Require;
    const std::string_view text(reinterpret_cast<const char*>(bytes), count);
    static const rq::engine::PathMap map =
        rq::engine::PathMap::Make(
            {{"Z:\\media", "/srv/media"}, {"\\\\nas\\v", "/srv/a&b"}, {"/mnt", "C:\\m"}, {"/mnt/a", "/"}})
            .value();
    std::vector<rq::engine::MappedPath> mapped;
    const std::string result = map.Apply(text, &mapped);
    Require(map.Apply(text) == result, "the same, whether somebody wants to know what was mapped", text);
    Require(rq::engine::PathMap().Apply(text) == text, "an empty table changes nothing", text);
    if (mapped.empty()) {
        Require(result == text, "nothing changes where nothing is mapped", text);
        return 0;
    }
    std::size_t most = text.size();
    for (const rq::engine::MappedPath& path : mapped) {
        Require(map.Local(path.given) == path.local, "what is mapped is a path of the table", path.given);
        most += 6 * path.local.size();  // as references
    }
    Require(result.size() <= most, "nothing else grows", result);
    // Each of them stands there, where a table of another beginning finds it again.
    std::vector<rq::engine::MappedPath> again;
    static const rq::engine::PathMap other =
        rq::engine::PathMap::Make({{"/srv", "/x"}, {"C:\\m", "/y"}}).value();
    (void)other.Apply(result, &again);
    std::size_t found = 0;
    for (const rq::engine::MappedPath& path : mapped) found += other.Local(path.local) ? 1 : 0;
    Require(again.size() >= found, "what was put in is found again", result);
    return 0;
}
