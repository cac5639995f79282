// The C library's threads, locks, conditions, clocks and sleeps, for threads of a schedule. These functions
// have the names of the C library's, and the program's come before a library's: every call of the program and
// of the libraries that it uses comes here. Other threads get the real ones.
#include "simulation/posix_calls.h"

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include "simulation/scheduler.h"

namespace {

using rq::sim::kNever;
using rq::sim::kSecond;
using rq::sim::Scheduler;

// Far apart, so that a deadline tells which clock it is of.
constexpr std::int64_t kMonotonicBegin_s = 1'000'000;
constexpr std::int64_t kWallBegin_s = 1'496'225'730;  // 31 May 2017

Scheduler& Active() {
    return *Scheduler::Current()->owner;
}

bool IsOurs() {
    return Scheduler::Current() != nullptr;
}

std::int64_t Begin_s(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE ? kWallBegin_s : kMonotonicBegin_s;
}

std::int64_t Nanoseconds(const timespec& time) {
    return time.tv_sec * kSecond + time.tv_nsec;
}

// The schedule's time of an absolute one.
std::int64_t Deadline(const timespec& time) {
    const std::int64_t begin_s = time.tv_sec >= kWallBegin_s ? kWallBegin_s : kMonotonicBegin_s;
    if (time.tv_sec - begin_s > kNever / kSecond / 2) return kNever - 1;
    return Nanoseconds(time) - begin_s * kSecond;
}

void Sleep(std::int64_t duration_ns) {
    Scheduler& scheduler = Active();
    const int nobody = 0;
    scheduler.Block(&nobody, "sleep's end", scheduler.Now() + duration_ns);
}

// The C library's own, looked up at the first call. (A static's guard may itself need a lock.)
template <class Function>
Function Real(Function& known, const char* name) {
    if (known == nullptr) known = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
    return known;
}

using CreateFunction = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
using JoinFunction = int (*)(pthread_t, void**);
using MutexFunction = int (*)(pthread_mutex_t*);
using WaitFunction = int (*)(pthread_cond_t*, pthread_mutex_t*);
using TimedWaitFunction = int (*)(pthread_cond_t*, pthread_mutex_t*, const timespec*);
using ClockWaitFunction = int (*)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
using ConditionFunction = int (*)(pthread_cond_t*);
using ClockFunction = int (*)(clockid_t, timespec*);
using DayFunction = int (*)(timeval*, void*);
using SleepFunction = int (*)(const timespec*, timespec*);
using ClockSleepFunction = int (*)(clockid_t, int, const timespec*, timespec*);

CreateFunction g_create;
JoinFunction g_join;
MutexFunction g_lock, g_tryLock, g_unlock;
WaitFunction g_wait;
TimedWaitFunction g_timedWait;
ClockWaitFunction g_clockWait;
ConditionFunction g_signal, g_broadcast;
ClockFunction g_clock;
DayFunction g_day;
SleepFunction g_sleep;
ClockSleepFunction g_clockSleep;

}  // namespace

namespace rq::sim {

int RealCreate(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*),
               void* argument) {
    return Real(g_create, "pthread_create")(handle, attributes, function, argument);
}

int RealJoin(pthread_t handle, void** result) {
    return Real(g_join, "pthread_join")(handle, result);
}

}  // namespace rq::sim

// Our functions under the C library's names: its own declarations promise not to throw, in a way that a
// definition would have to repeat.
#define RQ_NAMED(name) __asm__(#name) __attribute__((used, visibility("default")))

extern "C" {

int ReplacedCreate(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* argument) RQ_NAMED(pthread_create);
int ReplacedJoin(pthread_t handle, void** result) RQ_NAMED(pthread_join);
int ReplacedLock(pthread_mutex_t* mutex) RQ_NAMED(pthread_mutex_lock);
int ReplacedTryLock(pthread_mutex_t* mutex) RQ_NAMED(pthread_mutex_trylock);
int ReplacedUnlock(pthread_mutex_t* mutex) RQ_NAMED(pthread_mutex_unlock);
int ReplacedWait(pthread_cond_t* condition, pthread_mutex_t* mutex) RQ_NAMED(pthread_cond_wait);
int ReplacedTimedWait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* time)
    RQ_NAMED(pthread_cond_timedwait);
