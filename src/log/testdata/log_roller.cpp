// A process that writes numbered lines to a log file which rolls early: rq_log_roller <file> <limit in bytes>
// <name> <threads> <lines of each>.
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "log/log_file.h"
#include "platform/arguments.h"

int main(int count, char** vector) {
    rq::platform::Arguments arguments(count, vector);
    if (arguments.Count() != 6) return 2;
    char** argv = arguments.Vector();
    const std::string name = argv[3];
    const int lines = std::atoi(argv[5]);
    // So many continuations that none is removed.
    rq::LogFile file(argv[1], rq::LogLimits{std::strtoull(argv[2], nullptr, 10), 100'000});
    std::vector<std::thread> writers;
    for (int t = 0; t < std::atoi(argv[4]); ++t) {
        writers.emplace_back([&file, &name, t, lines] {
            for (int i = 0; i < lines; ++i) {
                const std::string text = name + "." + std::to_string(t) + "." + std::to_string(i);
                const spdlog::source_loc place{"MAIN", 1, "ACT"};
                file.log(spdlog::details::log_msg(place, "log", spdlog::level::info, text));
                if (i % 10 == 9) file.flush();
            }
        });
    }
    for (std::thread& writer : writers) writer.join();
    return 0;
}
