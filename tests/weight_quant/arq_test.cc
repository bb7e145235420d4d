#include <kest/weight_quant/arq.h>

#include <tests/test_util.h>

#include <algorithm>
#include <climits>

using KestCommon::ArqParam;

namespace {

constexpr bool kSymmetric = false;
constexpr bool kAsymmetric = true;

/// A weight tensor, its factors (set to values that no calibration gives) and views of them.
template <typename T>
struct Tensor {
    Tensor(std::vector<T> values, unsigned int numChannels)
        : data(std::move(values)), scale(numChannels, -77.0f), offset(numChannels, -77) {}

    unsigned int Length() const { return static_cast<unsigned int>(data.size()); }
    util::FloatData Scale() { return {static_cast<unsigned int>(scale.size()), scale.data()}; }
    util::IntData Offset() { return {static_cast<unsigned int>(offset.size()), offset.data()}; }

    std::vector<T> data;
    std::vector<float> scale;
    std::vector<int> offset;
};

int ArqPython(Tensor<float>& t, ArqParam param) {
    return ArqQuantFloatPython(t.data.data(), t.Length(), param, t.Scale(), t.Offset());
}
int ArqPython(Tensor<double>& t, ArqParam param) {
    return ArqQuantDoublePython(t.data.data(), t.Length(), param, t.Scale(), t.Offset());
}

// --- Worked by hand ---------------------------------------------------------------------------------------------

struct Row {
    const char* why;
    unsigned int numBits;
    bool withOffset;
    std::vector<float> data;
    float scale;
    int offset;
    std::vector<float> quantised;
};

const Row kRows[] = {
    {"the negative extreme takes 2^(n-1) steps", 8, kSymmetric, {-1, 0.5f}, 0.0078125f, 0, {-1, 0.5f}},
    {"the positive extreme takes 2^(n-1) - 1", 8, kSymmetric, {-0.5f, 127}, 1, 0, {-1, 127}},
    {"equal magnitudes take the minimum; the top clamps", 8, kSymmetric, {-2, 2}, 0.015625f, 0, {-2, 1.984375f}},
    {"halves away from zero", 8, kSymmetric, {-128, 2.5f, -2.5f, 3.5f}, 1, 0, {-128, 3, -3, 4}},
    {"below one half stays 0 (x + 0.5 gives 1)", 4, kSymmetric, {-8, 0.49999997f, -0.2f}, 1, 0, {-8, 0, 0}},
    {"two bits are the grid [-2, 1]", 2, kSymmetric, {-2, 1.5f, -1.5f}, 1, 0, {-2, 1, -2}},
    {"an all-zero channel has scale 1", 8, kSymmetric, {0, -0.0f}, 1, 0, {0, 0}},
    {"a denormal channel has scale 1", 8, kSymmetric, {1e-40f, -1e-41f}, 1, 0, {0, 0}},
    {"asymmetric: [0, 255] on 256 codes", 8, kAsymmetric, {0, 255, 127.5f}, 1, -128, {0, 255, 128}},
    {"all positive: the range starts at 0", 8, kAsymmetric, {1, 255}, 1, -128, {1, 255}},
    {"all negative: the range ends at 0", 8, kAsymmetric, {-255, -1}, 1, 127, {-255, -1}},
    {"zero is a code on both sides", 4, kAsymmetric, {-7.5f, 7.5f}, 1, 0, {-8, 7}},
    {"31 bits, the most", 31, kSymmetric, {-0x1p30f, 5}, 1, 0, {-0x1p30f, 5}},
    {"an all-zero channel keeps the offset of zero", 8, kAsymmetric, {0, 0}, 1, -128, {0, 0}},
};

TEST(Arq, WorkedRows) {
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.why);
        Tensor<float> t(row.data, 1);
        EXPECT_EQ(STATUS_OK, ArqPython(t, {row.numBits, false, row.withOffset}));
        ExpectSameBits({row.scale}, t.scale);
        ExpectSameBits({row.offset}, t.offset);
        ExpectSameBits(row.quantised, t.data);
        Tensor<double> wide(std::vector<double>(row.data.begin(), row.data.end()), 1);
        EXPECT_EQ(STATUS_OK, ArqPython(wide, {row.numBits, false, row.withOffset}));
        ExpectSameBits({row.scale}, wide.scale);
        ExpectSameBits(std::vector<double>(row.quantised.begin(), row.quantised.end()), wide.data);
    }
}

