// Counts a program's allocations, and can make them fail.
#ifndef CORVEL_BENCH_ALLOCATIONS_H
#define CORVEL_BENCH_ALLOCATIONS_H

// ThreadSanitizer brings an operator new that no program can replace: nothing is counted, none
// fails.
#ifdef __has_feature
#if __has_feature(thread_sanitizer)
#define THREAD_SANITIZER
#endif
#endif

// Since the program started.
long allocations();

// Makes the allocation after `after` more on this thread throw, or none when negative. Gives how
// many were left of an earlier order: below 0 when there was none, or it has been carried out.
long failAllocation(long after);

#endif
