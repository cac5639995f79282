// Replaces operator new, for programs that let memory fall short: `MayAllocate`, which the program defines,
// is asked at each allocation, on the allocating thread. Included by one file of a program.
#pragma once

#include <cstdlib>
#include <new>

#include "platform/noinline.h"

namespace rq::kit {

bool MayAllocate(std::size_t size_bytes);

}  // namespace rq::kit

// Not inlined, since the compiler would take malloc and free at one place for a pair that does not fit.
RQ_NOINLINE void* operator new(std::size_t size_bytes) {
    void* memory = rq::kit::MayAllocate(size_bytes) ? std::malloc(size_bytes > 0 ? size_bytes : 1) : nullptr;
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

RQ_NOINLINE void operator delete(void* memory) noexcept {
    std::free(memory);
}

RQ_NOINLINE void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
