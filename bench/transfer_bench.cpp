// transfer_bench SOURCE TARGET folder: copies the folder as a task does, and prints the seconds until all of
// it has its names, synced, and the most memory that the process had, in KiB. transfer_bench SOURCE TARGET
// none|md5|sha256: copies the file as the transfer plug-in does, and prints the seconds until the bytes were
// handed to the system, and until the target had its name, with a sync between them; the digest; and the most
// memory that the process had, in KiB (0 where /proc does not say).
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>

#include "copy_stream.h"
#include "transfer_work.h"

static long PeakMemory_KiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    return 0;
}

static int CopyFolder(const char* source, const char* target) {
    const auto begin = std::chrono::steady_clock::now();
    rq::transfer::TransferTask task;
    task.id = "bench";
    task.items.push_back({source, target, {}, {}});
    rq::transfer::TransferRecord record(std::move(task));
    rq::plugin::Run run(nullptr, nullptr, nullptr, nullptr);
    const rq::plugin::Host host;
    if (rq::transfer::TransferWork(record, run, host).Do() != rq::plugin::Outcome::kFinished) return 1;
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    std::printf("%.6f %ld\n", taken.count(), PeakMemory_KiB());
    return 0;
}

int main(int argc, char** argv) {
    using Clock = std::chrono::steady_clock;
    if (argc != 4) return 2;
    const std::string digest = argv[3];
    if (digest == "folder") return CopyFolder(argv[1], argv[2]);
    rq::task::InputFile source;
    rq::task::Publication target;
    const auto begin = Clock::now();
    if (source.Open(argv[1]) != 0 || target.Begin(argv[2], {argv[1]}, true)) return 1;
    rq::transfer::RateLimit limit(0);
    rq::transfer::StreamJob job{source};
    job.target = &target;
    job.md5 = digest == "md5";
    job.sha256 = digest == "sha256";
    job.limit = &limit;
    job.goOn = [](std::uint64_t) { return true; };
    const auto result = rq::transfer::RunStream(std::move(job));
    if (result.end != rq::transfer::StreamResult::End::kDone) return 1;
    const std::chrono::duration<double> copied = Clock::now() - begin;
    if (target.Publish([](const std::string&) { return true; })) return 1;
    const std::chrono::duration<double> published = Clock::now() - begin;
    const std::string hex =
        result.digests.md5 ? rq::task::HexOf(result.digests.md5->data(), result.digests.md5->size()) : "-";
    std::printf("%.6f %.6f %s %ld\n", copied.count(), published.count(), hex.c_str(), PeakMemory_KiB());
    return 0;
}
