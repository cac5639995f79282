// Workers in turn on real threads: the worker core, its runner, its supervision and, in every other life, the
// engine link's client on a socket, against a plug-in that tells progress 10,000 times a second and orders of
// every kind from another thread. What it looks for are races, crashes and lives that do not end; run it
// under the checkers.
//
// RQ_STRESS_SECONDS (10, under a checker 60) is how long new lives begin; RQ_STRESS_SEED (1) is the first
// life's seed, the next one's is one more. Each life is announced by its seed; RQ_STRESS_SECONDS=0 with that
// seed draws it again alone.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "kit/temp_dir.h"
#include "platform/process_facts.h"
#include "stress/life.h"
#include "util/capture_hub.h"

namespace rq::stress {
namespace {

// Of one life, which takes a second at most: only one that hangs comes to this.
constexpr std::chrono::seconds kLongestLife{120};
// So many must have met everything.
constexpr std::uint64_t kManyLives = 200;

std::uint64_t FromEnvironment(const char* name, std::uint64_t otherwise) {
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

// Ends the process when a life does not end.
class Watchdog {
  public:
    Watchdog() : m_thread([this] { Run(); }) {}
    ~Watchdog() {
        {
            Signal::Hold hold(m_signal);
            m_isOver = true;
            m_signal.Notify(hold);
        }
        m_thread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void Feed() { m_signal.Notify(); }

  private:
    void Run() {
        Signal::Hold hold(m_signal);
        while (!m_isOver) {
            if (m_signal.WaitFor(hold, kLongestLife)) continue;
            std::fprintf(stderr, "stress: the worker does not end\n");
            std::abort();
        }
    }

    Signal m_signal;
    bool m_isOver RQ_GUARDED_BY(m_signal) = false;
    std::thread m_thread;
};

// Keeps the workers' console texts to themselves.
class SilentConsole final : private ConsoleListener {
  public:
    SilentConsole() { ConsoleHub().Add(this); }
    ~SilentConsole() override { ConsoleHub().Remove(this); }
    SilentConsole(const SilentConsole&) = delete;
    SilentConsole& operator=(const SilentConsole&) = delete;

  private:
    void Receive(const std::string&) override {}
};

// The system may list a thread for a moment after it was joined.
bool WaitForThreads(std::size_t count) {
    for (int i = 0; i < 2'000 && platform::ThreadCount() > count; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return platform::ThreadCount() <= count;
}

void Print(Counts& counts) {
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    const double performing_s = std::chrono::duration<double>(counts.performing).count();
    std::printf("%llu lives, %llu tasks, %llu reports of progress, %.0f a second\n", number(counts.lives),
                number(counts.tasks), number(counts.reports),
                static_cast<double>(counts.reports) / performing_s);
    std::printf("%llu sends, %llu refused, %llu final statuses accepted, %llu stalls, %llu of them late\n",
                number(counts.sends), number(counts.refused), number(counts.finals), number(counts.stalls),
                number(counts.lateStalls));
    std::printf("orders:");
    for (const auto& [id, count] : counts.orders) std::printf(" %u: %llu", id, number(count));
    std::printf("\n");
}

TEST(Stress, WorkersInTurnUnderRandomOrders) {
    const std::uint64_t length_s = FromEnvironment("RQ_STRESS_SECONDS", RQ_STRESS_SECONDS);
    std::uint64_t seed = FromEnvironment("RQ_STRESS_SEED", 1);
    const kit::TempDir folder;
    const kit::ScopedDirectory directory(folder.Path());  // the runner moves it
    folder.Write("fake/here", "");
    std::string table = "<c>";
    for (const int type : {0, 1, 3, 14, 23})
        table += "<WORKER><TYPE>" + std::to_string(type) + "</TYPE><PATH>fake/fake.so</PATH></WORKER>";
    folder.Write("RQWorkerConfig.xml", table + "</c>");

    const SilentConsole console;
    Watchdog watchdog;
    Counts counts;
    const std::size_t threads = platform::ThreadCount();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(length_s);
    do {
        watchdog.Feed();
        const Draw draw = MakeDraw(seed++);
        std::fprintf(stderr, "%s\n", Describe(draw).c_str());
        for (const std::string& failure : LiveOneLife(draw, folder.Path(), counts))
            ADD_FAILURE() << failure << "; again with RQ_STRESS_SECONDS=0 " << Describe(draw);
        EXPECT_TRUE(WaitForThreads(threads)) << "threads are left after " << Describe(draw);
    } while (!HasFailure() && std::chrono::steady_clock::now() < end);

    Print(counts);
    if (HasFailure() || counts.lives < kManyLives) return;
    for (std::uint32_t id = TCP_TASK_CANCEL_ID; id <= TCP_TASK_FINISH_REPLY_ID; ++id)
        EXPECT_GT(counts.orders[id], 0u) << id;
    EXPECT_GT(counts.orders[TCP_SERVER_DISCONNECT_ID], 0u);
    EXPECT_GT(counts.finals, 0u);
    EXPECT_GT(counts.refused, 0u);
    EXPECT_GT(counts.stalls, 0u);
}

}  // namespace
}  // namespace rq::stress
