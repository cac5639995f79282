// A stack beside each thread's own, on which the crash handler runs: an overflowed one has no room for it.
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "platform/crash.h"

namespace rq::platform {

namespace {

constexpr std::size_t kRoom_bytes = 128 * 1024;  // memory only for those pages that are ever touched

std::size_t GuardSize() {
    return static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

std::size_t RoomSize() {
    // What the processor's registers alone need, on those that have many.
    const long least = ::sysconf(_SC_SIGSTKSZ);
    const auto page = GuardSize();
    const auto size = std::max(kRoom_bytes, 4 * static_cast<std::size_t>(std::max(least, 0L)));
    return (size + page - 1) / page * page;
}

// At the thread's end, whichever way it ends.
extern "C" void TakeRoomBack(void* block) {
    stack_t now{};
    ::sigaltstack(nullptr, &now);
    if (now.ss_sp == static_cast<char*>(block) + GuardSize()) {
        stack_t none{};
        none.ss_flags = SS_DISABLE;
        ::sigaltstack(&none, nullptr);
    }
    ::munmap(block, GuardSize() + RoomSize());
}

pthread_key_t g_key;
bool g_hasKey = false;
pthread_once_t g_once = PTHREAD_ONCE_INIT;

extern "C" void MakeKey() {
    g_hasKey = ::pthread_key_create(&g_key, &TakeRoomBack) == 0;
}

}  // namespace

bool GiveThreadCrashRoom() noexcept {
    ::pthread_once(&g_once, &MakeKey);
    if (!g_hasKey) return false;
    if (::pthread_getspecific(g_key) != nullptr) return true;
    const std::size_t guard = GuardSize();
    const std::size_t room = RoomSize();
    void* block = ::mmap(nullptr, guard + room, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (block == MAP_FAILED) return false;
    ::mprotect(block, guard, PROT_NONE);
    stack_t stack{};
    stack.ss_sp = static_cast<char*>(block) + guard;
    stack.ss_size = room;
    if (::pthread_setspecific(g_key, block) != 0 || ::sigaltstack(&stack, nullptr) != 0) {
        ::pthread_setspecific(g_key, nullptr);
        ::munmap(block, guard + room);
        return false;
    }
    return true;
}

}  // namespace rq::platform
