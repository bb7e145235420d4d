#include <kest/activation_calib/ifmr.h>

#include <benchmarks/plain_ifmr.h>
#include <omp.h>
#include <tests/test_util.h>

using KestCommon::IfmrParam;
using KestCommon::MaxMinValue;

namespace {

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

void ExpectFactors(float scale, int offset, const Factors& actual, int status = STATUS_OK) {
    EXPECT_EQ(status, actual.status);
    EXPECT_EQ(Bits(scale), Bits(actual.scale));
    EXPECT_EQ(offset, actual.offset);
}

TEST(Ifmr, WorkedCalibrations) {
    const struct {
        const char* why;
        IfmrParam param;
        std::vector<float> data;
        float scale;
        int offset;
    } rows[] = {
        {"one ratio, with offset", {0, 8, true, 1, 1, 1, 1, 1}, {0, 1, 2, 3}, 3.0f / 255, -128},
        {"one ratio, without", {0, 8, false, 1, 1, 1, 1, 1}, {0, 1, 2, 3}, 3.0f / 127, 0},
        {"a negative bound has one step more", {0, 8, false, 1, 1, 1, 1, 1}, {1, -2}, 2.0f / 128, 0},
        {"equal bounds take the negative one", {0, 8, false, 1, 1, 1, 1, 1}, {2, -2}, 2.0f / 128, 0},
        {"all negative: the range ends at 0", {0, 8, true, 1, 1, 1, 1, 1}, {-255, -51}, 1, 127},
        // round(min / scale) - 2^27 needs 27 bits: a difference in single precision gives -100663296.
        {"28 bits", {0, 28, true, 1, 1, 1, 1, 1}, {-33554436, 234881024}, 1, -100663292},
        {"a constant 0 has scale 1", {0, 8, true, 1, 1, 1, 1, 1}, {0, 0, 0}, 1, -128},
        {"beyond the percentile nothing counts", {0, 8, true, 1, 1, 1, 0.5f, 1}, {255, 1, 1000, 2}, 1, -128},
        // 2 bits, levels 3. Ratio 1/2: scale 1, codes 0 1 2 3 3, error (6 - 3)^2; ratio 1: scale 2, error 1 + 0 + 1.
        {"the smaller error wins", {0, 2, true, 0.5f, 1, 0.5f, 1, 1}, {0, 1, 2, 3, 6}, 2, -2},
        // One level. Ratio 1/2: scale 2, error (4 - 2)^2; ratio 3/2: scale 6, error (6 - 4)^2.
        {"the earlier ratio wins a tie", {0, 2, false, 0.5f, 1.5f, 1, 1, 1}, {4}, 2, 0},
        // Ratio -1/4 has the scale -1/4: it would leave the same error, all of it, with scale 1, and come first.
        {"a negative scale is no candidate", {0, 1, true, -0.25f, 3, 3.25f, 1, 1}, {1, 1}, 3, -1},
        {"31 bits, the most", {0, 31, false, 1, 1, 1, 1, 1}, {-0x1p30f, 5}, 1, 0},
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
    const IfmrParam inference{1, 8, true, 1, 1, 1, 1, 1};
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
                ExpectFactors(scale, 0, Calibrate(same, inference, {scale, 0}), STATUS_SCALE_ERROR);
            }));
        ExpectSameBits({1.0f, 2.0f}, same);
    }
}

