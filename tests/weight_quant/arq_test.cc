#include <kest/weight_quant/arq.h>

#include <tests/test_util.h>

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

template <typename T>
int CalibrateInnermost(Tensor<T>& t, ArqParam param) {
    return KestCommon::WtsArqCalibrationCpuKernel<T>(t.data.data(), t.Length(), param, t.Scale(), t.Offset(),
                                                     util::KH_KW_CI_CO);
}

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
    {"the offset is the nearest code", 8, kAsymmetric, {-1.25f, 253.75f}, 1, -127, {-1, 254}},
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
        Tensor<float> t(std::vector<float>(10, 1), 3);
        t.data[0] = row.first;
        const Tensor<float> before = t;
        int status = STATUS_OK;
        EXPECT_EQ("[ERROR][CheckArqParams][] " + std::string(row.log) +
                      "[ERROR][ArqQuantFloatPython][] CheckArqQuantParams failed.\n",
                  LogOf([&] {
                      status = ArqQuantFloatPython(row.null ? nullptr : t.data.data(), row.length, row.param,
                                                   {row.numScales, t.scale.data()}, {row.numOffsets, t.offset.data()});
                  }));
        EXPECT_EQ(STATUS_BAD_PARAM, status);
        ExpectSameBits(before.scale, t.scale);
        ExpectSameBits(before.offset, t.offset);
        ExpectSameBits(before.data, t.data);
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
    int status = STATUS_OK;
    EXPECT_EQ(
        "[ERROR][ProcessScale][] Not support scale greater than 1 / FLT_EPSILON.\n"
        "[ERROR][WtsArqCalibrationCpuKernel][] ArqQuantCPU scale is illegal.\n"
        "[ERROR][ArqQuant][] WtsArqCalibrationCpuKernel of format CO_CI_KH_KW failed.\n",
        LogOf([&] {
            status = KestCommon::ArqQuant(large.data.data(), 2u, {8, true, false}, large.Scale(), large.Offset());
        }));
    EXPECT_EQ(STATUS_SCALE_ERROR, status);
}

TEST(Arq, InnermostChannelWithoutAnElement) {
    Tensor<float> t({-1, 127}, 3);
    LogOf([&] { EXPECT_EQ(STATUS_SCALE_ERROR, CalibrateInnermost(t, {8, true, kSymmetric})); });
    ExpectSameBits({0.0078125f, 1.0f, FLT_MAX / 127}, t.scale);
    EXPECT_EQ(STATUS_OK, CalibrateInnermost(t, {8, true, kAsymmetric}));
    EXPECT_EQ(1.0f, t.scale[2]);
    EXPECT_EQ(-128, t.offset[2]);
    Tensor<float> withNan({-256, kNan, -1, 1}, 1);  // is passed over, and what came before it stays
    EXPECT_EQ(STATUS_OK, CalibrateInnermost(withNan, {8, true, kSymmetric}));
    EXPECT_EQ(2, withNan.scale[0]);
    // 2^24 + 2^24 - 1 steps are 2^25 in floats, for double data too: the scale is just below the middle of two floats.
    Tensor<double> steps({0, 0x1.000000ffffp20}, 1);
    EXPECT_EQ(STATUS_OK, ArqPython(steps, {25, true, true}));
    EXPECT_EQ(0x1p-5f, steps.scale[0]);
}

TEST(Arq, ChannelsFirstAndLast) {
    Tensor<double> first({-1, 0.3, 7, -256, 0, 1e-9}, 3);
    EXPECT_EQ(STATUS_OK, ArqPython(first, {8, true, kSymmetric}));
    ExpectSameBits({0.0078125f, 2, 1}, first.scale);
    ExpectSameBits({-1, 38 * 0.0078125, 8, -256, 0, 0}, first.data);
    Tensor<double> last({-1, 7, 0, 0.3, -256, 1e-9, 0.996}, 3);  // of unequal length
    EXPECT_EQ(STATUS_OK, CalibrateInnermost(last, {8, true, kSymmetric}));
    ExpectSameBits(first.scale, last.scale);
    KestCommon::ArqClipAndQuantKhKwCiCo<double>(last.data.data(), last.data.data(), 7, 8, last.Scale(), last.Offset());
    ExpectSameBits({-1, 8, 0, 38 * 0.0078125, -256, 0, 127 * 0.0078125}, last.data);
    Tensor<float> many({}, 5000);  // worth several threads; a part may begin within a row
    constexpr unsigned int kMany = 177501;
    for (unsigned int i = 0; i < kMany; ++i) many.data.push_back(-1 - static_cast<float>(i % 5000));
    many.data.resize(kMany + 5000, -kInf);  // not of the tensor
    const std::vector<float> values = many.data;
    float* const data = many.data.data();
    EXPECT_EQ(STATUS_OK, KestCommon::WtsArqCalibrationCpuKernel<float>(data, kMany, {8, true, kSymmetric}, many.Scale(),
                                                                       many.Offset(), util::KH_KW_CI_CO));
    for (unsigned int c = 0; c < 5000; ++c) ASSERT_EQ(static_cast<float>(1 + c) / 128, many.scale[c]);
    KestCommon::ArqClipAndQuantKhKwCiCo<float>(data, data, kMany, 8, many.Scale(), many.Offset());
    ExpectSameBits(values, many.data);
}

