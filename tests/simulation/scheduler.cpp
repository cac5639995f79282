#include "simulation/scheduler.h"

#include <algorithm>
#include <utility>

#include "simulation/posix_calls.h"

namespace rq::sim {
namespace {

// A schedule has a few thousand; one that never ends has passed this soon.
constexpr std::uint64_t kMostSteps = 3'000'000;

thread_local Scheduler::Thread* t_current = nullptr;

struct Body {
    std::function<void()> function;
    static void* Run(void* body) {
        static_cast<Body*>(body)->function();
        return nullptr;
    }
};

}  // namespace

Scheduler::Scheduler(std::uint64_t seed, Strategy strategy, Trace& trace)
    : m_random(seed), m_strategy(strategy), m_trace(trace) {
    sem_init(&m_allDone, 0, 0);
}

Scheduler::~Scheduler() {
    sem_destroy(&m_allDone);
    for (const auto& thread : m_threads) sem_destroy(&thread->turn);
}

Scheduler::Thread* Scheduler::Current() {
    return t_current;
}

void Scheduler::Run(const std::string& firstName, std::function<void()> first, const std::string& secondName,
                    std::function<void()> second) {
    Body bodies[] = {{std::move(first)}, {std::move(second)}};
    const std::string* names[] = {&firstName, &secondName};
    for (int i = 0; i < 2; ++i) {
        Thread& thread = Add(*names[i]);
        thread.function = &Body::Run;
        thread.argument = &bodies[i];
        if (RealCreate(&thread.handle, nullptr, &Scheduler::Enter, &thread) != 0)
            Fail("no thread could be started");
    }
    Thread& begins = Pick();
    m_trace.Switch(begins.name);
    sem_post(&begins.turn);
    while (sem_wait(&m_allDone) != 0) {
    }
    for (int i = 0; i < 2; ++i) RealJoin(m_threads[static_cast<std::size_t>(i)]->handle, nullptr);
}

Scheduler::Thread& Scheduler::Add(std::string name) {
    auto thread = std::make_unique<Thread>();
    thread->owner = this;
    thread->number = m_started++;
    thread->name = std::move(name);
    thread->priority = m_random.Next();
    sem_init(&thread->turn, 0, 0);
    return *m_threads.emplace_back(std::move(thread));
}

void* Scheduler::Enter(void* argument) {
    Thread& self = *static_cast<Thread*>(argument);
    while (sem_wait(&self.turn) != 0) {
    }
    t_current = &self;
    self.result = self.function(self.argument);
    Scheduler& scheduler = *self.owner;
    if (scheduler.m_observer != nullptr) scheduler.m_observer->OnThreadEnd(self);
    scheduler.Note("ends");
    self.state = Thread::State::Done;
    scheduler.WakeAll(&self);
    t_current = nullptr;
    for (const auto& other : scheduler.m_threads) {
        if (other->state == Thread::State::Done) continue;
        Thread& next = scheduler.Pick();
        scheduler.m_trace.Switch(next.name);
        sem_post(&next.turn);
        return self.result;
    }
    sem_post(&scheduler.m_allDone);
    return self.result;
}

void Scheduler::Note(std::string_view text) {
    m_trace.Line(m_now, t_current != nullptr ? std::string_view(t_current->name) : "", text);
}

void Scheduler::Fail(const std::string& what) {
    FailSchedule(m_trace, what + "\nthe threads:" + Waiting());
}

std::string Scheduler::Waiting() const {
    std::string text;
    for (const auto& thread : m_threads) {
        if (thread->state == Thread::State::Done) continue;
        text += "\n  " + thread->name;
        if (thread->state == Thread::State::Ready) {
            text += ": can go on";
        } else {
            text += std::string(": waits for a ") + thread->waitsFor;
            if (thread->deadline != kNever)
                text += " until " + std::to_string(static_cast<double>(thread->deadline) / 1e9) + " s";
        }
    }
    return text;
}

// ---- the baton ----

void Scheduler::CollectReady() {
    m_ready.clear();
    for (const auto& thread : m_threads) {
        if (thread->state == Thread::State::Blocked) {
            const bool isDue = thread->deadline <= m_now;
            const bool isSpurious = thread->onCondition && m_random.OneIn(m_strategy.spuriousOneIn);
            if (!isDue && !isSpurious) continue;
            thread->state = Thread::State::Ready;
            thread->timedOut = isDue;
        }
        if (thread->state == Thread::State::Ready) m_ready.push_back(thread.get());
    }
}

Scheduler::Thread& Scheduler::Choose() {
    if (!m_strategy.byPriority) return *m_ready[m_random.Below(m_ready.size())];
    Thread* best = *std::max_element(m_ready.begin(), m_ready.end(), [](const Thread* a, const Thread* b) {
        return a->priority < b->priority;
    });
    if (m_random.OneIn(16)) best->priority = m_random.Next();
    return *best;
}

Scheduler::Thread& Scheduler::Pick() {
    if (++m_step > kMostSteps) Fail("the schedule does not end");
    m_now += kMicrosecond;
    if (m_random.OneIn(m_strategy.stallOneIn)) m_now += m_random.Between(0, m_strategy.longestStall_ns);
    CollectReady();
    if (m_ready.empty()) {
        std::int64_t earliest = kNever;
        for (const auto& thread : m_threads) {
            if (thread->state == Thread::State::Blocked) earliest = std::min(earliest, thread->deadline);
        }
        if (earliest == kNever) Fail("deadlock: no thread can go on and nothing is due");
        m_now = earliest;
        CollectReady();
    }
    return Choose();
}

void Scheduler::Switch() {
    Thread& self = *t_current;
    Thread& next = Pick();
    if (&next == &self) return;
    m_trace.Switch(next.name);
    sem_post(&next.turn);
    while (sem_wait(&self.turn) != 0) {
    }
}

void Scheduler::MayPreempt() {
    if (m_random.OneIn(m_strategy.preemptOneIn)) Switch();
}

bool Scheduler::Block(const void* channel, const char* waitsFor, std::int64_t deadline, bool onCondition) {
    Thread& self = *t_current;
    self.state = Thread::State::Blocked;
    self.channel = channel;
    self.waitsFor = waitsFor;
    self.deadline = deadline;
    self.onCondition = onCondition;
    self.timedOut = false;
    Switch();
    self.channel = nullptr;
    self.deadline = kNever;
    return !self.timedOut;
}

void Scheduler::WakeOne(const void* channel) {
    m_ready.clear();
    for (const auto& thread : m_threads) {
        if (thread->state == Thread::State::Blocked && thread->channel == channel)
            m_ready.push_back(thread.get());
    }
    if (m_ready.empty()) return;
    m_ready[m_random.Below(m_ready.size())]->state = Thread::State::Ready;
}

void Scheduler::WakeAll(const void* channel) {
    for (const auto& thread : m_threads) {
        if (thread->state == Thread::State::Blocked && thread->channel == channel)
            thread->state = Thread::State::Ready;
    }
}

// ---- threads ----

int Scheduler::Start(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*),
                     void* argument) {
    Thread& thread = Add(m_observer != nullptr ? m_observer->NameOf(m_started) : "thread");
    thread.function = function;
    thread.argument = argument;
    const int error = RealCreate(&thread.handle, attributes, &Scheduler::Enter, &thread);
    if (error != 0) Fail("no thread could be started");
    *handle = thread.handle;
    Note("starts " + thread.name);
    MayPreempt();
    return 0;
}

