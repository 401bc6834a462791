#include "allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

static std::atomic<long> count;
static thread_local long allocationsLeft = -1;

#ifndef THREAD_SANITIZER
// Not inlined, so that compilers do not take these for mismatched pairs.
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t&) noexcept {
    count.fetch_add(1, std::memory_order_relaxed);
    if (allocationsLeft >= 0 && allocationsLeft-- == 0) return nullptr;
    return malloc(size);
}
[[gnu::noinline]] void* operator new(size_t size) {
    if (void* memory = operator new(size, std::nothrow)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
    free(memory);
}
#endif

long allocations() {
    return count;
}

long failAllocation(long after) {
    return std::exchange(allocationsLeft, after);
}