TEST(Arq, RealCodesUseAUsableScaleAndLeaveTheArray) {
    Tensor<double> t({2.5, -2.5, 300, -300, 3, 1000}, 3);
    t.scale = {1.0f, 2.0f, 0.0f};  // 0 counts as 1
    t.offset = {0, 100, -5};
    std::vector<char> codes(6);
    EXPECT_EQ(STATUS_OK, QuantRealDoublePython(t.data.data(), 6, t.Scale(), t.Offset(), 8, codes.data()));
    ExpectSameBits<char>({3, -3, 127, -50, -2, 127}, codes);
    ExpectSameBits({1.0f, 2.0f, 0.0f}, t.scale);
    t.scale[1] = kInf;
    codes.assign(6, 55);
    EXPECT_EQ(
        "[ERROR][ProcessScale][] Not support scale is +inf.\n"
        "[ERROR][ArqQuantRealKernel][] ArqQuantRealCPU scale is illegal.\n",
        LogOf([&] {
            EXPECT_EQ(STATUS_SCALE_ERROR,
                      QuantRealDoublePython(t.data.data(), 6, t.Scale(), t.Offset(), 8, codes.data()));
        }));
    ExpectSameBits<char>({3, -3, 55, 55, 55, 55}, codes);
}

// --- Checks and failures ----------------------------------------------------------------------------------------

TEST(Arq, FirstFailingCheckDecidesAndNothingIsWritten) {
    const struct {
        const char* log;
        bool null;
        unsigned int length, numScales, numOffsets;
        ArqParam param;
        float first;
    } rows[] = {
        {"Empty pointer\n", true, 0, 3, 2, {1, false, false}, kNan},
        {"input data length = 0.\n", false, 0, 3, 2, {1, false, false}, kNan},
        {"Exist NaN in input data, cannot do ARQ quantize.\n", false, 10, 3, 2, {1, false, false}, kNan},
        {"scale.length = 3, offset.length = 2\n", false, 10, 3, 2, {1, false, false}, 1},
        {"arqParam.channelWise = 0, scale.length = 2\n", false, 10, 2, 2, {1, false, false}, 1},
        {"scale.length = 0 should not be 0.\n", false, 10, 0, 0, {1, false, false}, 1},
        {"input data length = 10, scale.length = 3\n", false, 10, 3, 3, {1, true, false}, 1},
        {"arqParam.numBits = 1, it should be greater than 2.\n", false, 9, 3, 3, {1, true, false}, 1},
        {"arqParam.numBits = 32, it should not be greater than 31.\n", false, 9, 3, 3, {32, true, false}, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.log);
        std::vector<float> data(10, 1.0f);
        data[0] = row.first;
        const std::vector<float> before = data;
        std::vector<float> scale(3, -77.0f);
        std::vector<int> offset(3, -77);
        EXPECT_EQ("[ERROR][CheckArqParams][] " + std::string(row.log) +
                      "[ERROR][ArqQuantFloatPython][] CheckArqQuantParams failed.\n",
                  LogOf([&] {
                      EXPECT_EQ(STATUS_BAD_PARAM,
                                ArqQuantFloatPython(row.null ? nullptr : data.data(), row.length, row.param,
                                                    {row.numScales, scale.data()}, {row.numOffsets, offset.data()}));
                  }));
        ExpectSameBits(before, data);
        ExpectSameBits({-77.0f, -77.0f, -77.0f}, scale);
        ExpectSameBits({-77, -77, -77}, offset);
    }
}

TEST(Arq, AnIllegalScaleKeepsTheChannelsBeforeIt) {
    Tensor<float> t({-1, 1, kInf, 0, 4, 4}, 3);
    const std::vector<float> before = t.data;
    EXPECT_EQ(
        "[ERROR][ProcessScale][] Not support scale is +inf.\n"
        "[ERROR][WtsArqCalibrationCpuKernel][] ArqQuantCPU scale is illegal.\n"
        "[ERROR][ArqQuantFloatPython][] WtsArqCalibrationCpuKernel float of format CO_CI_KH_KW failed.\n",
        LogOf([&] {
            EXPECT_EQ(STATUS_SCALE_ERROR, ArqPython(t, {8, true, false}));
        }));
    ExpectSameBits({0.0078125f, kInf, -77.0f}, t.scale);
    ExpectSameBits({0, -77, -77}, t.offset);
    ExpectSameBits(before, t.data);

    Tensor<double> large({8388609.0 * 128, 1}, 1);
    EXPECT_EQ(
        "[ERROR][ProcessScale][] Not support scale greater than 1 / FLT_EPSILON.\n"
        "[ERROR][WtsArqCalibrationCpuKernel][] ArqQuantCPU scale is illegal.\n"
        "[ERROR][ArqQuant][] WtsArqCalibrationCpuKernel of format CO_CI_KH_KW failed.\n",
        LogOf([&] {
            EXPECT_EQ(STATUS_SCALE_ERROR, KestCommon::ArqQuant(large.data.data(), 2u, ArqParam{8, true, false},
                                                               large.Scale(), large.Offset()));
        }));
}

