// Worker and submitter of a gearmand, by libgearman, for bench/link.sh.
//
//   gearman fill PORT COUNT     submits COUNT background jobs
//   gearman drain PORT COUNT    performs COUNT jobs; prints jobs a second
//   gearman work PORT           performs jobs until it is ended
//   gearman submit PORT COUNT CLIENTS   COUNT background jobs by so many clients at once; prints jobs a
//   second gearman single PORT COUNT   one at a time, each waited for; prints microseconds: median, 99th
//   percentile
#include <libgearman/gearman.h>

#include <thread>

#include "common.h"

namespace {

using namespace bench;

constexpr unsigned kWarmUp = 200;
constexpr const char* kHost = "127.0.0.1";
constexpr const char* kFunction = "noop";

unsigned g_performed = 0;

gearman_return_t Perform(gearman_job_st* job, void*) {
    const std::string text = TaskText(g_performed++);
    const bool isInTurn = std::string_view(static_cast<const char*>(gearman_job_workload(job)),
                                           gearman_job_workload_size(job)) == text;
    return isInTurn ? GEARMAN_SUCCESS : GEARMAN_FATAL;
}

gearman_worker_st* MakeWorker(in_port_t port) {
    gearman_worker_st* worker = gearman_worker_create(nullptr);
    Check(worker != nullptr && gearman_success(gearman_worker_add_server(worker, kHost, port)) &&
              gearman_success(gearman_worker_define_function(worker, kFunction, std::strlen(kFunction),
                                                             gearman_function_create(Perform), 0, nullptr)),
          "no gearman worker");
    return worker;
}

int Drain(in_port_t port, unsigned count) {
    gearman_worker_st* worker = MakeWorker(port);
    Check(gearman_success(gearman_worker_work(worker)), "the worker failed");  // connects, too
    const Time begin = Now();
    for (unsigned i = 1; i < count; ++i)
        Check(gearman_success(gearman_worker_work(worker)), "the worker failed");
    std::printf("%.1f\n", (count - 1) / Seconds(begin, Now()));
    gearman_worker_free(worker);
    return 0;
}

int Work(in_port_t port) {
    gearman_worker_st* worker = MakeWorker(port);
    while (gearman_success(gearman_worker_work(worker))) {
    }
    return 0;
}

gearman_client_st* MakeClient(in_port_t port) {
    gearman_client_st* client = gearman_client_create(nullptr);
    Check(client != nullptr && gearman_success(gearman_client_add_server(client, kHost, port)),
          "no gearman client");
    return client;
}

int Fill(in_port_t port, unsigned count, unsigned first = 0, unsigned step = 1) {
    gearman_client_st* client = MakeClient(port);
    gearman_job_handle_t handle;
    for (unsigned i = first; i < count; i += step) {
        const std::string text = TaskText(i);
        Check(gearman_success(
                  gearman_client_do_background(client, kFunction, nullptr, text.data(), text.size(), handle)),
              "a job was not taken");
    }
    gearman_client_free(client);
    return 0;
}

void FillAtOnce(in_port_t port, unsigned count, unsigned clients) {
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < clients; ++i) threads.emplace_back([=] { Fill(port, count, i, clients); });
    for (auto& thread : threads) thread.join();
}

int Submit(in_port_t port, unsigned count, unsigned clients) {
    FillAtOnce(port, clients * 8, clients);
    const Time begin = Now();
    FillAtOnce(port, count, clients);
    std::printf("%.1f\n", count / Seconds(begin, Now()));
    return 0;
}

int Single(in_port_t port, unsigned count) {
    gearman_client_st* client = MakeClient(port);
    std::vector<double> seconds;
    for (unsigned i = 0; i < kWarmUp + count; ++i) {
        const std::string text = TaskText(i);
        std::size_t size = 0;
        gearman_return_t result = GEARMAN_MAX_RETURN;
        const Time begin = Now();
        free(gearman_client_do(client, kFunction, nullptr, text.data(), text.size(), &size, &result));
        if (i >= kWarmUp) seconds.push_back(Seconds(begin, Now()));
        Check(gearman_success(result), "a job did not end well");
    }
    PrintMedianAnd99th_us(seconds);
    gearman_client_free(client);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Check(argc >= 3, "usage: gearman fill|drain|work|single PORT [COUNT]");
    const std::string_view mode = argv[1];
    const auto port = static_cast<in_port_t>(std::strtoul(argv[2], nullptr, 10));
    const auto count = static_cast<unsigned>(argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 0);
    if (mode == "fill") return Fill(port, count);
    if (mode == "drain") return Drain(port, count);
    if (mode == "work") return Work(port);
    if (mode == "submit")
        return Submit(port, count, argc > 4 ? static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10)) : 1);
    if (mode == "single") return Single(port, count);
    Die("there is no such mode");
}
