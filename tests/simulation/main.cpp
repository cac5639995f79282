// rq_simulation [--seed N] [--schedules N] [--trace] [--repeat]
//
// Runs schedules, one seed after the other, and ends with 1 at the first that violates what must hold. The
// same seed gives the same schedule. --trace prints each schedule's trace; --repeat runs each seed twice and
// compares the traces.
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "simulation/world.h"
#include "worker/worker_base.h"

namespace {

using rq::sim::Counts;
using rq::sim::Trace;

// Real time for one schedule, far beyond any: a thread waits for something that is none of the schedule's.
constexpr unsigned kLongestSchedule_s = 120;
// Run before the others, so that what a process does once is done when the first one counts.
constexpr std::uint64_t kWarmUpSeed = 0xA11CE;
constexpr int kWarmUps = 40;

struct Options {
    std::uint64_t seed = 1;
    std::uint64_t schedules = 1;
    bool isTraced = false;
    bool isRepeated = false;
};

Options ReadOptions(int count, char** arguments) {
    Options options;
    for (int i = 1; i < count; ++i) {
        const std::string name = arguments[i];
        if (name == "--trace") {
            options.isTraced = true;
        } else if (name == "--repeat") {
            options.isRepeated = true;
        } else if ((name == "--seed" || name == "--schedules") && i + 1 < count) {
            (name == "--seed" ? options.seed : options.schedules) =
                std::strtoull(arguments[++i], nullptr, 10);
        } else {
            std::fprintf(stderr, "usage: %s [--seed N] [--schedules N] [--trace] [--repeat]\n", arguments[0]);
            std::exit(2);
        }
    }
    return options;
}

void RunOne(std::uint64_t seed, Trace& trace, Counts& counts) {
    alarm(kLongestSchedule_s);
    trace.Begin(seed);
    rq::sim::World(seed, trace, counts).Run();
    alarm(0);
}

// The threads of a schedule take turns: on one processor a turn costs less.
void StayOnOneProcessor() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &set);
    sched_setaffinity(0, sizeof set, &set);
}

void Print(const Counts& counts, std::uint64_t digest, double real_s) {
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    std::printf("%llu schedules in %.1f s: %llu steps, %.0f s of fake time, %llu threads\n",
                number(counts.schedules), real_s, number(counts.steps),
                static_cast<double>(counts.time) / 1e9, number(counts.threads));
    std::printf(
        "%llu sends, of these %llu progress, %llu heartbeats; %llu orders; %llu final statuses "
        "accepted, %llu retries\n",
        number(counts.sends), number(counts.progress), number(counts.heartbeats), number(counts.orders),
        number(counts.finalsAccepted), number(counts.finalsRetried));
    std::printf(
        "%llu losses, %llu stalled tasks, %llu engine crashes, %llu lost acknowledgements, %llu failed "
        "commits\n",
        number(counts.losses), number(counts.stalls), number(counts.crashes), number(counts.lostAcks),
        number(counts.failedCommits));
    std::printf("digest %016llx\n", number(digest));
}

}  // namespace

int main(int count, char** arguments) {
    const Options options = ReadOptions(count, arguments);
    setenv("TZ", "UTC", 1);
    rq::sim::SetFailureReport(arguments[0], options.isTraced);
    rq::ProcessCommandLine().ServerPortOverride = 8083;
    StayOnOneProcessor();

    Trace trace;
    Counts ignored;
    for (int i = 0; i < kWarmUps; ++i) RunOne(kWarmUpSeed + static_cast<std::uint64_t>(i), trace, ignored);

    Counts counts;
    std::uint64_t digest = 0;
    const auto begin = std::chrono::steady_clock::now();
    for (std::uint64_t seed = options.seed; seed < options.seed + options.schedules; ++seed) {
        RunOne(seed, trace, counts);
        digest = digest * 31 + trace.Digest();
        if (options.isTraced) std::fwrite(trace.Text().data(), 1, trace.Text().size(), stdout);
        if (!options.isRepeated) continue;
        const std::string first = trace.Text();
        RunOne(seed, trace, ignored);
        if (trace.Text() == first) continue;
        std::size_t same = 0;
        while (same < first.size() && same < trace.Text().size() && first[same] == trace.Text()[same]) ++same;
        std::fprintf(
            stderr,
            "FAILED: seed %llu gives another trace the second time, from byte %zu on:\n%s\nand:\n%s\n",
            static_cast<unsigned long long>(seed), same, first.substr(same, 300).c_str(),
            trace.Text().substr(same, 300).c_str());
        return 1;
    }
    const std::chrono::duration<double> real = std::chrono::steady_clock::now() - begin;
    Print(counts, digest, real.count());
    return 0;
}
