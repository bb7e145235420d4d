#ifndef KEST_BENCHMARKS_MACHINE_LIMITS_H_
#define KEST_BENCHMARKS_MACHINE_LIMITS_H_

#include <cstddef>

// What one thread of this machine can do with an array of n floats at best: loops built for this very machine, with
// reordering allowed and four independent chains of 64-byte vectors. n is a multiple of 64.

namespace bench {

float LimitRead(const float* x, std::size_t n);    // the sum
float LimitMinMax(const float* x, std::size_t n);  // maximum - minimum
void LimitScale(float* x, std::size_t n, float factor);
void LimitCopy(const float* x, float* out, std::size_t n);

}  // namespace bench

#endif  // KEST_BENCHMARKS_MACHINE_LIMITS_H_
