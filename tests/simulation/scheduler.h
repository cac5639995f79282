// Scheduler: runs the threads of one schedule one at a time. Each is a real thread, but only the one that
// holds the baton goes on; the others wait for theirs. The baton changes hands where a thread waits (lock,
// condition, sleep, join) and, by chance, at locks and unlocks. Who gets it is drawn from the seed. Fake time
// advances by a microsecond a step, by an occasional stall, and, when every thread waits, to the earliest
// deadline. No thread that can go on and no deadline is a deadlock: the schedule fails.
//
// posix_calls.cpp puts this in the place of the C library's threads, locks, conditions, clocks and sleeps,
// for the threads of a schedule only: those for which Current() is not null. Everything here is called by the
// thread that holds the baton, except Run.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "simulation/random.h"
#include "simulation/trace.h"

namespace rq::sim {

inline constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
inline constexpr std::int64_t kMicrosecond = 1'000;
inline constexpr std::int64_t kMillisecond = 1'000'000;
inline constexpr std::int64_t kSecond = 1'000'000'000;

// How a schedule hands out the baton.
struct Strategy {
    std::uint64_t preemptOneIn = 0;  // at a lock or unlock; 0: never
    bool byPriority = false;         // the ready thread of highest priority, not any
    std::uint64_t stallOneIn = 0;    // a step that takes longer
    std::int64_t longestStall_ns = 0;
    std::uint64_t spuriousOneIn = 0;  // a condition's waiter goes on for no reason
};

class Scheduler {
  public:
    struct Thread {
        enum class State { Ready, Blocked, Done };
        Scheduler* owner = nullptr;
        int number = 0;
        std::string name;
        State state = State::Ready;
        const void* channel = nullptr;  // what it waits for
        const char* waitsFor = "";
        std::int64_t deadline = kNever;
        bool timedOut = false;
        bool onCondition = false;
        std::uint64_t priority = 0;
        std::uint64_t wokeAtStep = 0;  // from its latest wait with a deadline
        sem_t turn;
        void* (*function)(void*) = nullptr;
        void* argument = nullptr;
        void* result = nullptr;
        pthread_t handle{};
    };

    // What a schedule wants to see of its threads' waits with a deadline on a condition.
    struct Observer {
        virtual ~Observer() = default;
        // The name of a thread that a thread of the schedule starts; the two of Run have 0 and 1.
        virtual std::string NameOf(int number) = 0;
        virtual void OnTimedWait(Thread& thread) = 0;
        virtual void OnTimedOut(Thread& thread) = 0;
        virtual void OnThreadEnd(Thread& thread) = 0;
    };

    Scheduler(std::uint64_t seed, Strategy strategy, Trace& trace);
    ~Scheduler();
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    // From outside: runs `first` and `second` as threads of these names, and whatever threads they start, to
    // the end of all.
    void Run(const std::string& firstName, std::function<void()> first, const std::string& secondName,
             std::function<void()> second);

    // The calling thread, null when it is none of a schedule's.
    static Thread* Current();

    std::int64_t Now() const { return m_now; }
    std::uint64_t Step() const { return m_step; }
    Random& Chance() { return m_random; }
    void Note(std::string_view text);
    [[noreturn]] void Fail(const std::string& what);
    void SetObserver(Observer* observer) { m_observer = observer; }
    const std::vector<std::unique_ptr<Thread>>& Threads() const { return m_threads; }
    // The baton may go to another thread.
    void MayPreempt();
    // Waits for a wake of `channel` (true) or the deadline (false). May also return early with true.
    bool Block(const void* channel, const char* waitsFor, std::int64_t deadline, bool onCondition = false);
    void WakeOne(const void* channel);
    void WakeAll(const void* channel);

    // ---- what posix_calls.cpp makes of it ----
    int Start(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*), void* argument);
    int Join(pthread_t handle, void** result);
    void Lock(pthread_mutex_t* mutex);
    bool TryLock(pthread_mutex_t* mutex);
    void Unlock(pthread_mutex_t* mutex);
    // False when the deadline came.
    bool Wait(pthread_cond_t* condition, pthread_mutex_t* mutex, std::int64_t deadline);

  private:
    struct Held {
        Thread* owner = nullptr;
        int count = 0;
        int waiters = 0;
    };

    Thread& Add(std::string name);
    static void* Enter(void* thread);
    void Switch();
    Thread& Pick();
    Thread& Choose();
    void CollectReady();
    std::string Waiting() const;
    void Release(pthread_mutex_t* mutex);

    Random m_random;
    const Strategy m_strategy;
    Trace& m_trace;
    Observer* m_observer = nullptr;
    std::int64_t m_now = 0;
    std::uint64_t m_step = 0;
    int m_started = 0;
    std::vector<std::unique_ptr<Thread>> m_threads;
    std::vector<Thread*> m_ready;
    std::unordered_map<const void*, Held> m_locks;
    sem_t m_allDone;
};

}  // namespace rq::sim
