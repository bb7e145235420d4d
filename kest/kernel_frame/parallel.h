#ifndef KEST_KERNEL_FRAME_PARALLEL_H_
#define KEST_KERNEL_FRAME_PARALLEL_H_

#include <omp.h>

#include <algorithm>

namespace util {

/// A contiguous run of iterations.
struct Block {
    int begin;
    int end;
};

/// The share of thread `thread` of `numThreads` in n iterations: n / numThreads each, one more for each of the first
/// n mod numThreads threads, in thread order. Empty for n <= 0.
inline Block BlockOfThread(int n, int numThreads, int thread) {
    if (n <= 0) return {0, 0};
    const int quotient = n / numThreads;
    const int rest = n % numThreads;
    const int begin = thread * quotient + std::min(thread, rest);
    return {begin, begin + quotient + (thread < rest ? 1 : 0)};
}

/// Runs body(block) on each thread of the default team, one contiguous block of [0, n) a thread. `body` must not
/// throw and writes only what belongs to its own iterations. One thread, without a region, unless `worthwhile` and the
/// team has more: the runtime takes memory for a region, and ends the process if there is none.
template <typename Body>
void ParallelFor(int n, bool worthwhile, Body body) {
    if (!worthwhile || omp_get_max_threads() == 1) {
        if (n > 0) body(Block{0, n});
        return;
    }
#pragma omp parallel
    {
        const Block block = BlockOfThread(n, omp_get_num_threads(), omp_get_thread_num());
        if (block.begin < block.end) body(block);
    }
}

}  // namespace util

#endif  // KEST_KERNEL_FRAME_PARALLEL_H_
