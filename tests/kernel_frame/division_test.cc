#include <kest/kernel_frame/division.h>

#include <gtest/gtest.h>

#include <cstdint>

// Divider's quotient is the correctly rounded one for all significands, by enumeration. Exponents and signs only shift
// and mirror the operations, so 24-bit integers a, b in [2^23, 2^24) stand for all; a' = a / 2^23, b' = b / 2^23.
//
// The last operation rounds q0 + r * y, with y = (1 + e) / b', |e| <= b' * 2^-25, and q0 = x * (1 + e) + d, |d| half an
// ulp. For an exact r that operand is x + (x - q0) * e with |x - q0| <= x * |e| + |d|.
//   a >= b: r is exact, the operand is off by at most b' * (a' + 2) * 2^-50.
//   a < b:  r may be rounded, by at most 2^-47, and the operand is off by at most b' * (a' + 1) * 2^-50 + 2^-47 * y.
// The result can be wrong only if a midpoint of two floats lies between x and the operand. The midpoints are M / 2^k
// with M odd in (2^24, 2^25), k = 24 for a >= b and 25 for a < b, and x lies |c| / (b * 2^k) from one, where
// c = a * 2^k - M * b is a whole number and not 0. Multiplied by b * 2^k, failures have |c| < 2 or |c| < 5. For each b,
// k and c every a follows from M: with b = 2^t * b1, b1 odd, c = 2^t * c1 and M = -c1 / b1 modulo 2^(k - t).

namespace {

constexpr std::int64_t kMaxC = 4;

/// 1 / odd modulo 2^32: an odd number is its own inverse modulo 8, each step doubles the correct bits.
std::uint32_t Inverse(std::uint32_t odd) {
    std::uint32_t inverse = odd;
    for (int bits = 3; bits < 32; bits *= 2) inverse *= 2 - odd * inverse;
    return inverse;
}

/// Calls use(a) for every dividend that lies c from a midpoint 2^-k apart.
template <typename Use>
void ForEachDividend(std::uint32_t b, int twos, std::uint32_t inverse, int k, std::int64_t c1, Use use) {
    const std::uint32_t period = 1u << (k - twos);
    std::uint32_t m = (static_cast<std::uint32_t>(-c1) * inverse) & (period - 1);
    if (m < 1u << 24) m += ((1u << 24) - m + period - 1) / period * period;
    for (; m < 1u << 25; m += period) {
        const std::int64_t a = (c1 * (1 << twos) + static_cast<std::int64_t>(m) * b) >> k;  // exact by the choice of m
        if (a >= 1 << 23 && a < 1 << 24 && (a < b) == (k == 25)) use(static_cast<float>(a));
    }
}

TEST(Divider, CorrectlyRoundedNextToEveryMidpoint) {
#if defined(__x86_64__)
    if (!__builtin_cpu_supports("fma")) GTEST_SKIP() << "no fused multiply-add";
#endif
    std::uint64_t numTried = 0, numWrong = 0;
    for (std::uint32_t b = 1u << 23; b < 1u << 24; ++b) {
        const int twos = __builtin_ctz(b);
        if ((1 << twos) > kMaxC) continue;  // c would have to be a larger multiple of 2^twos
        const float divisor = static_cast<float>(b);
        const util::Divider<float> quotient(divisor);
        const std::uint32_t inverse = Inverse(b >> twos);
        for (const int k : {24, 25})
            for (std::int64_t c1 = -(kMaxC >> twos) | 1; c1 * (1 << twos) <= kMaxC; c1 += 2)  // odd, as M * b1 is
                ForEachDividend(b, twos, inverse, k, c1, [&](float a) {
                    ++numTried;
                    numWrong += quotient(a) != a / divisor;
                });
    }
    EXPECT_EQ(23259273u, numTried);
    EXPECT_EQ(0u, numWrong);
}

}  // namespace
