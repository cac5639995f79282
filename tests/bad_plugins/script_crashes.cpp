#include "script_crashes.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace scripted {
namespace {

// What the compiler takes for an address that it knows nothing of.
void* Hidden(void* pointer) {
    void* volatile hidden = pointer;
    return hidden;
}

// Larger than the blocks that a thread keeps for itself, smaller than those that are no part of the heap. A
// freed one holds addresses of others in the heap's list; the heap's lock is taken when they are followed.
constexpr std::size_t kHeapBlock_bytes = 60000;

volatile bool g_isDeepEnough = false;  // never; the compiler must not know

[[gnu::noinline]] int Deeper(volatile char* above) {  // NOLINT(misc-no-recursion)
    if (g_isDeepEnough) return above[0];
    volatile char frame[4096];
    frame[0] = static_cast<char>(above[0] + 1);
    return Deeper(frame) + frame[0];
}

}  // namespace

void CrashInMalloc() {
    void* before =
        Hidden(std::malloc(kHeapBlock_bytes));  // its neighbours keep it from melting into the rest
    void* block = Hidden(std::malloc(kHeapBlock_bytes));
    void* after = Hidden(std::malloc(kHeapBlock_bytes));
    std::free(Hidden(block));  // the compiler does not see which
    static_cast<volatile std::uintptr_t*>(Hidden(block))[1] = 64;
    Hidden(std::malloc(kHeapBlock_bytes + 1000));
    std::free(after);
    std::free(before);
}

void SpoilHeap() {
    auto* block = static_cast<volatile char*>(Hidden(std::malloc(kHeapBlock_bytes)));
    for (std::size_t i = 0; i < kHeapBlock_bytes + 64; ++i) block[i] = 'x';
    std::free(Hidden(const_cast<char*>(block)));
    Hidden(nullptr);  // no tail call
}

void CallNowhere() {
    void (*volatile nowhere)() = nullptr;
    nowhere();
    Hidden(nullptr);  // no tail call
}

void DivideByZero() {
    volatile int one = 1;
    volatile int zero = 0;
    volatile int result = one / zero;
    (void)result;
}

void WriteNowhere() {
    volatile std::uintptr_t address = 64;           // in the page that is never mapped
    *reinterpret_cast<volatile int*>(address) = 1;  // NOLINT(performance-no-int-to-ptr)
}

void OverflowStack() {
    volatile char first = 0;
    Deeper(&first);
}

}  // namespace scripted
