// A stack beside each thread's own, on which the crash handler runs: an overflowed one has no room for it.
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>

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

// Rooms of threads that have ended, for the next ones: a worker starts a thread for each task.
std::array<std::atomic<void*>, 4> g_spare{};

void* TakeSpare() {
    for (std::atomic<void*>& slot : g_spare) {
        if (slot.load(std::memory_order_relaxed) == nullptr) continue;
        if (void* block = slot.exchange(nullptr, std::memory_order_acquire)) return block;
    }
    return nullptr;
}

bool KeepSpare(void* block) {
    for (std::atomic<void*>& slot : g_spare) {
        void* empty = nullptr;
        if (slot.compare_exchange_strong(empty, block, std::memory_order_release, std::memory_order_relaxed))
            return true;
    }
    return false;
}

void* MakeRoom() {
    void* block = ::mmap(nullptr, GuardSize() + RoomSize(), PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (block == MAP_FAILED) return nullptr;
    ::mprotect(block, GuardSize(), PROT_NONE);
    return block;
}

void GiveRoomAway(void* block) {
    if (!KeepSpare(block)) ::munmap(block, GuardSize() + RoomSize());
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
    GiveRoomAway(block);
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
    void* block = TakeSpare();
    if (block == nullptr) block = MakeRoom();
    if (block == nullptr) return false;
    stack_t stack{};
    stack.ss_sp = static_cast<char*>(block) + GuardSize();
    stack.ss_size = RoomSize();
    if (::pthread_setspecific(g_key, block) != 0 || ::sigaltstack(&stack, nullptr) != 0) {
        ::pthread_setspecific(g_key, nullptr);
        GiveRoomAway(block);
        return false;
    }
    return true;
}

}  // namespace rq::platform
