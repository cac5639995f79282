// Drives a real rqengine for bench/package.sh, bench/submit.sh and bench/idle.sh.
//
//   engine_bench submit HTTP-PORT TOKEN CLIENTS COUNT
//       COUNT submissions by so many clients at once, each with a connection that it keeps; prints
//       submissions a second
//   engine_bench backlog HTTP-PORT TOKEN COUNT
//       COUNT package tasks wait for one worker; prints tasks a second, from the first one's end to the last
//       one's
//   engine_bench single HTTP-PORT TOKEN COUNT
//       one at a time, each waited for; prints microseconds: median, 99th percentile
//   engine_bench idle LINK-PORT TOKEN COUNT ENGINE-PROCESS SECONDS
//       COUNT workers, started by hand, connect at once and then say nothing but heartbeats; prints the
//       milliseconds until all are welcomed, the engine's bytes for each, and its processor milliseconds in
//       the SECONDS after
#include <fstream>
#include <sstream>
#include <thread>

#include "../link/wire.h"
#include "http.h"

namespace {

using namespace bench;

void SubmitAll(std::uint16_t port, const std::string& token, unsigned clients, unsigned count) {
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < clients; ++i) {
        threads.emplace_back([=] {
            Http http(port, token);
            for (unsigned j = i; j < count; j += clients) http.Submit(j);
        });
    }
    for (auto& thread : threads) thread.join();
}

int Submit(std::uint16_t port, const std::string& token, unsigned clients, unsigned count) {
    SubmitAll(port, token, clients, clients * 8);
    const Time begin = Now();
    SubmitAll(port, token, clients, count);
    std::printf("%.1f\n", count / Seconds(begin, Now()));
    return 0;
}

int Backlog(std::uint16_t port, const std::string& token, unsigned count) {
    Http http(port, token);
    http.Ask("POST", "/api/v1/drain", "{}");
    const std::string first = http.Submit(0);
    SubmitAll(port, token, 8, count - 2);
    const std::string last = http.Submit(count - 1);
    http.Ask("POST", "/api/v1/undrain", "{}");
    http.Await(first);
    const Time begin = Now();
    http.Await(last);
    std::printf("%.1f\n", (count - 1) / Seconds(begin, Now()));
    return 0;
}

int Single(std::uint16_t port, const std::string& token, unsigned count) {
    Http http(port, token);
    std::vector<double> seconds;
    for (unsigned i = 0; i < count + 20; ++i) {
        const Time begin = Now();
        http.Await(http.Submit(i));
        if (i >= 20) seconds.push_back(Seconds(begin, Now()));
    }
    PrintMedianAnd99th_us(seconds);
    return 0;
}

// ---- workers that do nothing ----

double Memory_bytes(const std::string& process) {
    std::ifstream status("/proc/" + process + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, 6, "VmRSS:") == 0) return std::strtod(line.c_str() + 6, nullptr) * 1024;
    Die("the engine's memory cannot be read");
}
double Processor_ms(const std::string& process) {
    std::ifstream file("/proc/" + process + "/stat");
    std::string text;
    std::getline(file, text);
    text.erase(0, text.rfind(')') + 1);
    char state = 0;
    long values[13] = {};
    std::istringstream rest(text);
    rest >> state;
    for (long& value : values) rest >> value;
    return double(values[10] + values[11]) * 1000 / double(sysconf(_SC_CLK_TCK));
}

std::string HelloFrame(const std::string& token, unsigned number) {
    std::string body, frame;
    AddNumber(&body, 1, 1);
    AddBytes(&body, 2, token);
    AddNumber(&body, 4, 100'000 + number);
    AddFrame(&frame, {0, 0, kHello, body});
    return frame;
}

int Idle(std::uint16_t port, const std::string& token, unsigned count, const std::string& engine,
         unsigned seconds) {
    const double before = Memory_bytes(engine);
    std::vector<int> sockets(count);
    std::vector<Input> inputs(count);
    const Time begin = Now();
    for (unsigned i = 0; i < count; ++i) {
        sockets[i] = Connect(port);
        WriteAll(sockets[i], HelloFrame(token, i));
        Frame frame;
        while (!inputs[i].Next(&frame)) Check(inputs[i].Feed(sockets[i]), "a connection was closed");
        Check(frame.id == kWelcome, "a worker was refused");
    }
    const double welcomed_ms = Seconds(begin, Now()) * 1000;
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const double each_bytes = (Memory_bytes(engine) - before) / count;
    const double used = Processor_ms(engine);
    const Time end = Now() + std::chrono::seconds(seconds);
    // A ping is answered, as a worker's link does.
    std::vector<pollfd> waiting;
    for (const int one : sockets) waiting.push_back({one, POLLIN, 0});
    while (Now() < end) {
        if (poll(waiting.data(), waiting.size(), 200) <= 0) continue;
        for (unsigned i = 0; i < count; ++i) {
            if (waiting[i].revents == 0) continue;
            Check(inputs[i].Feed(sockets[i]), "a connection was closed");
            std::string ack;
            for (Frame frame; inputs[i].Next(&frame);)
                if (frame.id == kPing) AddFrame(&ack, {0, 0, kAck, {}});
            if (!ack.empty()) WriteAll(sockets[i], ack);
        }
    }
    std::printf("%.0f %.0f %.0f\n", welcomed_ms, each_bytes, Processor_ms(engine) - used);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Check(argc >= 5, "usage: engine_bench submit|backlog|single|idle PORT TOKEN ...");
    const std::string_view mode = argv[1];
    const auto port = static_cast<std::uint16_t>(std::strtoul(argv[2], nullptr, 10));
    const std::string token = argv[3];
    const auto number = [&](int i) {
        return static_cast<unsigned>(i < argc ? std::strtoul(argv[i], nullptr, 10) : 0);
    };
    if (mode == "submit") return Submit(port, token, number(4), number(5));
    if (mode == "backlog") return Backlog(port, token, number(4));
    if (mode == "single") return Single(port, token, number(4));
    if (mode == "idle" && argc >= 7) return Idle(port, token, number(4), argv[5], number(6));
    Die("there is no such mode");
}
