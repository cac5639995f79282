// Measures a worker from its engine's side. bench/link.sh runs it; WORKER... is the worker's program and its
// arguments, of which "{port}" becomes the engine's port. The worker's own first task must have number 0.
//
//   bench_link backlog COUNT WORKER...          tasks a second, frames a task, reads a task, microseconds of
//   the
//                                               worker's processor time a task
//   bench_link single COUNT WORKER...           microseconds from submit to final status: median, 99th
//   percentile bench_link start COUNT TRIVIAL WORKER...    milliseconds: start to notice; start of the
//   program TRIVIAL bench_link memory COUNT WORKER...           KiB when idle: resident, proportional; the
//   same after COUNT tasks
#include <sys/resource.h>

#include <csignal>
#include <fstream>
#include <optional>
#include <utility>

#include "engine.h"

namespace {

using namespace bench;

// Tasks that come first and do not count.
constexpr unsigned kWarmUp = 200;

class Worker {
  public:
    Worker(Engine& engine, std::vector<std::string> command) : m_engine(engine) {
        for (std::string& text : command)
            if (text == "{port}") text = std::to_string(engine.Port());
        m_id = Spawn(command);
        engine.TakeWorker();
        // An order that comes before the worker has its own task may take that one's place.
        while (!engine.IsNotified()) engine.Step();
        m_notified = Now();
        while (engine.Finals() == 0) engine.Step();
    }
    ~Worker() {
        m_engine.End();
        for (int i = 0; i < 500; ++i) {
            if (waitpid(m_id, nullptr, WNOHANG) == m_id) {
                std::erase(Children(), m_id);
                return;
            }
            usleep(10'000);
        }
        Die("the worker did not end with its session");
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    pid_t Id() const { return m_id; }
    Time NotifiedAt() const { return m_notified; }

  private:
    Engine& m_engine;
    pid_t m_id = 0;
    Time m_notified;
};

void RunTasks(Engine& engine, unsigned first, unsigned count) {
    for (unsigned i = first; i < first + count; ++i) engine.Add(TaskText(i));
    while (engine.Finals() < first + count) engine.Step();
}

// Of the children that have ended.
double ProcessorSeconds() {
    rusage used{};
    getrusage(RUSAGE_CHILDREN, &used);
    const auto seconds = [](const timeval& time) {
        return double(time.tv_sec) + double(time.tv_usec) * 1e-6;
    };
    return seconds(used.ru_utime) + seconds(used.ru_stime);
}

int Backlog(unsigned count, const std::vector<std::string>& command) {
    Engine engine;
    std::optional<Worker> worker;
    worker.emplace(engine, command);
    RunTasks(engine, 1, kWarmUp - 1);
    const unsigned frames = engine.Frames();
    const unsigned reads = engine.Reads();
    const Time begin = Now();
    RunTasks(engine, kWarmUp, count);
    const double seconds = Seconds(begin, Now());
    const double framesEach = double(engine.Frames() - frames) / count;
    const double readsEach = double(engine.Reads() - reads) / count;
    worker.reset();
    std::printf("%.1f %.2f %.2f %.1f\n", count / seconds, framesEach, readsEach,
                ProcessorSeconds() / (kWarmUp + count) * 1e6);
    return 0;
}

// A process of its own: it hands in a text, and waits for the answer that names the task.
int Submitter(unsigned count, std::uint16_t port) {
    const int socket = Connect(port);
    std::vector<double> seconds;
    for (unsigned i = 1; i < kWarmUp + count; ++i) {
        const Time begin = Now();
        WriteAll(socket, TaskText(i));
        std::string answer;
        while (answer.size() < TaskId(i).size()) Check(ReadSome(socket, &answer), "the engine closed");
        if (i >= kWarmUp) seconds.push_back(Seconds(begin, Now()));
        Check(answer == TaskId(i), "the engine answered for another task");
    }
    PrintMedianAnd99th_us(seconds);
    std::fflush(stdout);
    return 0;
}

int Single(unsigned count, const std::vector<std::string>& command) {
    std::uint16_t port = 0;
    const int listener = Listen(&port);
    const pid_t submitter = fork();
    if (submitter == 0) std::exit(Submitter(count, port));
    if (submitter < 0) DieOfErrno("fork");
    Children().push_back(submitter);
    Engine engine;
    const Worker worker(engine, command);
    const int socket = Accept(listener);
    unsigned told = engine.Finals();
    std::string text;
    for (;;) {
        if (engine.Step(socket)) {
            if (!ReadSome(socket, &text)) break;
            // One submission at a time, of one known size.
            if (text.size() == TaskText(0).size()) engine.Add(std::exchange(text, {}));
        }
        if (engine.Finals() > told) WriteAll(socket, engine.LastFinalId());
        told = engine.Finals();
    }
    std::printf("%.2f %.2f\n", double(engine.Frames()) / engine.Finals(),
                double(engine.Reads()) / engine.Finals());
    int status = 0;
    waitpid(submitter, &status, 0);
    return status == 0 ? 0 : 1;
}

double StartToNotice(const std::vector<std::string>& command) {
    Engine engine;
    const Time begin = Now();
    const Worker worker(engine, command);
    return Seconds(begin, worker.NotifiedAt());
}

double StartToMain(const std::string& program) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) DieOfErrno("pipe");
    const Time begin = Now();
    const pid_t child = Spawn({program}, ends[1]);
    std::string said;
    Check(ReadSome(ends[0], &said), "the program said nothing");
    const Time end = Now();
    waitpid(child, nullptr, 0);
    std::erase(Children(), child);
    close(ends[0]);
    close(ends[1]);
    return Seconds(begin, end);
}

int Start(unsigned count, std::vector<std::string> command) {
    const std::string trivial = command.front();
    command.erase(command.begin());
    std::vector<double> ours;
    std::vector<double> other;
    for (unsigned i = 0; i <= count; ++i) {
        ours.push_back(StartToNotice(command));
        other.push_back(StartToMain(trivial));
        if (i > 0) continue;  // the first ones only fill the cache
        ours.clear();
        other.clear();
    }
    std::printf("%.3f %.3f\n", Quantile(ours, 0.5) * 1e3, Quantile(other, 0.5) * 1e3);
    return 0;
}

std::string MemoryOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/smaps_rollup");
    std::string resident;
    std::string proportional;
    for (std::string word; file >> word;) {
        if (word == "Rss:") file >> resident;
        if (word == "Pss:") file >> proportional;
    }
    Check(!resident.empty() && !proportional.empty(), "the worker's memory cannot be read");
    return resident + " " + proportional;
}

int Memory(unsigned count, const std::vector<std::string>& command) {
    Engine engine;
    const Worker worker(engine, command);
    sleep(2);
    const std::string idle = MemoryOf(worker.Id());
    RunTasks(engine, 1, count);
    sleep(2);
    std::printf("%s %s\n", idle.c_str(), MemoryOf(worker.Id()).c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Check(argc > 3, "usage: bench_link backlog|single|start|memory COUNT [TRIVIAL] WORKER...");
    const std::string_view mode = argv[1];
    const auto count = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
    const std::vector<std::string> command(argv + 3, argv + argc);
    if (mode == "backlog") return Backlog(count, command);
    if (mode == "single") return Single(count, command);
    if (mode == "start") return Start(count, command);
    if (mode == "memory") return Memory(count, command);
    Die("there is no such measurement");
}