TEST(Arq, InnermostChannelWithoutAnElement) {
    Tensor<float> t({-1, 127}, 3);
    const auto calibrate = [&](bool withOffset) {
        return KestCommon::WtsArqCalibrationCpuKernel<float>(t.data.data(), 2, {8, true, withOffset}, t.Scale(),
                                                             t.Offset(), util::KH_KW_CI_CO);
    };
    LogOf([&] { EXPECT_EQ(STATUS_SCALE_ERROR, calibrate(kSymmetric)); });
    ExpectSameBits({0.0078125f, 1.0f, FLT_MAX / 127}, t.scale);
    EXPECT_EQ(STATUS_OK, calibrate(kAsymmetric));
    EXPECT_EQ(1.0f, t.scale[2]);
    EXPECT_EQ(-128, t.offset[2]);
    Tensor<float> withNan({-256, kNan, -1, 1}, 1);  // is passed over, and what came before it stays
    EXPECT_EQ(STATUS_OK,
              KestCommon::WtsArqCalibrationCpuKernel<float>(withNan.data.data(), 4, {8, true, false}, withNan.Scale(),
                                                            withNan.Offset(), util::KH_KW_CI_CO));
    EXPECT_EQ(2, withNan.scale[0]);
    // 2^24 + 2^24 - 1 steps are 2^25 in floats, for double data too: the scale is just below the middle of two floats.
    Tensor<double> steps({0, 0x1.000000ffffp20}, 1);
    EXPECT_EQ(STATUS_OK, ArqPython(steps, {25, true, true}));
    EXPECT_EQ(0x1p-5f, steps.scale[0]);
}

// --- Against plain loops ----------------------------------------------------------------------------------------

template <typename T>
void PlainCalibrate(const std::vector<T>& x, ArqParam param, bool innermost, std::size_t numChannels,
                    std::vector<float>& scale, std::vector<int>& offset) {
    const double half = std::pow(2.0, param.numBits - 1);
    const float negative = static_cast<float>(half);
    const float positive = static_cast<float>(half - 1.0);
    std::vector<T> mins(numChannels, FLT_MAX);
    std::vector<T> maxs(numChannels, -FLT_MAX);
    for (std::size_t i = 0; i < x.size(); ++i) {
        const std::size_t c = innermost ? i % numChannels : i / (x.size() / numChannels);
        if (x[i] < mins[c]) mins[c] = x[i];
        if (x[i] > maxs[c]) maxs[c] = x[i];
    }
    for (std::size_t c = 0; c < numChannels; ++c) {
        T min = mins[c];
        T max = maxs[c];
        if (param.withOffset) {
            max = max >= 0 ? max : 0;
            min = min > 0 ? 0 : min;
            scale[c] = static_cast<float>((max - min) / static_cast<T>(negative + positive));
        } else {
            const float v = static_cast<float>(std::fabs(max) > std::fabs(min) ? max : min);
            scale[c] = v > 0 ? v / positive : v / -negative;
        }
        if (scale[c] < FLT_EPSILON) scale[c] = 1;
        offset[c] = param.withOffset
                        ? static_cast<int>(static_cast<double>(std::round(-min / static_cast<T>(scale[c]))) - half)
                        : 0;
    }
}

template <typename T>
T PlainFakeQuant(T x, float scale, int offset, unsigned int numBits) {
    const std::int64_t half = std::int64_t{1} << (numBits - 1);
    const T rounded = std::round(x / static_cast<T>(scale));
    const std::int64_t code = std::clamp<std::int64_t>(static_cast<std::int64_t>(rounded) + offset, -half, half - 1);
    return static_cast<float>(code - offset) * scale;
}

