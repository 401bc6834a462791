// Counts what a program and its libraries ask of the system, and can make allocations fail. The
// program's own definitions of these calls come before those of any library.
#ifndef CORVEL_BENCH_COUNTS_H
#define CORVEL_BENCH_COUNTS_H

// ThreadSanitizer brings an operator new that no program can replace: allocations are not counted.
#ifdef __has_feature
#if __has_feature(thread_sanitizer)
#define THREAD_SANITIZER
#endif
#endif

// Calls since the program started.
struct Counts {
    long select, read, write, allocations;
};
Counts counts();

// Makes the allocation after `after` more on this thread throw, or none when negative. Gives how
// many were left of an earlier order: below 0 when there was none, or it has been carried out.
long failAllocation(long after);

#endif
