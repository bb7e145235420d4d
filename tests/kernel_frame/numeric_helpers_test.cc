#include <kest/kernel_frame/numeric_helpers.h>

#include <tests/test_util.h>

#include <algorithm>
#include <climits>

namespace {

using Halves = std::vector<unsigned short>;

std::vector<float> ToFloats(const Halves& in) {
    std::vector<float> out(in.size() + 1, -77);
    util::DataCastToFloat32Functor<util::ThreadPoolDevice, unsigned short>()(in.data(), out.data(),
                                                                             static_cast<int>(in.size()));
    EXPECT_EQ(-77, out.back());
    out.pop_back();
    return out;
}

Halves ToHalves(const std::vector<float>& in) {
    Halves out(in.size() + 1, 77);
    util::DataCastToFloat16Functor<util::ThreadPoolDevice, float>()(in.data(), out.data(), static_cast<int>(in.size()));
    EXPECT_EQ(77, out.back());
    out.pop_back();
    return out;
}

float FromBits(std::uint32_t bits) {
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

TEST(Half, EveryPattern) {
    Halves all(65536);
    for (unsigned int i = 0; i < 65536; ++i) all[i] = static_cast<unsigned short>(i);
    const std::vector<float> floats = ToFloats(all);
    const Halves back = ToHalves(floats);
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
    }
}

TEST(Half, EveryFloatOfItsRangeIsCutToTheHalfBelow) {
    constexpr std::uint32_t kFloats = 1 << 13;  // from one half to the next
    std::vector<float> floats(kFloats);
    for (std::uint32_t half = 0x0400; half < 0x7C00; ++half) {
        const std::uint32_t first = Bits(util::Fp16ToFp32(static_cast<unsigned short>(half)));
        for (std::uint32_t i = 0; i < kFloats; ++i) floats[i] = FromBits(first + i);
        const Halves cut = ToHalves(floats);
        ASSERT_EQ(kFloats, std::count(cut.begin(), cut.end(), half)) << half;
    }
    const float beyond[] = {65535.996f, 65536, FLT_MAX, 0x1.fffffep-15f, 0x1p-24f, FLT_TRUE_MIN};
    const unsigned short expected[] = {0x7BFF, 0x7BFF, 0x7BFF, 0, 0, 0};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(expected[i], util::Fp32ToFp16(beyond[i]));
        EXPECT_EQ(0x8000 | expected[i], util::Fp32ToFp16(-beyond[i]));
    }
    EXPECT_EQ(0x7E00, util::Fp32ToFp16(FromBits(0x7F800001)));  // not infinite although no kept bit is set
}

TEST(Half, AnyLength) {
    for (const std::size_t n : {0u, 1u, 7u, 15u, 16u, 17u, 33u, 1001u}) {
        const std::vector<float> x = MixedValues<float>(n, static_cast<unsigned int>(n), 1000);
        Halves expected;
        for (const float value : x) expected.push_back(util::Fp32ToFp16(value));
        EXPECT_EQ(expected, ToHalves(x));
        std::vector<float> back;
        for (const unsigned short half : expected) back.push_back(util::Fp16ToFp32(half));
        ExpectSameBits(back, ToFloats(expected));
    }
    util::DataCastToFloat32Functor<util::ThreadPoolDevice, unsigned short>()(nullptr, nullptr, -1);
}

TEST(NumericHelpers, ShapesAndFactors) {
    EXPECT_EQ("FLOAT16", util::OnnxTypeToString(10));
    EXPECT_EQ("FLOAT32", util::OnnxTypeToString(1));
    struct Row {
        std::vector<int> dims;
        long length;
        int status;
    };
    const int k = 65536;
    const Row rows[] = {{{}, 0, STATUS_OK},
                        {{2, 3, 4}, 24, STATUS_OK},
                        {{2, 0, 4}, 2, STATUS_BAD_PARAM},
                        {{-1}, 1, STATUS_BAD_PARAM},
                        {{2, -3}, 2, STATUS_BAD_PARAM},
                        {{k, k, k, k}, 1L << 48, STATUS_BAD_PARAM},
                        {{k, k, k, k / 2 - 1}, (1L << 48) * (k / 2 - 1), STATUS_OK},
                        {{153092023, 92737, 649657}, std::numeric_limits<long>::max(), STATUS_OK},  // just that
                        {{INT_MAX, INT_MAX, 2}, 2 * long{INT_MAX} * INT_MAX, STATUS_OK}};
    for (const Row& row : rows) {
        long length = -77;
        const std::string log = LogOf([&] { EXPECT_EQ(row.status, util::GetLengthByDim(row.dims, length)); });
        EXPECT_EQ(row.length, length);
        const char* message = "[ERROR][GetLengthByDim][] Overflow is detected during calculating dataSize!";
        EXPECT_EQ(row.status == STATUS_OK ? "" : message, log);
    }

    const std::vector<float> good{0x1p-23f, 1, 0x1p23f, kNan};
    EXPECT_EQ(STATUS_OK, util::CheckBalanceFactor(good.data(), 4));
    EXPECT_EQ(STATUS_OK, util::CheckBalanceFactor(nullptr, 0));
    for (const float bad : {0.0f, -1.0f, 0x1.fffffep-24f, 8388609.0f, kInf}) {
        const float factors[] = {1, bad, -5};
        const std::string log = LogOf([&] { EXPECT_EQ(VALUE_RANGE_ERROR, util::CheckBalanceFactor(factors, 3)); });
        EXPECT_EQ("[ERROR][CheckBalanceFactor][] tensor balance factor out of range[FLT_EPSILON, 1/FLT_EPSILON]: " +
                      std::to_string(bad) + ".\n",
                  log);
    }
}

}  // namespace