template <typename T>
void SweepAgainstPlain() {
    for (const unsigned int numChannels : {1u, 2u, 3u, 7u, 64u, 300u, 1025u, 5000u}) {
        for (const unsigned int perChannel : {1u, 2u, 15u, 16u, 17u, 31u, 33u, 130u}) {
            if (numChannels == 5000 && perChannel > 17) continue;
            for (const ArqParam param : {ArqParam{8, true, false}, ArqParam{4, true, true}, ArqParam{24, true, true}}) {
                SCOPED_TRACE(testing::Message() << numChannels << " channels of " << perChannel << ", " << param.numBits
                                                << " bits, offset " << param.withOffset);
                const unsigned int n = numChannels * perChannel;
                Tensor<T> t(MixedValues<T>(n, n + param.numBits), numChannels);
                const std::vector<T> x = t.data;
                std::vector<float> scale(numChannels);
                std::vector<int> offset(numChannels);
                std::vector<T> expected(n);

                PlainCalibrate(x, param, false, numChannels, scale, offset);
                for (unsigned int i = 0; i < n; ++i) {
                    const unsigned int c = i / perChannel;
                    expected[i] = PlainFakeQuant(x[i], scale[c], offset[c], param.numBits);
                }
                ASSERT_EQ(STATUS_OK, ArqPython(t, param));
                ExpectSameBits(scale, t.scale);
                ExpectSameBits(offset, t.offset);
                ExpectSameBits(expected, t.data);

                // The innermost layout needs no whole number of rows.
                const unsigned int ragged = n > numChannels ? n - numChannels / 2 : n;
                t.data.assign(x.begin(), x.begin() + ragged);
                const std::vector<T> y = t.data;
                PlainCalibrate(y, param, true, numChannels, scale, offset);
                ASSERT_EQ(STATUS_OK, KestCommon::WtsArqCalibrationCpuKernel<T>(t.data.data(), ragged, param, t.Scale(),
                                                                               t.Offset(), util::KH_KW_CI_CO));
                ExpectSameBits(scale, t.scale);
                ExpectSameBits(offset, t.offset);
                expected.resize(ragged);
                for (unsigned int i = 0; i < ragged; ++i) {
                    const unsigned int c = i % numChannels;
                    expected[i] = PlainFakeQuant(y[i], scale[c], offset[c], param.numBits);
                }
                KestCommon::ArqClipAndQuantKhKwCiCo<T>(t.data.data(), t.data.data(), ragged,
                                                       static_cast<int>(param.numBits), t.Scale(), t.Offset());
                ExpectSameBits(expected, t.data);
                if (testing::Test::HasFailure()) return;
            }
        }
    }
}

TEST(Arq, SweepFloat) {
    SweepAgainstPlain<float>();
}
TEST(Arq, SweepDouble) {
    SweepAgainstPlain<double>();
}

TEST(Arq, UnalignedStartsAndAllLengthsAroundTheVectors) {
    const std::vector<float> values = MixedValues<float>(300, 5);
    for (const std::size_t shift : {0u, 1u, 5u}) {
        for (unsigned int n = 1; n < 140; ++n) {
            Tensor<float> whole(std::vector<float>(values.begin(), values.begin() + n), 1);
            std::vector<float> moved(shift + n + 8, -77.0f);
            std::copy_n(values.begin(), n, moved.begin() + static_cast<std::ptrdiff_t>(shift));
            ASSERT_EQ(STATUS_OK, ArqPython(whole, {8, false, true}));
            Tensor<float> factors({}, 1);
            ASSERT_EQ(STATUS_OK, ArqQuantFloatPython(moved.data() + shift, n, {8, false, true}, factors.Scale(),
                                                     factors.Offset()));
            for (unsigned int i = 0; i < n; ++i) ASSERT_EQ(Bits(whole.data[i]), Bits(moved[shift + i]));
            for (std::size_t i = shift + n; i < moved.size(); ++i) ASSERT_EQ(-77.0f, moved[i]);
        }
    }
}

