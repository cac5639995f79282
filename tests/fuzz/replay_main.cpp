// Gives each file of a folder to LLVMFuzzerTestOneInput, which ends the process when something is wrong. The
// argument is the folder; an empty one is an error. One that takes longer than kBound_s has failed.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count);

namespace {

// Far more than any of them needs, sanitizers included.
constexpr double kBound_s = 20;

bool Replay(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    std::printf("%s, %zu bytes\n", file.filename().string().c_str(), bytes.size());
    std::fflush(stdout);
    const auto begin = std::chrono::steady_clock::now();
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    if (took.count() <= kBound_s) return true;
    std::printf("took %.1f s\n", took.count());
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    int replayed = 0;
    bool isGood = argc == 2;
    std::error_code problem;
    for (std::filesystem::directory_iterator i(isGood ? argv[1] : "", problem), end; !problem && i != end;
         i.increment(problem)) {
        isGood = Replay(i->path()) && isGood;
        ++replayed;
    }
    if (problem) std::printf("the folder cannot be read: %s\n", problem.message().c_str());
    std::printf("%d replayed\n", replayed);
    return isGood && !problem && replayed > 0 ? 0 : 1;
}