TEST(Ifmr, Percentiles) {
    const struct {
        float maxPercentile, minPercentile, max, min;
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
    for (const unsigned int n : {1000u, 100000u}) {
        std::vector<float> data(n);  // -300 .. 699, shuffled
        for (unsigned int i = 0; i < n; ++i) data[i] = static_cast<float>(i * 377 % 1000) - 300;
        for (const auto& row : rows) {
            SCOPED_TRACE(testing::Message() << n << " values: " << row.maxPercentile << " " << row.minPercentile);
            MaxMinValue<float> range{};
            EXPECT_EQ(STATUS_OK, KestCommon::FindMaxAndMinValueWithPercentile(data.data(), n, range, row.maxPercentile,
                                                                              row.minPercentile));
            EXPECT_EQ(std::pair(row.max, row.min), std::pair(range.maxValue, range.minValue));
        }
        for (const float above : {1.0000001f, 1.001f, 2.0f, 5e6f, kInf}) {
            MaxMinValue<float> range{5, 6};
            int status = STATUS_OK;
            LogOf([&] { status = KestCommon::FindMaxAndMinValueWithPercentile(data.data(), n, range, 1.0f, above); });
            EXPECT_TRUE(status == STATUS_SCALE_ERROR && range.maxValue == 5 && range.minValue == 6) << above;
        }
    }
}

TEST(Ifmr, FailuresAreNamedAndWriteNothing) {
    const struct {
        int status;
        std::string where, text;  // empty: a message of kest's own, of which only the presence counts
        IfmrParam param;
        std::vector<float> data;
    } rows[] = {
        {STATUS_BAD_PARAM, "", "", {0, 32, true, 1, 1, 1, 1, 1}, {1}},
        {STATUS_BAD_PARAM, "", "", {0, 8, true, 1, 1, 0, 1, 1}, {1}},
        {STATUS_BAD_PARAM, "", "", {0, 8, true, 1, 1, kInf, 1, 1}, {1}},
        {STATUS_BAD_PARAM, "", "", {0, 8, true, -1, 1, 1e-9f, 1, 1}, {1}},
        {STATUS_BAD_PARAM, "", "", {0, 8, true, 1, 0.9f, 1, 1, 1}, {1}},
        {STATUS_BAD_PARAM, "", "", {0, 8, true, 1, kInf, 1, 1, 1}, {1}},
        {STATUS_BAD_PARAM, "", "", {0, 8, true, 1, 1, 1, 1, 1}, {1, kNan}},
        {STATUS_GENERIC_ERROR, "IfmrQuantWithOffset", "maxLimit", {0, 0, true, 1, 1, 1, 1, 1}, {1}},
        {STATUS_GENERIC_ERROR, "IfmrQuantWithoutOffset", "maxLimit", {0, 1, false, 1, 1, 1, 1, 1}, {1}},
        {STATUS_SCALE_ERROR, "CalScaleWithoutOffset", "min or max", {0, 1, false, 1, 1, 1, 1, 1}, {-1}},
    };
    for (const auto& row : rows) {
        std::vector<float> data = row.data;
        const std::string log = LogOf([&] { ExpectFactors(-77, -77, Calibrate(data, row.param), row.status); });
        EXPECT_NE("", log);
        if (row.where.empty()) continue;
        EXPECT_EQ("[ERROR][" + row.where + "][] [" + row.where + "]" + row.text +
                      " should not be zero.\n[ERROR][IfmrQuantCalibration][] " + row.where + " failed.\n",
                  log);
    }
    float scale[] = {-77, -77}, data[] = {1, kNan};
    int offset[2];
    const auto log = [&](int status, float* x, IfmrParam param, unsigned int numScales, unsigned int numOffsets) {
        const util::FloatData scales{numScales, scale};
        const util::IntData offsets{numOffsets, offset};
        return LogOf([&] { EXPECT_EQ(status, KestCommon::IfmrQuant(x, x ? 2u : 0u, param, scales, offsets)); });
    };
    const std::string end = "\n[ERROR][IfmrQuantInternel][] CheckIfmrQuantParams failed.";
    EXPECT_EQ("[ERROR][CheckIfmrQuantParams][] Empty pointer, all input tensor is empty" + end,
              log(STATUS_BAD_PARAM, nullptr, {0, 32, true, 1, 1, 1, 1, 1}, 2, 2));
    EXPECT_EQ("[ERROR][CheckIfmrQuantParams][] scale.length = 1 and offset.length = 2 should be 1." + end,
              log(STATUS_BAD_PARAM, data, {2, 32, true, 1, 1, 1, 1, 1}, 1, 2));
    EXPECT_EQ("[ERROR][IfmrQuantInternel][] ifmrParam.calibration = 2.\n",
              log(STATUS_BAD_PARAM, data, {2, 32, true, 1, 1, 1, 1, 1}, 1, 1));
    EXPECT_EQ(
        "[ERROR][FindMaxAndMinValueWithPercentile][] maxSize > length may rise array bound error!\n"
        "[ERROR][IfmrQuantCalibration][] FindMaxAndMinValueWithPercentile failed.\n",
        log(STATUS_SCALE_ERROR, data, {0, 8, true, 1, 1, 1, 1.5f, 1}, 1, 1));
    EXPECT_EQ(-77, scale[0]);
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
    EXPECT_EQ(
        "[ERROR][ProcessScale][] Not support scale is +inf.\n"
        "[ERROR][ProcessScale][] Not support scale is +inf.\n"
        "[ERROR][ProcessScale][] Not support scale is +inf.\n"
        "[ERROR][CalScaleWithOffset][] [CalScaleWithOffset]scale failed.\n"
        "[ERROR][IfmrQuantCalibration][] CalScaleWithOffset failed.\n",
        LogOf([&] { ExpectFactors(kInf, -77, Calibrate(data, twoRatios), STATUS_SCALE_ERROR); }));
}

/// The factors of the best ratio alone tell whether the search found it.
template <typename T>
void AgainstPlainSearch(std::vector<T> data, const IfmrParam& param) {
    IfmrParam alone = param;
    MaxMinValue<T> range{};
    const auto n = static_cast<unsigned int>(data.size());
    EXPECT_EQ(STATUS_OK, KestCommon::FindMaxAndMinValueWithPercentile(data.data(), n, range, param.maxPercentile,
                                                                      param.minPercentile));
    alone.startRatio = alone.endRatio = bench::PlainBestRatio(data.data(), n, range, param);
    SCOPED_TRACE(testing::Message() << data.size() << " values, the ratio is " << alone.startRatio);
    const Factors expected = Calibrate(data, alone);
    ExpectFactors(expected.scale, expected.offset, Calibrate(data, param), expected.status);
}

TEST(Ifmr, AgainstPlainSearch) {
    const IfmrParam grids[] = {{0, 8, true, 0.7f, 1.3f, 0.01f, 0.999f, 0.999f},
                               {0, 4, false, 0.5f, 1.5f, 0.01f, 0.99f, 1},
                               {0, 2, true, 0.2f, 1.2f, 0.3f, 1, 1},
                               {0, 3, true, -0.3f, 1, 0.1f, 1, 1},
                               {0, 3, false, -0.3f, 1, 0.1f, 1, 1}};
    unsigned int seed = 1;
    for (const unsigned int n : {1u, 3u, 15u, 16u, 17u, 130u, 5000u, 10007u})
        for (const IfmrParam& grid : grids)
            for (const float spread : {1.0f, 1e-7f, 1e6f, -3.0f, 1e-30f}) {  // the last: no products for quotients
                AgainstPlainSearch(MixedValues<float>(n, seed, spread), grid);
                AgainstPlainSearch(MixedValues<double>(n, seed++, spread), grid);
            }
    std::vector<float> data = MixedValues<float>(1000000, 9);
    AgainstPlainSearch(data, {0, 4, true, 0.7f, 1.3f, 0.01f, 0.9999f, 0.9999f});
    for (std::size_t i = 0; i < data.size(); i += 97) data[i] = 1e20f;  // clipped: the error overflows to infinity
    AgainstPlainSearch(data, {0, 4, true, 0.7f, 1.3f, 0.01f, 0.95f, 0.9999f});
}

TEST(Ifmr, FunctorCalibratesOnTheLastBatchOnly) {
    const KestTfOp::QuantIfmrFunctor<util::ThreadPoolDevice, float> functor;
    kest_tf::IfmrParam param{0, 8, true, 1, 1, 1, 1, 1};
    KestTfOp::InputParam<float> input{};
    float scale = -1, calScale = -1;
    int offset = -1, calOffset = -1, batchIndex = 0, batchNum = 3;
    const auto feed = [&](const std::vector<float>& batch) {
        input.length = static_cast<std::int64_t>(batch.size());
        input.input = batch.data();
        return functor(param, batchIndex, batchNum, input, {&scale, &offset, &calScale, &calOffset});
    };
    EXPECT_EQ(STATUS_OK, feed({0, 255}));
    const float* reserved = input.accumulated.data();
    EXPECT_EQ(STATUS_OK, feed({1, 2}));
    EXPECT_EQ(-1, calScale);
    EXPECT_EQ(STATUS_OK, feed({3, 510}));
    EXPECT_EQ(reserved, input.accumulated.data());  // reserved once, for all batches
    EXPECT_EQ(STATUS_OK, feed({1e6f, 1e6f}));
    ExpectSameBits({0, 255, 1, 2, 3, 510}, input.accumulated);
    EXPECT_EQ(4, batchIndex);
    EXPECT_EQ(std::pair(2.0f, -128), std::pair(scale, offset));

    batchIndex = 2;  // a failure publishes nothing
    LogOf([&] { EXPECT_EQ(STATUS_SCALE_ERROR, feed({kInf})); });
    EXPECT_EQ(std::pair(2.0f, -128), std::pair(scale, offset));
    EXPECT_EQ(kInf, calScale);
}

}  // namespace