TEST(Arq, GivenFactorsOfAnyKind) {
    const std::vector<float> x{0.3f, -0.3f, 1e30f, -1e30f, kInf, -kInf, kNan, 0, 2.5f, FLT_MAX};
    const auto quantise = [&](float scale, int offset, int numBits) {
        std::vector<float> out(x.size());
        KestCommon::ArqClipAndQuantKhKwCiCo<float>(x.data(), out.data(), static_cast<unsigned int>(x.size()), numBits,
                                                   {1, &scale}, {1, &offset});
        return out;
    };
    ExpectSameBits<float>({0, 0, 127, -128, 127, -128, 0, 0, 3, 127}, quantise(1, 0, 8));
    // 0 / 0 and NaN have code 0: (0 - 5) * 0 is -0.
    ExpectSameBits<float>({0, -0.0f, 0, -0.0f, 0, -0.0f, -0.0f, -0.0f, 0, 0}, quantise(0, 5, 8));
    // An offset beyond the floats. Small values clamp to -128 and float(-128 - INT_MIN) is 2^31 - 128. The sum is in
    // double precision, so a huge value clamps to 127 (a quotient saturated first would give code -1); NaN has code 0.
    const std::vector<float> far = quantise(1, INT_MIN, 8);
    for (std::size_t i = 0; i < x.size(); ++i)
        EXPECT_EQ(x[i] > 1e9f || x[i] != x[i] ? 0x1p31f : 2147483520.0f, far[i]) << i;
    // One channel's offset is too far for floats, the other's is not.
    float out[] = {1e9f, 3}, scales[] = {1, 1};
    int offsets[] = {-16777219, 0};  // 127 + 16777219 = 16777346; in floats 127 + 16777220
    KestCommon::ArqClipAndQuantKhKwCiCo<float>(out, out, 2, 8, {2, scales}, {2, offsets});
    EXPECT_TRUE(out[0] == 16777346 && out[1] == 3) << out[0] << ", " << out[1];
}

TEST(Arq, SumsAndDifferencesBeyond32Bits) {
    // Quotient and offset are added in double precision: a quotient saturated first would give -1e30 the code -1.
    Tensor<double> t({-1e30, 0}, 1);
    t.scale = {1};
    t.offset = {INT_MAX};
    char codes[2];
    EXPECT_EQ(STATUS_OK, QuantRealDoublePython(t.data.data(), 2, t.Scale(), t.Offset(), 8, codes));
    EXPECT_EQ(-128, static_cast<signed char>(codes[0]));
    EXPECT_EQ(127, static_cast<signed char>(codes[1]));
    // code - offset is 4095 + 2147483647, more than an int holds.
    float x = 0x1p100f;
    float scale = 1;
    int offset = -2147483647;
    KestCommon::ArqClipAndQuantKhKwCiCo<float>(&x, &x, 1, 13, {1, &scale}, {1, &offset});
    EXPECT_EQ(2147487744.0f, x);
    // Code 1: neither the sum 16777218 - 16777217 nor the difference 1 + 16777217 is one of floats.
    x = 16777218;
    offset = -16777217;
    EXPECT_EQ(STATUS_OK, KestCommon::ArqQuantReal<float>(&x, 1, {8, true, true}, {1, &scale}, {1, &offset}, codes));
    EXPECT_EQ(1, codes[0]);
    KestCommon::ArqClipAndQuantKhKwCiCo<float>(&x, &x, 1, 8, {1, &scale}, {1, &offset});
    EXPECT_EQ(16777218, x);
}

TEST(Arq, FunctorsCalibrateQuantiseStoreAndRestore) {
    Tensor<float> t({-1, 254, 0.5f, -127}, 2);
    std::vector<float> out(4);
    EXPECT_EQ(STATUS_OK, (KestTfOp::ArqQuantFunctor<util::ThreadPoolDevice, float>()(
                             {t.data.data(), 4, 2}, {out.data(), t.scale.data(), t.offset.data()}, 8)));
    ExpectSameBits({0.0078125f, 2.0f}, t.scale);
    ExpectSameBits({-1.0f, 254.0f, 0.5f, -128.0f}, out);  // -127 / 2 = -63.5 goes to -64

    std::vector<float> scaleStore(2, -1.0f);
    std::vector<int> offsetStore(2, -1);
    const KestTfOp::WeightQuantParam param{
        t.scale.data(), t.offset.data(), scaleStore.data(), offsetStore.data(), 2, 8};
    const KestTfOp::FindMaxMin<util::ThreadPoolDevice, float> findMaxMin;
    EXPECT_EQ(STATUS_OK, findMaxMin(4, t.data.data(), param));
    ExpectSameBits(t.scale, scaleStore);
    const std::vector<float> stored = scaleStore;
    t.data[1] = kInf;
    LogOf([&] { EXPECT_EQ(STATUS_SCALE_ERROR, findMaxMin(4, t.data.data(), param)); });
    ExpectSameBits(stored, scaleStore);  // copied on success only
    EXPECT_EQ(STATUS_OK, (KestTfOp::IdentityScaleOffset<util::ThreadPoolDevice, float>()(param)));
    ExpectSameBits(stored, t.scale);
}

}  // namespace
