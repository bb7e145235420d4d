#include <kest/kernel_frame/numeric_helpers.h>

#include <tests/test_util.h>

#include <climits>
#include <numeric>

namespace {

float FromBits(std::uint32_t bits) {
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

TEST(Half, EveryPattern) {
    const util::DataCastToFloat32Functor<util::ThreadPoolDevice, unsigned short> toFloats;
    const util::DataCastToFloat16Functor<util::ThreadPoolDevice, float> toHalves;
    std::vector<unsigned short> all(65536), back(65536);
    std::vector<float> floats(65536);
    std::iota(all.begin(), all.end(), static_cast<unsigned short>(0));
    toFloats(nullptr, nullptr, -1);
    toFloats(all.data(), floats.data(), 65536);
    toHalves(floats.data(), back.data(), 65536);
    for (unsigned int i = 0; i < 65536; ++i) {
        const unsigned int sign = i & 0x8000, exponent = i >> 10 & 31, fraction = i & 1023;
        const double size =
            exponent > 0 ? std::ldexp(1024 + fraction, static_cast<int>(exponent) - 25) : std::ldexp(fraction, -24);
        const std::uint32_t expected =
            exponent == 31 ? sign << 16 | 0x7F800000u | fraction << 13 : Bits(static_cast<float>(sign ? -size : size));
        ASSERT_EQ(expected, Bits(floats[i])) << i;
        ASSERT_EQ(expected, Bits(util::Fp16ToFp32(all[i]))) << i;
        const bool isNan = exponent == 31 && fraction > 0;
        const unsigned int returned = exponent == 0 ? sign : (isNan ? i | 0x200 : i);  // subnormal, quiet
        ASSERT_EQ(returned, back[i]) << i;
        ASSERT_EQ(returned, util::Fp32ToFp16(floats[i])) << i;
        const std::uint32_t last = exponent % 31 > 0 ? expected + 0x1FFF : expected;  // before the next half
        ASSERT_EQ(returned, util::Fp32ToFp16(FromBits(last))) << i;                   // cut, not rounded
    }
    const float beyond[] = {65535.996f, 65536, FLT_MAX, 0x1.fffffep-15f, 0x1p-24f, FLT_TRUE_MIN};
    const unsigned short expected[] = {0x7BFF, 0x7BFF, 0x7BFF, 0, 0, 0};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(expected[i], util::Fp32ToFp16(beyond[i]));
        EXPECT_EQ(0x8000 | expected[i], util::Fp32ToFp16(-beyond[i]));
    }
    EXPECT_EQ(0x7E00, util::Fp32ToFp16(FromBits(0x7F800001)));  // not infinite although no kept bit is set
}

TEST(NumericHelpers, ShapesAndFactors) {
    EXPECT_EQ("FLOAT16", util::OnnxTypeToString(10));
    EXPECT_EQ("FLOAT32", util::OnnxTypeToString(1));
    const std::string overflow = "[ERROR][GetLengthByDim][] Overflow is detected during calculating dataSize!";
    const auto expect = [&](const std::vector<int>& dims, long length, bool isGood = true) {
        long found = -77;
        const int status = isGood ? STATUS_OK : STATUS_BAD_PARAM;
        EXPECT_EQ(isGood ? "" : overflow, LogOf([&] { EXPECT_EQ(status, util::GetLengthByDim(dims, found)); }));
        EXPECT_EQ(length, found);
    };
    const int k = 65536;
    expect({}, 0);
    expect({2, 3, 4}, 24);
    expect({2, 0, 4}, 2, false);
    expect({-1}, 1, false);
    expect({2, -3}, 2, false);
    expect({k, k, k, k}, 1L << 48, false);
    expect({k, k, k, k / 2 - 1}, (1L << 48) * (k / 2 - 1));
    expect({153092023, 92737, 649657}, std::numeric_limits<long>::max());  // just that
    expect({INT_MAX, INT_MAX, 2}, 2 * long{INT_MAX} * INT_MAX);

    const std::vector<float> good{0x1p-23f, 1, 0x1p23f, kNan};
    EXPECT_EQ(STATUS_OK, util::CheckBalanceFactor(good.data(), 4));
    EXPECT_EQ(STATUS_OK, util::CheckBalanceFactor(nullptr, 0));
    for (const float bad : {0.0f, -1.0f, 0x1.fffffep-24f, 8388609.0f, kInf}) {
        const float factors[] = {1, bad, -5};
        EXPECT_EQ("[ERROR][CheckBalanceFactor][] tensor balance factor out of range[FLT_EPSILON, 1/FLT_EPSILON]: " +
                      std::to_string(bad) + ".\n",
                  LogOf([&] { EXPECT_EQ(VALUE_RANGE_ERROR, util::CheckBalanceFactor(factors, 3)); }));
    }
}

}  // namespace