int Scheduler::Join(pthread_t handle, void** result) {
    // The latest: a handle may be used anew.
    for (auto place = m_threads.rbegin(); place != m_threads.rend(); ++place) {
        Thread& thread = **place;
        if (pthread_equal(thread.handle, handle) == 0) continue;
        while (thread.state != Thread::State::Done) Block(&thread, "thread's end", kNever);
        if (result != nullptr) *result = thread.result;
        return RealJoin(handle, nullptr);  // it is past its last step
    }
    Fail("a thread that is none of the schedule's is joined");
}

// ---- locks and conditions ----

void Scheduler::Lock(pthread_mutex_t* mutex) {
    MayPreempt();
    for (;;) {
        Held& held = m_locks[mutex];
        if (held.owner == nullptr || held.owner == t_current) {
            const bool isRecursive = (mutex->__data.__kind & 3) == PTHREAD_MUTEX_RECURSIVE_NP;
            if (held.owner != nullptr && !isRecursive) Fail("a thread takes a lock that it holds");
            held.owner = t_current;
            ++held.count;
            return;
        }
        ++held.waiters;
        Block(mutex, "lock", kNever);
        --m_locks[mutex].waiters;
    }
}

bool Scheduler::TryLock(pthread_mutex_t* mutex) {
    MayPreempt();
    Held& held = m_locks[mutex];
    if (held.owner != nullptr) return false;
    held.owner = t_current;
    held.count = 1;
    return true;
}

void Scheduler::Release(pthread_mutex_t* mutex) {
    const auto found = m_locks.find(mutex);
    if (found == m_locks.end() || found->second.owner != t_current)
        Fail("a thread lets go of a lock that it does not hold");
    if (--found->second.count > 0) return;
    found->second.owner = nullptr;
    if (found->second.waiters == 0)
        m_locks.erase(found);  // the memory may become another lock
    else
        WakeAll(mutex);
}

void Scheduler::Unlock(pthread_mutex_t* mutex) {
    Release(mutex);
    MayPreempt();
}

bool Scheduler::Wait(pthread_cond_t* condition, pthread_mutex_t* mutex, std::int64_t deadline) {
    Thread& self = *t_current;
    if (deadline != kNever && m_observer != nullptr) m_observer->OnTimedWait(self);
    Release(mutex);
    const bool woken = Block(condition, "condition", deadline, true);
    Lock(mutex);
    if (deadline != kNever) {
        self.wokeAtStep = ++m_step;
        if (!woken && m_observer != nullptr) m_observer->OnTimedOut(self);
    }
    return woken;
}

}  // namespace rq::sim