int ReplacedClockWait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                      const timespec* time) RQ_NAMED(pthread_cond_clockwait);
int ReplacedSignal(pthread_cond_t* condition) RQ_NAMED(pthread_cond_signal);
int ReplacedBroadcast(pthread_cond_t* condition) RQ_NAMED(pthread_cond_broadcast);
int ReplacedClock(clockid_t clock, timespec* time) RQ_NAMED(clock_gettime);
int ReplacedDay(timeval* time, void* zone) RQ_NAMED(gettimeofday);
int ReplacedSleep(const timespec* duration, timespec* left) RQ_NAMED(nanosleep);
int ReplacedClockSleep(clockid_t clock, int flags, const timespec* time, timespec* left)
    RQ_NAMED(clock_nanosleep);

int ReplacedCreate(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* argument) {
    if (!IsOurs()) return Real(g_create, "pthread_create")(handle, attributes, function, argument);
    return Active().Start(handle, attributes, function, argument);
}

int ReplacedJoin(pthread_t handle, void** result) {
    return IsOurs() ? Active().Join(handle, result) : Real(g_join, "pthread_join")(handle, result);
}

int ReplacedLock(pthread_mutex_t* mutex) {
    if (!IsOurs()) return Real(g_lock, "pthread_mutex_lock")(mutex);
    Active().Lock(mutex);
    return 0;
}

int ReplacedTryLock(pthread_mutex_t* mutex) {
    if (!IsOurs()) return Real(g_tryLock, "pthread_mutex_trylock")(mutex);
    return Active().TryLock(mutex) ? 0 : EBUSY;
}

int ReplacedUnlock(pthread_mutex_t* mutex) {
    if (!IsOurs()) return Real(g_unlock, "pthread_mutex_unlock")(mutex);
    Active().Unlock(mutex);
    return 0;
}

int ReplacedWait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    if (!IsOurs()) return Real(g_wait, "pthread_cond_wait")(condition, mutex);
    Active().Wait(condition, mutex, kNever);
    return 0;
}

int ReplacedTimedWait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* time) {
    if (!IsOurs()) return Real(g_timedWait, "pthread_cond_timedwait")(condition, mutex, time);
    return Active().Wait(condition, mutex, Deadline(*time)) ? 0 : ETIMEDOUT;
}

int ReplacedClockWait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                      const timespec* time) {
    if (!IsOurs()) return Real(g_clockWait, "pthread_cond_clockwait")(condition, mutex, clock, time);
    return Active().Wait(condition, mutex, Deadline(*time)) ? 0 : ETIMEDOUT;
}

int ReplacedSignal(pthread_cond_t* condition) {
    if (!IsOurs()) return Real(g_signal, "pthread_cond_signal")(condition);
    Active().WakeOne(condition);
    Active().MayPreempt();
    return 0;
}

int ReplacedBroadcast(pthread_cond_t* condition) {
    if (!IsOurs()) return Real(g_broadcast, "pthread_cond_broadcast")(condition);
    Active().WakeAll(condition);
    Active().MayPreempt();
    return 0;
}

int ReplacedClock(clockid_t clock, timespec* time) {
    if (!IsOurs()) return Real(g_clock, "clock_gettime")(clock, time);
    const std::int64_t now = Active().Now();
    time->tv_sec = Begin_s(clock) + now / kSecond;
    time->tv_nsec = now % kSecond;
    return 0;
}

int ReplacedDay(timeval* time, void* zone) {
    if (!IsOurs()) return Real(g_day, "gettimeofday")(time, zone);
    const std::int64_t now = Active().Now();
    time->tv_sec = kWallBegin_s + now / kSecond;
    time->tv_usec = now % kSecond / rq::sim::kMicrosecond;
    return 0;
}

int ReplacedSleep(const timespec* duration, timespec* left) {
    if (!IsOurs()) return Real(g_sleep, "nanosleep")(duration, left);
    Sleep(Nanoseconds(*duration));
    return 0;
}

int ReplacedClockSleep(clockid_t clock, int flags, const timespec* time, timespec* left) {
    if (!IsOurs()) return Real(g_clockSleep, "clock_nanosleep")(clock, flags, time, left);
    const bool isAbsolute = (flags & TIMER_ABSTIME) != 0;
    Sleep(isAbsolute ? Deadline(*time) - Active().Now() : Nanoseconds(*time));
    return 0;
}

}  // extern "C"
