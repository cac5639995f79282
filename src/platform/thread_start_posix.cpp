// pthread_create for a whole process: every thread, whoever makes it (our code, Boost, the C++ library, a
// plug-in and the libraries behind it), begins by taking room for the crash handler. Linked into the program
// itself and exported from it, so that libraries find this one before the C library's. It does not see
// threads that a library makes with a system call of its own, nor those that the C library makes for itself
// (timers and name look-ups with SIGEV_THREAD); their overflowed stack ends the process without a report.
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <new>

#include "platform/crash.h"

namespace {

using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

struct Begin {
    void* (*routine)(void*);
    void* argument;
};

Create RealCreate() {
    static std::atomic<Create> real{nullptr};
    Create found = real.load(std::memory_order_relaxed);
    if (found == nullptr) {
        found = reinterpret_cast<Create>(::dlsym(RTLD_NEXT, "pthread_create"));
        real.store(found, std::memory_order_relaxed);
    }
    return found;
}

// What the routine throws, and a thread's cancellation, pass through here.
extern "C" void* RunWithCrashRoom(void* given) {
    const Begin begin = *static_cast<const Begin*>(given);
    delete static_cast<Begin*>(given);
    rq::platform::GiveThreadCrashRoom();
    return begin.routine(begin.argument);
}

}  // namespace

extern "C" [[gnu::visibility("default")]] int pthread_create(pthread_t* thread,
                                                             const pthread_attr_t* attributes,
                                                             void* (*routine)(void*),
                                                             void* argument) noexcept {
    const Create create = RealCreate();
    if (create == nullptr) return EAGAIN;
    auto* begin = new (std::nothrow) Begin{routine, argument};
    if (begin == nullptr) return EAGAIN;
    const int result = create(thread, attributes, &RunWithCrashRoom, begin);
    if (result != 0) delete begin;
    return result;
}
