#include <kest/kernel_frame/grid.h>
#include <kest/kernel_frame/parallel.h>
#include <kest/kernel_frame/rounding.h>

#include <tests/test_util.h>

#include <climits>

namespace {

TEST(Rounding, SameBitsAsStdRoundForEveryFloat) {
    std::int64_t numWrong = 0;
#pragma omp parallel for reduction(+ : numWrong)
    for (std::int64_t bits = 0; bits < (std::int64_t{1} << 32); ++bits) {
        const std::uint32_t pattern = static_cast<std::uint32_t>(bits);
        float x;
        std::memcpy(&x, &pattern, sizeof x);
        const bool signalling = x != x && (pattern & 0x00400000u) == 0;
        numWrong += !signalling && Bits(util::RoundHalfAway(x)) != Bits(std::round(x));
    }
    EXPECT_EQ(0, numWrong);
}

TEST(Rounding, DoublesAroundHalvesAndBeyondTheFraction) {
    for (const double whole : {0.0, 1.0, 2.0, 127.0, 0x1p31, 0x1p51, 0x1p52, 0x1p53, 1e300}) {
        const double half = whole + 0.5;
        for (const double x : {whole, half, std::nextafter(half, 0.0), std::nextafter(half, HUGE_VAL)}) {
            EXPECT_EQ(Bits(std::round(x)), Bits(util::RoundHalfAway(x))) << x;
            EXPECT_EQ(Bits(std::round(-x)), Bits(util::RoundHalfAway(-x))) << -x;
        }
    }
    EXPECT_EQ(HUGE_VAL, util::RoundHalfAway(HUGE_VAL));
}

TEST(Saturate, NearestLimitAndZeroForNan) {
    EXPECT_EQ(INT_MAX, util::SaturateTo<int>(2147483648.0f));
    EXPECT_EQ(2147483520, util::SaturateTo<int>(2147483520.0f));
    EXPECT_EQ(INT_MIN, util::SaturateTo<int>(-2147483648.0f));
    EXPECT_EQ(INT_MIN, util::SaturateTo<int>(-kInf));
    EXPECT_EQ(INT_MAX, util::SaturateTo<int>(2147483647.9));
    EXPECT_EQ(INT_MIN + 1, util::SaturateTo<int>(-2147483647.9));
    EXPECT_EQ(0, util::SaturateTo<int>(kNan));
    EXPECT_EQ(0u, util::SaturateTo<unsigned int>(-1.0f));
    EXPECT_EQ(UINT_MAX, util::SaturateTo<unsigned int>(4294967296.0f));
    EXPECT_EQ(4294967295u, util::SaturateTo<unsigned int>(4294967295.5));
}

TEST(Grid, Bounds) {
    const auto bounds = [](std::int64_t numBits) {
        const auto grid = util::SignedGrid(numBits);
        return std::vector<int>{grid.low, grid.high};
    };
    ExpectSameBits({0, 0}, bounds(0));
    ExpectSameBits({-1, 0}, bounds(1));
    ExpectSameBits({-8, 7}, bounds(4));
    ExpectSameBits({-(1 << 30), (1 << 30) - 1}, bounds(31));
    for (const std::int64_t all : {32, 5000}) ExpectSameBits({INT_MIN, INT_MAX}, bounds(all));
}

TEST(Parallel, ContiguousBlocksTheFirstOnesLonger) {
    const auto block = [](int n, int numThreads, int thread) {
        const util::Block found = util::BlockOfThread(n, numThreads, thread);
        return std::vector<int>{found.begin, found.end};
    };
    const std::vector<int> expected[] = {{0, 3}, {3, 6}, {6, 8}, {8, 10}};
    for (int thread = 0; thread < 4; ++thread) EXPECT_EQ(expected[thread], block(10, 4, thread));
    EXPECT_EQ(INT_MAX, block(INT_MAX, 7, 6)[1]);  // t * (q + 1) must not overflow
    EXPECT_EQ(0, block(-5, 4, 0)[1]);
    ExpectSameBits({2, 2}, block(2, 4, 3));
}

}  // namespace
