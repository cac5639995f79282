// rq_generate write|check TOP: makes the files that come from the field table of the running parameters, or
// compares them with what stands under TOP. A build-time program of developers; not staged.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "records/generate_text.h"

namespace {

bool Read(const std::filesystem::path& path, std::string& text) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return !file.bad();
}

bool IsCurrent(const std::filesystem::path& path, const std::string& text) {
    std::string found;
    return Read(path, found) && found == text;
}

// A file that is current keeps its time stamp, so that nothing is built again for it.
bool Write(const std::filesystem::path& path, const std::string& text) {
    if (IsCurrent(path, text)) return true;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    return file.good();
}

}  // namespace

int main(int argc, char** argv) {
    const std::string verb = argc == 3 ? argv[1] : "";
    if (verb != "write" && verb != "check") {
        std::cerr << "usage: rq_generate write|check TOP\n";
        return 2;
    }
    int failures = 0;
    for (const rq::GeneratedFile& file : rq::GeneratedFiles()) {
        const std::filesystem::path path = std::filesystem::path(argv[2]) / file.path;
        if (verb == "write" ? Write(path, file.text) : IsCurrent(path, file.text)) continue;
        ++failures;
        std::cerr << file.path
                  << (verb == "write" ? ": cannot be written\n" : ": differs; build the target generate\n");
    }
    return failures == 0 ? 0 : 1;
}
