#include "counts.h"

#include <dlfcn.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

std::atomic<long> selects, reads, writes, allocations;
thread_local long allocationsLeft = -1;

void count(std::atomic<long>& counter) {
    counter.fetch_add(1, std::memory_order_relaxed);
}

template <typename Function>
Function* next(const char* name, Function*) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {
int select(int fds, fd_set* in, fd_set* out, fd_set* except, timeval* limit) {
    static const auto real = next("select", &select);
    count(selects);
    return real(fds, in, out, except, limit);
}
ssize_t read(int fd, void* data, size_t size) {
    static const auto real = next("read", &read);
    count(reads);
    return real(fd, data, size);
}
ssize_t write(int fd, const void* data, size_t size) {
    static const auto real = next("write", &write);
    count(writes);
    return real(fd, data, size);
}
}

#ifndef THREAD_SANITIZER
// Not inlined, so that compilers do not take these for a mismatched pair.
[[gnu::noinline]] void* operator new(size_t size) {
    count(allocations);
    if (allocationsLeft >= 0 && allocationsLeft-- == 0) throw std::bad_alloc();
    if (void* memory = malloc(size)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
    free(memory);
}
#endif

Counts counts() {
    return {selects, reads, writes, allocations};
}

long failAllocation(long after) {
    return std::exchange(allocationsLeft, after);
}