TEST(Arq, GivenFactorsOfAnyKind) {
    const auto quantise = [](std::vector<float> x, std::vector<float> scale, std::vector<int> offset, int numBits) {
        const auto numChannels = static_cast<unsigned int>(scale.size());
        KestCommon::ArqClipAndQuantKhKwCiCo<float>(x.data(), x.data(), static_cast<unsigned int>(x.size()), numBits,
                                                   {numChannels, scale.data()}, {numChannels, offset.data()});
        return x;
    };
    const std::vector<float> x{0.3f, -0.3f, 1e30f, -1e30f, kInf, -kInf, kNan, 0, 2.5f, FLT_MAX};
    ExpectSameBits<float>({0, 0, 127, -128, 127, -128, 0, 0, 3, 127}, quantise(x, {1}, {0}, 8));
    // 0 / 0 and NaN have code 0: (0 - 5) * 0 is -0.
    ExpectSameBits<float>({0, -0.0f, 0, -0.0f, 0, -0.0f, -0.0f, -0.0f, 0, 0}, quantise(x, {0}, {5}, 8));
    // An offset beyond the floats. Small values clamp to -128 and float(-128 - INT_MIN) is 2^31 - 128. The sum is in
    // double precision, so a huge value clamps to 127 (a quotient saturated first would give code -1); NaN has code 0.
    const float small = 2147483520, huge = 0x1p31f;
    ExpectSameBits({small, small, huge, small, huge, small, huge, small, small, huge}, quantise(x, {1}, {INT_MIN}, 8));
    // One channel's offset is too far for floats: 127 + 16777219 = 16777346; in floats 127 + 16777220.
    ExpectSameBits<float>({16777346, 3}, quantise({1e9f, 3}, {1, 1}, {-16777219, 0}, 8));
    // code - offset is 4095 + 2147483647, more than an int holds.
    ExpectSameBits<float>({2147487744.0f}, quantise({0x1p100f}, {1}, {-2147483647}, 13));
    // Code 1: neither the sum 16777218 - 16777217 nor the difference 1 + 16777217 is one of floats.
    ExpectSameBits<float>({16777218}, quantise({16777218}, {1}, {-16777217}, 8));
    const auto codeOf = [](auto x, int offset) {
        float scale = 1;
        char code;
        EXPECT_EQ(STATUS_OK, KestCommon::ArqQuantReal(&x, 1, {8, true, true}, {1, &scale}, {1, &offset}, &code));
        return static_cast<signed char>(code);
    };
    EXPECT_EQ(1, codeOf(16777218.0f, -16777217));
    EXPECT_EQ(-128, codeOf(-1e30, INT_MAX));  // a quotient saturated first would give -1
    EXPECT_EQ(127, codeOf(0.0, INT_MAX));
}

TEST(Arq, FunctorsCalibrateQuantiseStoreAndRestore) {
    Tensor<float> t({-1, 254, 0.5f, -127}, 2);
    std::vector<float> out(4);
    EXPECT_EQ(STATUS_OK, (KestTfOp::ArqQuantFunctor<util::ThreadPoolDevice, float>()(
                             {t.data.data(), 4, 2}, {out.data(), t.scale.data(), t.offset.data()}, 8)));
    ExpectSameBits({0.0078125f, 2.0f}, t.scale);
    ExpectSameBits({-1.0f, 254.0f, 0.5f, -128.0f}, out);  // -127 / 2 = -63.5 goes to -64

    std::vector<float> scaleStore(2, -1);
    std::vector<int> offsetStore(2, -1);
    const KestTfOp::WeightQuantParam param{&t.scale[0], &t.offset[0], &scaleStore[0], &offsetStore[0], 2, 8};
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
