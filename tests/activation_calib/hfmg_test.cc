#include <kest/activation_calib/hfmg.h>

#include <tests/test_util.h>

#include <algorithm>

namespace {

using Counts = std::vector<unsigned int>;
using Ranges = std::vector<std::pair<unsigned int, unsigned int>>;
using Factors = std::pair<float, int>;  // scale, offset
constexpr Factors kNone{-77.0f, -77};

template <typename T>
struct Hfmg : testing::Test {
    using Bins = std::vector<KestCommon::DataBin<T>>;
    static Bins Histogram(T lower, T width, const Counts& counts) {
        Bins bins;
        KestCommon::HfmgDistributeInter<T>(static_cast<int>(counts.size()), lower, width, bins, {0, nullptr});
        for (std::size_t j = 0; j < counts.size(); ++j) bins[j].count = counts[j];
        return bins;
    }
    static Counts CountsOf(const Bins& bins) {
        Counts counts;
        for (const auto& bin : bins) counts.push_back(bin.count);
        return counts;
    }
    static Counts Merge(int numBins, Bins& bins, std::vector<T> x) {
        EXPECT_EQ(STATUS_OK, KestCommon::HfmgMerge<T>(numBins, bins, {static_cast<unsigned int>(x.size()), x.data()}));
        return CountsOf(bins);
    }
    static Ranges Candidates(Bins bins) {
        Ranges ranges;
        KestCommon::HfmgGetSearchRange(bins, ranges);
        return ranges;
    }
    static float Loss(float loss, Bins bins, unsigned int levels, unsigned int first, unsigned int last) {
        return KestCommon::HfmgCalculateLoss(bins, levels, first, last, loss) == STATUS_OK ? loss : kNan;
    }
    static Factors Best(Bins bins, unsigned int numBits, bool withOffset) {
        Factors best = kNone;
        EXPECT_EQ(STATUS_OK, KestCommon::HfmgCompute(bins, best.first, best.second, {numBits, withOffset, 0}));
        return best;
    }
    static Factors OfRange(T min, T max, unsigned int numBits, bool withOffset) {
        Factors factors = kNone;
        KestCommon::CalScaleOffset<T>(max, min, factors.first, factors.second, {numBits, withOffset, 0});
        return factors;
    }
    static Factors Arq(T min, T max, bool with, int status) {
        Factors f = kNone;
        EXPECT_EQ(status, KestCommon::ActArqCalibration<T>(min, max, {1, &f.first}, {1, &f.second}, {8, with, 0}));
        return f;
    }
};

/// The loss of a candidate as one writes it down.
template <typename T>
float PlainLoss(const std::vector<KestCommon::DataBin<T>>& bins, T width, T numLevels, unsigned int first,
                unsigned int last) {
    const auto cube = [](double x) { return x * x * x; };
    const auto third = [](double x) { return static_cast<float>(x / 3); };
    const T d = static_cast<T>(last - first + 1) * width / numLevels, h = d / 2;
    float loss = 0;
    for (unsigned int i = 0; i < bins.size(); ++i) {
        const T begin = (static_cast<T>(i) - static_cast<T>(first)) * width, end = begin + width;
        const float density = static_cast<float>(static_cast<T>(bins[i].count) / width);
        const T low = std::clamp<T>(std::floor(begin / d), 0, numLevels - 1), lowCentre = low * d + h;
        const T high = std::clamp<T>(std::floor(end / d), 0, numLevels - 1), highCentre = high * d + h;
        if (low == high) {
            loss = std::fma(density, third(cube(end - lowCentre) - cube(begin - lowCentre)), loss);
        } else {
            loss = std::fma(density, third(cube(h) - cube(begin - lowCentre)), loss);
            loss = std::fma(static_cast<float>(high - low - 1) * density, third(cube(h) - cube(-h)), loss);
            loss = std::fma(density, third(cube(end - highCentre) - cube(-h)), loss);
        }
    }
    return loss;
}

using BoundTypes = testing::Types<float, double>;
TYPED_TEST_SUITE(Hfmg, BoundTypes, );

TYPED_TEST(Hfmg, BatchesMerge) {
    using F = TestFixture;
    const TypeParam epsilon = FLT_EPSILON, third = static_cast<TypeParam>(1 / 3.0 - 1e-12);
    typename F::Bins thirds = F::Histogram(0, 1, {3, 0, 0, 0}), narrower = F::Histogram(0, third, {0, 0, 0, 0});
    typename F::Bins a, b, c, d, e, f, g, h, old = F::Histogram(0, 3, {0, 16777219}),
                                             wider = F::Histogram(0, 6, {0, 0});
    EXPECT_EQ((Counts{1, 1, 4}), F::Merge(3, a, {0, 3, 4, 5, 6, 6}));  // the maximum is in the last bin
    EXPECT_EQ((Counts{2, 1, 5}), F::Merge(3, a, {0, 5}));              // the same range
    EXPECT_EQ((Counts{2, 6, 1}), F::Merge(3, a, {9}));  // floor((3 - 2) / 2 * 1) of [2, 4] stay, [4, 6] touches [6, 9]
    EXPECT_EQ((Counts{0, 0, 3, 0, 0}), F::Merge(5, b, {7, 7, 7}));
    EXPECT_EQ((Counts{1, 0, 0, 0, 4}), F::Merge(5, b, {2, 7}));  // the old bins have no width
    EXPECT_EQ((Counts{2, 1}), F::Merge(2, c, {kNan, 1, 3}));
    EXPECT_EQ((Counts{4, 1}), F::Merge(2, c, {kNan, kNan}));  // the same range
    EXPECT_EQ((Counts{7, 0}), F::Merge(2, c, {kInf, 4}));
    EXPECT_EQ((Counts{1, 0, 2}), F::Merge(3, d, {-4, -2, -1}));   // no zero inside
    EXPECT_EQ((Counts{1, 1}), F::Merge(2, f, {0, 2 * epsilon}));  // just wide enough
    EXPECT_EQ((Counts{0, 2}), F::Merge(2, g, {7, 7}));
    EXPECT_EQ((Counts{1, 2}), F::Merge(2, h, {0, 2 * epsilon, 2 * epsilon}));
    EXPECT_EQ((Counts{2, 2}), F::Merge(2, h, {3 * epsilon}));  // just another range: one of two goes to the first bin
    KestCommon::HfmgMergeInter<TypeParam>(thirds, narrower, false, 0, third);
    EXPECT_EQ((Counts{1, 0, 0, 2}), F::CountsOf(narrower));  // three times a third, as a float, is 1
    std::vector<TypeParam> many(64, 1);  // enough for vectors: the NaN is passed over, the minimum before it stays
    many[0] = -2;
    many[32] = kNan;
    EXPECT_EQ((Counts{2, 62}), F::Merge(2, e, many));
    KestCommon::HfmgMergeInter<TypeParam>(old, wider, false, 0, 6);
    EXPECT_EQ((Counts{16777219, 0}), F::CountsOf(wider));  // 2^24 + 4 as a float, but no part exceeds its count
    const Hfmg<float>::Bins fused = Hfmg<float>::Histogram(-0.3f, 0.1f, {0, 0, 0, 0});
    EXPECT_EQ(-0x1p-26f, fused[2].upperBound + fused[3].lowerBound);  // rounded products give 0
}

TYPED_TEST(Hfmg, EveryValueCountsInItsBinAndIsNeverLost) {
    using T = TypeParam;
    std::vector<unsigned int> lengths{512, 1023, 1024, 1025, 3000};  // the counting goes by blocks
    for (unsigned int n = 1; n < 300; ++n) lengths.push_back(n);
    for (const unsigned int n : lengths) {
        const int numBins = 1 + static_cast<int>(n % 41);
        const T width = static_cast<T>(3.7) / static_cast<T>(numBins);  // from -2 to 1.7: some values lie outside
        std::vector<T> x = MixedValues<T>(n, n);
        x[n / 2] = static_cast<T>(n % 2 ? kNan : kInf);
        Counts expected(static_cast<std::size_t>(numBins));
        for (const T value : x) {
            const T bin = std::min<T>(std::floor((value + 2) / width), static_cast<T>(numBins - 1));
            ++expected[bin > 0 ? static_cast<std::size_t>(bin) : 0];
        }
        typename TestFixture::Bins bins, merged;
        KestCommon::HfmgDistributeInter<T>(numBins, -2, width, bins, {n, x.data()});
        ASSERT_EQ(expected, TestFixture::CountsOf(bins)) << n;
        for (unsigned int batch = 1; batch < 6; ++batch) {  // wider ones, some far from 0, some after a constant
            const T spread = std::ldexp(static_cast<T>(batch), static_cast<int>(n % 80) - 60);
            x = MixedValues<T>(n, 9 * n + batch, batch == 1 && n % 3 == 0 ? 0 : spread);
            for (T& value : x) value += n % 2 ? T{3e7f} : 0;
            if (n % 5 == 0) x[0] = static_cast<T>(batch == 4 ? kInf : kNan);
            unsigned int lost = batch * n;
            for (const unsigned int count : TestFixture::Merge(numBins, merged, x)) lost -= count;
            ASSERT_EQ(0u, lost) << n;
        }
    }
}

TYPED_TEST(Hfmg, TheChoiceOfARange) {
    using T = TypeParam;
    using F = TestFixture;
    const auto candidates = [](const Counts& counts) { return F::Candidates(F::Histogram(0, 1, counts)); };
    EXPECT_EQ((Ranges{{0, 4}, {3, 4}}), candidates({0, 0, 1, 5, 5, 1, 0, 0}));              // ties trim the right
    EXPECT_EQ((Ranges{{0, 7}, {0, 6}, {0, 5}, {0, 4}, {0, 3}}), candidates(Counts(9, 1)));  // to 9 / 4 rounded up
    EXPECT_EQ((Ranges{{2, 3}}), candidates({1, 1, 100000, 0}));  // 100,002 values: a tail holds two,
    EXPECT_EQ((Ranges{{0, 1}}), candidates({1, 1, 99998, 0}));   // 100,000: one
    EXPECT_EQ((Ranges{{4, 4}}), candidates({0, 0, 0, 0, 0}));    // the upward scan leaves nothing to the other
    EXPECT_EQ(1360, F::Loss(1000, F::Histogram(0, 3, {3, 6, 9, 12}), 1, 1, 2));  // bins outside: 63 + 18 + 27 + 252
    EXPECT_EQ(1944, F::Loss(0, F::Histogram(0, 12, {12, 24, 36}), 2, 0, 2));     // 252 + 2 * 468 + 3 * 252
    EXPECT_EQ(0.75f + 3 * 0x1p-24f, F::Loss(-4.5f, F::Histogram(0, 21, {7}), 7, 0, 0));  // fused, of 5 * float(1 / 3)
    EXPECT_EQ(0, F::Loss(5, F::Histogram(0, 0x1p-24f, {1, 1}), 2, 0, 1));                // set, not added
    EXPECT_EQ(Factors(4.0f / 255, -64), F::OfRange(-1, 3, 8, true));
    EXPECT_EQ(static_cast<float>(static_cast<double>(T{16777216} + T{3}) / 255),
              F::OfRange(-3, 16777216, 8, true).first);
    EXPECT_EQ(Factors(4096, 0), F::OfRange(0, 0x1p-40f, 1, false));  // no level: 2^-40 / 2^-52
    EXPECT_EQ(Factors(1, INT32_MIN), F::OfRange(1e20f, 1e20f, 8, true));
    EXPECT_EQ(Factors(1, -100663292), F::OfRange(-33554436, 234881024, 28, true));  // a float sum ends in 296
    EXPECT_NE("", LogOf([] { EXPECT_EQ(kNone, F::Arq(0, 3e9f, true, STATUS_SCALE_ERROR)); }));
    EXPECT_EQ(Factors(3.0f / 127, 0), F::Arq(-3, 1, false, STATUS_OK));   // a magnitude
    EXPECT_EQ(Factors(1, 127), F::Arq(-1e-6f, -1e-7f, true, STATUS_OK));  // the offset from before the scale became 1
    EXPECT_EQ(Factors(4, -2), F::Best(F::Histogram(3, 3, {3, 3, 0, 3}), 2, true));      // (0, 2): [3, 12] from 0
    EXPECT_EQ(Factors(3, 1), F::Best(F::Histogram(-9, 3, {300, 300, 0, 1}), 2, true));  // (0, 1): [-9, -3] to 0
    EXPECT_EQ(Factors(3, 0), F::Best(F::Histogram(-6, 3, {9, 9, 0, 0}), 2, false));  // a negative bound has two steps,
    EXPECT_EQ(Factors(6, 0), F::Best(F::Histogram(0, 3, {9, 9, 0, 0}), 2, false));   // a positive one
    EXPECT_EQ(Factors(0x1p-24f, -2), F::Best(F::Histogram(0, 0x1p-24f, {1, 1, 1, 1}), 2, true));  // equal: the first
    EXPECT_EQ(Factors(2, -1), F::Best(F::Histogram(-1, 3, {1, 1}), 2, true));  // no candidate: all; -1 / 2 rounds to -1
    for (unsigned int numBins = 3, numBits = 1; numBins < 300; numBins += 7, numBits = numBins % 9 + 1) {
        typename F::Bins bins;
        std::vector<T> x = MixedValues<T>(999, numBins);
        for (T& value : x) value *= numBins % 2 ? value * value : 1;  // outliers on both sides
        F::Merge(static_cast<int>(numBins), bins, x);
        const T lower = bins[0].lowerBound, width = (bins.back().upperBound - lower) / static_cast<T>(numBins);
        std::pair<float, Factors> best{kInf, kNone};
        for (const auto& [first, last] : F::Candidates(bins)) {  // one by one; the choice may take them together
            const T min = std::min(std::fma(static_cast<T>(first), width, lower), T{0});
            const T max = std::max(std::fma(static_cast<T>(last + 1), width, lower), T{0});
            const float loss = PlainLoss(bins, width, static_cast<T>(1u << numBits), first, last);
            ASSERT_EQ(loss, F::Loss(0, bins, 1u << numBits, first, last)) << numBins << " bins";
            if (loss < best.first) best = {loss, F::OfRange(min, max, numBits, true)};
        }
        EXPECT_EQ(best.second, F::Best(bins, numBits, true)) << numBins << " bins";
    }
}

TEST(Hfmg, FunctorsAndFailures) {
    std::vector<float> x{0, 0, 0, 12, 12, 3, 3, 3, kNan, -3, 3};
    KestCommon::InputData<float> null{4, nullptr}, none{0, x.data()}, first{4, x.data()}, next{4, x.data() + 4};
    Hfmg<float>::Bins bins;
    Factors published = kNone, computed = kNone;
    KestTfOp::HfmgDataQuantParam<float> out{&published.first, &published.second, &computed.first, &computed.second};
    KestTfOp::HfmgParam param{2, true, 4};
    int batchIndex = 0, batchNum = 4;
    const KestTfOp::QuantHfmgFunctor<util::ThreadPoolDevice, float> hfmg;
    const KestTfOp::ActArqFunctor<util::ThreadPoolDevice, float> actArq;
    const auto feed = [&](auto& batch) { return hfmg(bins, param, batchIndex, batchNum, batch, out); };
    EXPECT_EQ((std::vector{RECORD_DATA_ERROR, EMPTY_INPUT_ERROR, EMPTY_CONTAINER_ERROR}),
              (std::vector{actArq(null, param, out), actArq(none, param, out),
                           KestCommon::HfmgCompute(bins, *out.scale, *out.offset, {2, true, 4})}));
    EXPECT_EQ((std::vector{STATUS_OK, EMPTY_INPUT_ERROR, RECORD_DATA_ERROR}),
              (std::vector{feed(first), feed(none), feed(null)}));
    EXPECT_EQ(std::pair(kNone, kNone), std::pair(published, computed));
    EXPECT_EQ(std::pair(STATUS_OK, STATUS_OK), std::pair(feed(next), feed(next)));  // the fourth, and one too many
    EXPECT_EQ(Factors(3, -2), published);
    EXPECT_EQ(EMPTY_INPUT_ERROR, KestCommon::HfmgMerge(0, bins, first));
    EXPECT_EQ((Counts{3, 3, 0, 2}), Hfmg<float>::CountsOf(bins));
    param.withOffset = false;
    first = {3, x.data() + 8};
    EXPECT_EQ(STATUS_OK, actArq(first, param, out));
    EXPECT_EQ(Factors(1.5f, 0), published);  // -3 has two steps, and goes before 3
}

}  // namespace
