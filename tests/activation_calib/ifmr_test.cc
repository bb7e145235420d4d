#include <kest/activation_calib/ifmr.h>

#include <omp.h>
#include <tests/test_util.h>

#include <algorithm>
#include <functional>

using KestCommon::IfmrParam;
using KestCommon::MaxMinValue;

namespace {

constexpr IfmrParam kOneRatio{0, 8, true, 1, 1, 1, 1, 1};

IfmrParam With(IfmrParam param, const std::function<void(IfmrParam&)>& change) {
    change(param);
    return param;
}

struct Factors {
    float scale = -77;
    int offset = -77;
    int status = -77;
};

template <typename T>
Factors Calibrate(std::vector<T>& data, const IfmrParam& param, Factors given = {}) {
    given.status = KestCommon::IfmrQuant(data.data(), static_cast<unsigned int>(data.size()), param, {1, &given.scale},
                                         {1, &given.offset});
    return given;
}

void ExpectFactors(float scale, int offset, const Factors& actual) {
    EXPECT_EQ(STATUS_OK, actual.status);
    EXPECT_EQ(Bits(scale), Bits(actual.scale));
    EXPECT_EQ(offset, actual.offset);
}

// --- Worked by hand ---------------------------------------------------------------------------------------------

TEST(Ifmr, WorkedCalibrations) {
    const struct {
        const char* why;
        IfmrParam param;
        std::vector<float> data;
        float scale;
        int offset;
    } rows[] = {
        {"one ratio, with offset", kOneRatio, {0, 1, 2, 3}, 3.0f / 255, -128},
        {"one ratio, without", With(kOneRatio, [](auto& p) { p.withOffset = false; }), {0, 1, 2, 3}, 3.0f / 127, 0},
        {"a negative bound has one step more",
         With(kOneRatio, [](auto& p) { p.withOffset = false; }),
         {1, -2},
         2.0f / 128,
         0},
        {"equal bounds take the negative one",
         With(kOneRatio, [](auto& p) { p.withOffset = false; }),
         {2, -2},
         2.0f / 128,
         0},
        {"all negative: the range ends at 0", kOneRatio, {-255, -51}, 1, 127},
        // round(min / scale) - 2^27 needs 27 bits: a difference in single precision gives -100663296.
        {"the offset is exact at 28 bits",
         With(kOneRatio, [](auto& p) { p.numBits = 28; }),
         {-33554436, 234881024},
         1,
         -100663292},
        {"a constant 0 has scale 1", kOneRatio, {0, 0, 0}, 1, -128},
        {"an outlier beyond the percentile does not count",
         With(kOneRatio, [](auto& p) { p.maxPercentile = 0.5f; }),
         {255, 1, 1000, 2},
         1,
         -128},
        // 2 bits, levels 3. Ratio 1/2: scale 1, codes 0 1 2 3 3, error (6 - 3)^2; ratio 1: scale 2, error 1 + 0 + 1.
        {"the smaller error wins", {0, 2, true, 0.5f, 1, 0.5f, 1, 1}, {0, 1, 2, 3, 6}, 2, -2},
        // One level. Ratio 1/2: scale 2, error (4 - 2)^2; ratio 3/2: scale 6, error (6 - 4)^2.
        // Ratio -1/4 has the scale -1/4: it would leave the same error, all of it, with scale 1, and come first.
        {"a negative scale is no candidate", {0, 1, true, -0.25f, 3, 3.25f, 1, 1}, {1, 1}, 3, -1},
        {"31 bits, the most", {0, 31, false, 1, 1, 1, 1, 1}, {-0x1p30f, 5}, 1, 0},
        {"the earlier ratio wins a tie", {0, 2, false, 0.5f, 1.5f, 1, 1, 1}, {4}, 2, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        std::vector<float> data = row.data;
        ExpectFactors(row.scale, row.offset, Calibrate(data, row.param));
        ExpectSameBits(row.data, data);
        std::vector<double> wide(data.begin(), data.end());
        ExpectFactors(row.scale, row.offset, Calibrate(wide, row.param));
    }
}

TEST(Ifmr, TheRangeOfARatioIsFusedForFloatsAndAFloatProductForDoubles) {
    std::vector<float> data{-0.3f, 0.3f};
    std::vector<double> wide{data[0], data[1]};
    const IfmrParam param{0, 8, true, 0.9f, 0.9f, 1, 1, 1};
    EXPECT_EQ(0x1.24fc06p-9f, Calibrate(data, param).scale);  // (0.3 * 0.9 + 0.3) / 255
    EXPECT_EQ(0x1.24fc08p-9f, Calibrate(wide, param).scale);
}

TEST(Ifmr, Inference) {
    const IfmrParam inference = With(kOneRatio, [](auto& p) { p.calibration = 1; });
    std::vector<float> data{0.26f, -0.25f, 20.0f, -20.0f, kInf, -kInf, kNan, -0.01f};
    ExpectFactors(0.1f, 0, Calibrate(data, inference, {0.1f, 0}));
    ExpectSameBits({3 * 0.1f, -3 * 0.1f, 127 * 0.1f, -128 * 0.1f, 127 * 0.1f, -128 * 0.1f, 0.0f, 0.0f}, data);

    std::vector<double> wide{1e-8, -3e-8, 1.0};  // a scale below 2^-23 is used as it is
    ExpectFactors(1e-8f, -100, Calibrate(wide, inference, {1e-8f, -100}));
    ExpectSameBits<double>({1e-8f, -3 * 1e-8f, 227 * 1e-8f}, wide);

    std::vector<float> same{1, 2};
    for (const float scale : {0.0f, -1.0f, 1e-16f}) {
        EXPECT_EQ(
            "[ERROR][ClipAndQuant][] scale value should not be less than zero!\n"
            "[ERROR][IfmrQuantInference][] ClipAndQuant failed.\n",
            LogOf([&] {
                EXPECT_EQ(STATUS_SCALE_ERROR, Calibrate(same, inference, {scale, 0}).status);
            }));
        ExpectSameBits({1.0f, 2.0f}, same);
    }
}

TEST(Ifmr, Percentiles) {
    std::vector<float> data(1000);
    for (int i = 0; i < 1000; ++i) data[i] = static_cast<float>((i * 377) % 1000 - 300);  // -300 .. 699, shuffled
    const struct {
        float maxPercentile, minPercentile;
        float max, min;
    } rows[] = {
        {1, 1, 699, -300},
        {0.999f, 0.999f, 699, -300},
        {0.99f, 0.99f, 690, -291},
        {0.5f, 0.5f, 200, 0},
        {0.301f, 1, 1, -300},  // the 699th is the last above 0
        {0.01f, 1, 0, -300},   // the 990th largest is negative
        {0, 0, 0, 0},
        {-3, kNan, 0, 0},
        {1, 0, 699, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.maxPercentile << " " << row.minPercentile);
        MaxMinValue<float> range{};
        EXPECT_EQ(STATUS_OK, KestCommon::FindMaxAndMinValueWithPercentile(data.data(), 1000u, range, row.maxPercentile,
                                                                          row.minPercentile));
        EXPECT_EQ(row.max, range.maxValue);
        EXPECT_EQ(row.min, range.minValue);
    }
    for (const float above : {1.0000001f, 1.001f, 2.0f, 5e6f, kInf}) {
        MaxMinValue<float> range{5, 6};
        EXPECT_EQ("[ERROR][FindMaxAndMinValueWithPercentile][] maxSize > length may rise array bound error!\n",
                  LogOf([&] {
                      EXPECT_EQ(STATUS_SCALE_ERROR,
                                KestCommon::FindMaxAndMinValueWithPercentile(data.data(), 1000u, range, 1.0f, above));
                  }));
        EXPECT_EQ(5, range.maxValue);
    }
}

template <typename T>
void ComparePercentilesWithASort() {
    for (const std::size_t n : {1u, 2u, 17u, 1000u, 100000u}) {
        for (const T spread : {T{1}, T{1000}}) {
            std::vector<T> data = MixedValues<T>(n, static_cast<unsigned int>(n), spread);
            data[n / 2] = -std::numeric_limits<T>::infinity();
            std::vector<T> sorted = data;
            std::sort(sorted.begin(), sorted.end());
            for (const float percentile : {0.9999f, 0.9f, 0.6f, 0.3f}) {
                const std::size_t rank = n - static_cast<std::size_t>(std::floor(static_cast<float>(n) * percentile));
                MaxMinValue<T> range{};
                ASSERT_EQ(STATUS_OK, KestCommon::FindMaxAndMinValueWithPercentile(
                                         data.data(), static_cast<unsigned int>(n), range, percentile, percentile));
                EXPECT_EQ(std::max(sorted[n - rank], T{0}), range.maxValue) << n << " " << percentile;
                EXPECT_EQ(std::min(sorted[rank - 1], T{0}), range.minValue) << n << " " << percentile;
            }
        }
    }
}

TEST(Ifmr, PercentilesAgreeWithASort) {
    ComparePercentilesWithASort<float>();
    ComparePercentilesWithASort<double>();
}

// --- Failures ---------------------------------------------------------------------------------------------------

TEST(Ifmr, FailuresAreNamedAndWriteNothing) {
    const std::string own = "*";  // a message of kest's own: only its presence counts
    const struct {
        int status;
        std::string log;
        IfmrParam param;
        std::vector<float> data;
    } rows[] = {
        {STATUS_BAD_PARAM,
         "[ERROR][IfmrQuantInternel][] ifmrParam.calibration = 2.\n",
         With(kOneRatio,
              [](auto& p) {
                  p.calibration = 2;
                  p.numBits = 32;
              }),
         {1}},
        {STATUS_BAD_PARAM, own, With(kOneRatio, [](auto& p) { p.numBits = 32; }), {1}},
        {STATUS_BAD_PARAM, own, With(kOneRatio, [](auto& p) { p.step = 0; }), {1}},
        {STATUS_BAD_PARAM, own, With(kOneRatio, [](auto& p) { p.step = kInf; }), {1}},
        {STATUS_BAD_PARAM, own, With(kOneRatio, [](auto& p) { p.endRatio = 0.9f; }), {1}},
        {STATUS_BAD_PARAM, own, With(kOneRatio, [](auto& p) { p.endRatio = kInf; }), {1}},
        {STATUS_BAD_PARAM, own, kOneRatio, {1, kNan}},
        {STATUS_SCALE_ERROR,
         "[ERROR][FindMaxAndMinValueWithPercentile][] maxSize > length may rise array bound error!\n"
         "[ERROR][IfmrQuantCalibration][] FindMaxAndMinValueWithPercentile failed.\n",
         With(kOneRatio, [](auto& p) { p.maxPercentile = 1.5f; }),
         {1, kNan}},
        {STATUS_GENERIC_ERROR,
         "[ERROR][IfmrQuantWithOffset][] [IfmrQuantWithOffset]maxLimit should not be zero.\n"
         "[ERROR][IfmrQuantCalibration][] IfmrQuantWithOffset failed.\n",
         With(kOneRatio, [](auto& p) { p.numBits = 0; }),
         {1}},
        {STATUS_GENERIC_ERROR,
         "[ERROR][IfmrQuantWithoutOffset][] [IfmrQuantWithoutOffset]maxLimit should not be zero.\n"
         "[ERROR][IfmrQuantCalibration][] IfmrQuantWithoutOffset failed.\n",
         With(kOneRatio,
              [](auto& p) {
                  p.numBits = 1;
                  p.withOffset = false;
              }),
         {1}},
        {STATUS_SCALE_ERROR,
         "[ERROR][CalScaleWithoutOffset][] [CalScaleWithoutOffset]min or max should not be zero.\n"
         "[ERROR][IfmrQuantCalibration][] CalScaleWithoutOffset failed.\n",
         With(kOneRatio,
              [](auto& p) {
                  p.numBits = 1;
                  p.withOffset = false;
              }),
         {-1}},
    };
    for (const auto& row : rows) {
        std::vector<float> data = row.data;
        Factors factors;
        const std::string log = LogOf([&] { factors = Calibrate(data, row.param); });
        SCOPED_TRACE(log);
        EXPECT_EQ(row.status, factors.status);
        EXPECT_EQ(-77.0f, factors.scale);
        EXPECT_EQ(-77, factors.offset);
        if (row.log == own) {
            EXPECT_NE("", log);
        } else {
            EXPECT_EQ(row.log, log);
        }
    }
    float scale[2];
    int offset[2];
    float one = 1;
    EXPECT_EQ(
        "[ERROR][CheckIfmrQuantParams][] Empty pointer, all input tensor is empty\n"
        "[ERROR][IfmrQuantInternel][] CheckIfmrQuantParams failed.",
        LogOf([&] {
            EXPECT_EQ(STATUS_BAD_PARAM,
                      KestCommon::IfmrQuant(static_cast<float*>(nullptr), 0, kOneRatio, {2, scale}, {2, offset}));
        }));
    EXPECT_EQ(
        "[ERROR][CheckIfmrQuantParams][] scale.length = 1 and offset.length = 2 should be 1.\n"
        "[ERROR][IfmrQuantInternel][] CheckIfmrQuantParams failed.",
        LogOf([&] {
            EXPECT_EQ(STATUS_BAD_PARAM, KestCommon::IfmrQuant(&one, 1, kOneRatio, {1, scale}, {2, offset}));
        }));
}

TEST(Ifmr, AMillionRatios) {
    // 2^20 groups of lanes: their share of a pass is no 32-bit product. Scale 1 quantises without an error.
    std::vector<float> data{0, 255};
    const IfmrParam grid{0, 8, true, 0, 1, 1.0f / (1 << 23), 1, 1};
    omp_set_num_threads(1);
    const Factors factors = Calibrate(data, grid);
    omp_set_num_threads(omp_get_num_procs());
    ExpectFactors(1, -128, factors);
}

TEST(Ifmr, ASkippedRatioLeavesTheSearchAndAllSkippedFailAtTheEnd) {
    // 2^23 * 255 is the largest bound: the ratio 1 is fine, 2 is too large.
    std::vector<float> data{0, 8388608.0f * 255};
    const IfmrParam twoRatios{0, 8, true, 1, 2, 1, 1, 1};
    LogOf([&] { ExpectFactors(8388608.0f, -128, Calibrate(data, twoRatios)); });
    data[1] = kInf;
    Factors factors;
    EXPECT_EQ(
        "[ERROR][ProcessScale][] Not support scale is +inf.\n"
        "[ERROR][ProcessScale][] Not support scale is +inf.\n"
        "[ERROR][ProcessScale][] Not support scale is +inf.\n"
        "[ERROR][CalScaleWithOffset][] [CalScaleWithOffset]scale failed.\n"
        "[ERROR][IfmrQuantCalibration][] CalScaleWithOffset failed.\n",
        LogOf([&] { factors = Calibrate(data, twoRatios); }));
    EXPECT_EQ(STATUS_SCALE_ERROR, factors.status);
    EXPECT_EQ(kInf, factors.scale);
    EXPECT_EQ(-77, factors.offset);
}

// --- Against a plain loop ---------------------------------------------------------------------------------------

template <typename T>
T PlainError(T quotient, T scale, T x);
template <>
float PlainError(float quotient, float scale, float x) {
    return static_cast<float>(static_cast<double>(quotient) * static_cast<double>(scale)) - x;
}
template <>
double PlainError(double quotient, double scale, double x) {
    return std::fma(scale, quotient, -x);
}

/// The index of the best ratio, from one pass a candidate with a buffer of terms.
template <typename T>
unsigned int PlainSearch(const std::vector<T>& x, const IfmrParam& param, T max, T min) {
    const bool positive = std::fabs(max) > std::fabs(min);
    const float bound = static_cast<float>(std::fabs(positive ? max : min));
    const double half = std::pow(2.0, param.numBits - 1.0);
    const unsigned int levels = static_cast<unsigned int>(param.withOffset ? 2 * half - 1 : positive ? half - 1 : half);
    const unsigned int numRatios = static_cast<unsigned int>((param.endRatio - param.startRatio) / param.step + 1.0f);
    unsigned int best = numRatios;
    float bestLoss = 0;
    std::vector<float> term(x.size());
    for (unsigned int k = 0; k < numRatios; ++k) {
        const float ratio = std::fma(static_cast<float>(k), param.step, param.startRatio);
        const T clip = param.withOffset ? ratio * max : static_cast<T>(ratio * bound);
        T scale = (param.withOffset ? clip - min : clip) / static_cast<T>(levels);
        if (param.withOffset && scale < 0) continue;
        if (scale < std::numeric_limits<T>::epsilon()) scale = 1;
        if (scale > 1 / std::numeric_limits<T>::epsilon()) continue;
        const T low = param.withOffset ? min : -clip;
        for (std::size_t i = 0; i < x.size(); ++i) {
            const T y = x[i] < low ? low : x[i] > clip ? clip : x[i];
            const T e = PlainError<T>(std::round(y / scale), scale, x[i]);
            term[i] = static_cast<float>(e * e / static_cast<T>(x.size()));
        }
        float loss = 0;
        for (const float t : term) loss += t;
        if (best == numRatios || loss < bestLoss) {
            best = k;
            bestLoss = loss;
        }
    }
    return best == numRatios ? 0 : best;  // every ratio skipped: the first goes on
}

template <typename T>
void SearchAgainstPlain(std::vector<T> data, IfmrParam param, std::initializer_list<int> threads) {
    MaxMinValue<T> range{};
    ASSERT_EQ(STATUS_OK,
              KestCommon::FindMaxAndMinValueWithPercentile(data.data(), static_cast<unsigned int>(data.size()), range,
                                                           param.maxPercentile, param.minPercentile));
    const unsigned int best = PlainSearch<T>(data, param, range.maxValue, range.minValue);
    // The factors of the best ratio alone tell whether the search found it.
    IfmrParam alone = param;
    alone.startRatio = alone.endRatio = std::fma(static_cast<float>(best), param.step, param.startRatio);
    const Factors expected = Calibrate(data, alone);
    const int numThreads = omp_get_max_threads();
    for (const int n : threads) {
        omp_set_num_threads(n);
        const Factors actual = Calibrate(data, param);
        EXPECT_EQ(expected.status, actual.status) << n << " threads";
        EXPECT_EQ(Bits(expected.scale), Bits(actual.scale)) << n << " threads";
        EXPECT_EQ(expected.offset, actual.offset) << n << " threads";
    }
    omp_set_num_threads(numThreads);
}

template <typename T>
void SweepAgainstPlain() {
    unsigned int seed = 1;
    for (const unsigned int n : {1u, 3u, 15u, 16u, 17u, 130u, 5000u, 10007u}) {
        for (const IfmrParam& grid :
             {IfmrParam{0, 8, true, 0.7f, 1.3f, 0.01f, 0.999f, 0.999f},
              IfmrParam{0, 4, false, 0.5f, 1.5f, 0.01f, 0.99f, 1.0f},
              IfmrParam{0, 2, true, 0.2f, 1.2f, 0.3f, 1.0f, 1.0f}, IfmrParam{0, 3, true, -0.3f, 1.0f, 0.1f, 1.0f, 1.0f},
              IfmrParam{0, 3, false, -0.3f, 1.0f, 0.1f, 1.0f, 1.0f}}) {
            // The last spreads leave the range where the quotients are products.
            for (const T spread : {T{1}, static_cast<T>(1e-7), static_cast<T>(1e6), static_cast<T>(-3), T{1e-30f}}) {
                SCOPED_TRACE(testing::Message() << n << " values, " << grid.numBits << " bits, spread " << spread);
                SearchAgainstPlain(MixedValues<T>(n, seed++, spread), grid, {1, 3});
                if (testing::Test::HasFailure()) return;
            }
        }
    }
}

TEST(Ifmr, SweepFloat) {
    SweepAgainstPlain<float>();
}
TEST(Ifmr, SweepDouble) {
    SweepAgainstPlain<double>();
}

TEST(Ifmr, AMillionValuesOnAnyNumberOfThreads) {
    std::vector<float> data = MixedValues<float>(1000000, 9);
    for (std::size_t i = 0; i < data.size(); i += 97) data[i] = 1e20f;  // clipped: the error overflows to infinity
    SearchAgainstPlain<float>(data, {0, 4, true, 0.7f, 1.3f, 0.01f, 0.95f, 0.9999f}, {1, 2, 3, 5});
    for (float& x : data) x = std::fabs(x) < 1e10f ? x : 0.25f;
    SearchAgainstPlain<float>(data, {0, 4, true, 0.7f, 1.3f, 0.01f, 0.9999f, 0.9999f}, {1, 2, 3, 5});
}

// --- The functor ------------------------------------------------------------------------------------------------

TEST(Ifmr, FunctorCalibratesOnTheLastBatchOnly) {
    const KestTfOp::QuantIfmrFunctor<util::ThreadPoolDevice, float> functor;
    kest_tf::IfmrParam param{0, 8, true, 1, 1, 1, 1, 1};
    const std::vector<std::vector<float>> batches{{0, 255}, {1, 2}, {3, 510}, {1e6f, 1e6f}};
    KestTfOp::InputParam<float> input{};
    float scale = -1, calScale = -1;
    int offset = -1, calOffset = -1;
    int batchIndex = 0, batchNum = 3;
    const auto feed = [&](const std::vector<float>& batch) {
        input.length = static_cast<std::int64_t>(batch.size());
        input.input = batch.data();
        return functor(param, batchIndex, batchNum, input, {&scale, &offset, &calScale, &calOffset});
    };
    EXPECT_EQ(STATUS_OK, feed(batches[0]));
    const float* reserved = input.accumulated.data();
    EXPECT_EQ(STATUS_OK, feed(batches[1]));
    EXPECT_EQ(-1.0f, calScale);
    EXPECT_EQ(STATUS_OK, feed(batches[2]));
    EXPECT_EQ(reserved, input.accumulated.data());  // reserved once, for all batches
    ExpectSameBits({0.0f, 255.0f, 1.0f, 2.0f, 3.0f, 510.0f}, input.accumulated);
    EXPECT_EQ(2.0f, scale);
    EXPECT_EQ(-128, offset);
    EXPECT_EQ(STATUS_OK, feed(batches[3]));
    EXPECT_EQ(6u, input.accumulated.size());
    EXPECT_EQ(4, batchIndex);

    // A failure publishes nothing.
    batchIndex = 2;
    const std::vector<float> infinite{kInf};
    LogOf([&] { EXPECT_EQ(STATUS_SCALE_ERROR, feed(infinite)); });
    EXPECT_EQ(2.0f, scale);
    EXPECT_EQ(kInf, calScale);
}

}  // namespace
