#include <kest/weight_quant/ulq.h>

#include <omp.h>
#include <tests/test_util.h>

#include <algorithm>
#include <climits>

namespace {

using Device = util::ThreadPoolDevice;
using Floats = std::vector<float>;

template <typename T>
std::vector<T> Quantise(std::vector<T> x, float scale, int z, int numBits) {
    KestCommon::Ulq<T>(x.data(), x.data(), static_cast<int>(x.size()), {1, &scale}, {1, &z}, numBits);
    return x;
}

/// {output, scale, offset, bounds} of one value.
Floats Forward(float hi, float lo, int numBits, float x) {
    const KestTfOp::UlqFunctor<Device, float> functor;
    float scale, max, min;
    int offset;
    EXPECT_EQ(STATUS_OK, functor({&x, 1, &hi, &lo}, {&x, &scale, &offset, &max, &min}, numBits));
    return {x, scale, static_cast<float>(offset), max, min};
}

template <typename T>
void ForwardRows() {
    const T belowHalf = std::nextafter(T{0.5}, T{0}), inf = std::numeric_limits<T>::infinity();
    ExpectSameBits<T>({1, -2, 0, 1, -1, -T{0}, 1, -2},
                      Quantise<T>({T{1.4f}, T{-2.6f}, belowHalf, 0.5, -0.5, T{-0.2f}, inf, -inf}, 1, -2, 2));
    EXPECT_TRUE(std::isnan(Quantise<T>({T{kNan}}, 1, -2, 2)[0]));
    ExpectSameBits<T>({T(6 * double{0.1f})}, Quantise<T>({T{0.65f}}, 0.1f, 0, 8));  // 6.4999995; 6.5 with 1 / 0.1
    // float(z) is 1 less; the upper bound is made in double precision.
    ExpectSameBits<T>({16777216, 16777218}, Quantise<T>({0, 1e9f}, 1, 16777217, 1));
    ExpectSameBits<T>({T(16777217)}, Quantise<T>({1e9f}, 1, 16777214, 2));
    ExpectSameBits<T>({2, -1}, Quantise<T>({0, 5}, -1, -2, 2));  // bounds 2 and -1: the lower one comes first
}

TEST(Ulq, ForwardWorkedRows) {
    ForwardRows<float>();
    ForwardRows<double>();
    const float s = 0.00784413796f;  // float(2 / 255) + float(1e-6), 1 ulp above the exact sum
    ExpectSameBits({-127 * s, s, -1, 1, -1}, Forward(1, -1, 8, -1));
    ExpectSameBits({8128, 64, 0, 8160, -8160}, Forward(8160, -8160, 8, 8160));  // z = round(-127.5) = -128
    ExpectSameBits({480, 32, -8, 480, 0}, Forward(480, 0, 4, 1000));
    ExpectSameBits({0.5f, 1e-6f, -500128, 0.5f, 0.5f}, Forward(0.5f, 0.5f, 8, 0));  // z = 500000
    EXPECT_EQ(-0x1p31f, Forward(1e30f, 1e30f, 8, 0)[2]);                            // z and -128 - z saturate
    EXPECT_EQ(-128, Forward(1, kNan, 8, 0)[2]);
}

template <typename T>
void GradientRows(T k) {
    const auto diff = [](std::vector<T> x, std::vector<T> grad, std::vector<T> bounds) {
        return KestCommon::UlqDiff<T>(x.data(), grad.data(), static_cast<int>(x.size()), bounds);
    };
    const std::vector<T> bounds{10, -20, 127.25, -127.75};  // range 255, clipMin a quarter above its level
    const T f = k / -4, g = T(1.1);
    ExpectSameBits<T>({1 + f, -f}, diff({11}, {1}, bounds));
    ExpectSameBits<T>({2 * f, 2 * (1 - f)}, diff({-21}, {2}, bounds));
    ExpectSameBits<T>({0, 0}, diff({10, -20}, {3, 5}, bounds));  // integral, and not beyond the thresholds
    ExpectSameBits<T>({k / 2, -k / 2}, diff({T(0.1)}, {1}, {1, -1, 0.75, -0.25}));  // 25.5 in T
    for (const T x : {T(0.11), T(0.13), T(0.17), T(0.19), T(0.23)}) {
        const T error = static_cast<T>((std::round(double{x * 255}) - double{x * 255}) * double{k});
        ExpectSameBits<T>({error, -error}, diff({x}, {1}, {1, -1, 0.5, -0.5}));
    }
    const auto rest = [g](T a) { return std::fma(a, -g, a * g); };  // a fused step leaves what rounding took
    ExpectSameBits<T>({rest(1 + f), rest(-f)}, diff({11, 11}, {g, -g}, bounds));
    ExpectSameBits<T>({rest(f), rest(1 - f)}, diff({-21, -21}, {g, -g}, bounds));
    ExpectSameBits<T>({rest(f), rest(-f)}, diff({2.25, 2.25}, {g, -g}, bounds));
    ExpectSameBits<T>({0, 0}, diff({11}, {1}, {10, -20, 127}));

    const std::vector<T> b{T(2.1), T(-1.9), T(2.3), T(-2.2)};
    for (const int n : {255, 256, 257, 512, 1000}) {  // the factors are computed by blocks
        const std::vector<T> x = MixedValues<T>(n, n, 3), grad = MixedValues<T>(n, n + 1);
        T max = 0, min = 0;
        for (int i = 0; i < n; ++i) {
            const bool above = x[i] > b[0], below = x[i] < b[1];
            const T r = (above || below ? b[3] : x[i]) * 255 / (b[2] - b[3]);
            const T error = static_cast<T>((static_cast<double>(std::round(r)) - static_cast<double>(r)) * double{k});
            max = std::fma(above ? 1 + error : error, grad[i], max);
            min = std::fma(below ? 1 - error : -error, grad[i], min);
        }
        ExpectSameBits<T>({max, min}, diff(x, grad, b));
    }
}

TEST(Ulq, Gradients) {
    GradientRows<float>(0.003921568859368563f);
    GradientRows<double>(1.0 / 255);
    const float hi = 8100, lo = -8205, range = hi - lo, step = 16, one = 1;
    for (const float x : {100.0f, -3000.0f, 5555.0f, 9000.0f, -9000.0f}) {
        const auto slope = [&](float toHi, float toLo) {
            return (Forward(hi + toHi, lo + toLo, 8, x)[0] - Forward(hi - toHi, lo - toLo, 8, x)[0]) / (2 * step);
        };
        const Floats gradient = KestCommon::UlqDiff<float>(&x, &one, 1, {hi, lo, hi, lo});
        // The gradients pass rounding unchanged: they also have what a bound does to the operand, x / s or lo / s.
        const bool inside = std::fabs(x) < 8000;
        EXPECT_NEAR(slope(step, 0) - (inside ? x : lo) / range, gradient[0], 1e-4) << x;
        EXPECT_NEAR(slope(0, step) + (inside ? x : hi) / range, gradient[1], 1e-4) << x;
    }
}

template <typename T>
void BoundRows() {
    const auto check = [](std::vector<T> b) {
        b.push_back(KestCommon::ClipCheck<T>(b[0], b[1], b[2], b[3]));
        return b;
    };
    ExpectSameBits<T>({9, -9, 9, -9, true}, check({2, 2, 9, -9}));  // clipMax, clipMin and their records
    ExpectSameBits<T>({9, -2, 9, -2, false}, check({-1, -2, 9, -9}));
    ExpectSameBits<T>({0, -2, 0, -2, false}, check({0, -2, 9, -9}));
    ExpectSameBits<T>({2, -9, 2, -9, false}, check({2, 0.5, 9, -9}));
    ExpectSameBits<T>({2, 0, 2, 0, false}, check({2, 0, 9, -9}));
    const KestTfOp::GetBatchNum<Device, T> get;
    std::vector<int> numbers(4);
    T counters[] = {T{3.9f}, T{-3.9f}, 1e10f, T{kNan}};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(STATUS_OK, get(counters[i], numbers[i]));
    ExpectSameBits({3, -3, INT_MAX, 0}, numbers);
    EXPECT_EQ(STATUS_OK, (KestTfOp::UpdateBatchNum<Device, T>()(counters[0])));
    EXPECT_EQ(T{3.9f} + 1, counters[0]);
}

TEST(Ulq, BoundsAndCounters) {
    BoundRows<float>();
    BoundRows<double>();
    Floats b{-1, -2, 9, -8};
    EXPECT_EQ(STATUS_OK, (KestTfOp::ClipCheckFunctor<Device, float>()(&b[0], &b[1], b[2], b[3], true)));
    ExpectSameBits({9, -8, 9, -8}, b);  // clipMin 0 is above clipMax
    KestTfOp::ClipRecord<Device, float>()(&b[1], &b[0], b[2], b[3]);
    ExpectSameBits({9, -8, -8, 9}, b);
    const KestTfOp::ClipCalculate<Device, float> calculate;
    const float scales[] = {0.5f, 1};
    const int offsets[] = {-1, INT_MIN};
    calculate(&scales[0], &offsets[0], &b[0], &b[1], 4);
    calculate(&scales[1], &offsets[1], &b[2], &b[3], 8);
    ExpectSameBits({4, -3.5f, 0x1p31f, 0x1p31f - 128}, b);  // code - offset is more than an int holds
    const float three = 3;
    const int far = -128 - 16777216;
    calculate(&three, &far, &b[0], &b[1], 8);
    EXPECT_EQ(50332416, b[0]);  // 3 * float(16777471), a product of 50332413 would be 50332412
}

Floats QuantiseWeights(Floats x, const Floats& scale, int numBits, bool reciprocal) {
    const int n = static_cast<int>(x.size()), numChannels = static_cast<int>(scale.size());
    const KestTfOp::WtsFakeQuantFunctor<Device, float> functor;
    EXPECT_EQ(STATUS_OK, functor({x.data(), n, numChannels}, x.data(), scale.data(), numBits, reciprocal));
    return x;
}

TEST(Ulq, Weights) {
    // Halves, a clamped top, -0, no absolute value (-2 steps), 0 is raised, 1e-6 is not.
    ExpectSameBits({-1.5f, 3.5f, -0.0f, -2 * (-0.5f + 1e-6f), 7 * 1e-6f, -8 * 1e-6f},
                   QuantiseWeights({-1.25f, 100, -0.1f, 1, 1, -1}, {0.5f, 0.5f, 0.5f, -0.5f, 0, 1e-6f}, 4, false));
    ExpectSameBits({6 * 0.1f}, QuantiseWeights({0.65f}, {10}, 4, true));  // 6.4999995; a product with 10 is 6.5
    EXPECT_TRUE(std::isnan(QuantiseWeights({kNan}, {1}, 4, false)[0]));

    const Floats data{-128, -1, -128, 0, 5e-5f, kNan, 127, 254, 128, -0.0f, 0, -64};
    const auto steps = [&data](int numBits, bool reciprocal) {
        Floats out(18, -77.0f);  // maxima, minima, steps
        KestTfOp::ScaleArqInit<Device, float>()(12, &data[0], &out[0], &out[6], {&out[12], 6, numBits, reciprocal});
        return out;
    };
    ExpectSameBits({127, 254, 128, 0, 5e-5f, 0, -128, -1, -128, 0, 0, -64, 1, 2, 128 / 127.0f, 1, 1, 0.5f},
                   steps(8, false));
    EXPECT_EQ(0.5f, steps(8, true)[13]);
    EXPECT_EQ(1, steps(8, true)[15]);
    EXPECT_EQ(-77, steps(1, false)[12]);
    EXPECT_EQ(64, steps(2, false)[12]);
    const float low = -128 * 1e-6f;
    float max, min, step;
    KestTfOp::ScaleArqInit<Device, float>()(1, &low, &max, &min, {&step, 1, 8, false});
    EXPECT_EQ(1e-6f, step);  // is not below itself
}

TEST(Ulq, TransposeAB) {
    const auto transpose = [](std::vector<int> shape, int length, const std::string& message) {
        std::vector<double> data{0, 1, 2, 3, 4, 5, 6, 7};
        EXPECT_EQ(message.empty() ? "" : "[ERROR][TransposeAB][] The " + message + "!\n",
                  LogOf([&] { KestCommon::TransposeAB(data.data(), length, shape); }));
        data.insert(data.begin(), shape.begin(), shape.end());
        return data;
    };
    ExpectSameBits({3, 2, 0, 3, 1, 4, 2, 5, 6, 7}, transpose({2, 3}, 6, ""));
    ExpectSameBits({2, 2, 2, 0, 1, 4, 5, 2, 3, 6, 7}, transpose({2, 2, 2}, 8, ""));
    ExpectSameBits({3, 2, 0, 0, 1, 2, 3, 4, 5, 6, 7}, transpose({2, 3, 0}, 0, ""));
    ExpectSameBits({INT_MAX, INT_MAX, 0, 0, 1, 2, 3, 4, 5, 6, 7}, transpose({INT_MAX, INT_MAX, 0}, 0, ""));
    const std::string product = "length and length calculated by shape are different";
    ExpectSameBits({6, 0, 1, 2, 3, 4, 5, 6, 7}, transpose({6}, 6, "shape dimensions less than 2"));
    ExpectSameBits({-2, -4, 0, 1, 2, 3, 4, 5, 6, 7}, transpose({-2, -4}, 8, product));
    const double k = 65536;  // 2^64 is no 0
    ExpectSameBits({k, k, k, k, 0, 1, 2, 3, 4, 5, 6, 7}, transpose({65536, 65536, 65536, 65536}, 0, product));
}

template <typename T>
void Sweep(int threads) {
    const float s = 0.03f;
    const T low = -100 * s, high = static_cast<T>(155 * double{s});
    omp_set_num_threads(threads);
    for (const int n : {0, 1, 15, 16, 17, 33, 130, 100003}) {
        const std::vector<T> x = MixedValues<T>(n, n, 3);
        std::vector<T> expected;
        for (const T v : x) expected.push_back(static_cast<T>(std::round(std::clamp(v, low, high) / T{s}) * double{s}));
        ExpectSameBits(expected, Quantise(x, s, -100, 8));
    }
}

TEST(Ulq, AnyLengthAndNumberOfThreads) {
    const int maxThreads = omp_get_max_threads();
    for (const int threads : {1, 2, 5}) {
        Sweep<float>(threads);
        Sweep<double>(threads);
    }
    omp_set_num_threads(maxThreads);
    for (const std::size_t numChannels : {1u, 3u, 16u, 17u, 1000u}) {
        const Floats x = MixedValues<float>(5003, 7), scale = MixedValues<float>(numChannels, 8, 0.1f);
        Floats expected;
        for (std::size_t i = 0; i < x.size(); ++i) {
            const float learned = scale[i % numChannels], s = learned < 1e-6f ? learned + 1e-6f : learned;
            expected.push_back(std::clamp(std::round(x[i] / s), -128.0f, 127.0f) * s);
        }
        ExpectSameBits(expected, QuantiseWeights(x, scale, 8, false));
    }
}

}  // namespace
