#include <kest/kernel_frame/scale.h>

#include <tests/test_util.h>

namespace {

constexpr char kInfinite[] = "[ERROR][ProcessScale][] Not support scale is +inf.\n";
constexpr char kLargeFloat[] = "[ERROR][ProcessScale][] Not support scale greater than 1 / FLT_EPSILON.\n";
constexpr char kLargeDouble[] = "[ERROR][ProcessScale][] Not support scale greater than 1 / DBL_EPSILON.\n";

template <typename T>
struct ScaleRow {
    T in;
    T out;
    const char* log;  // "" is success
};

template <typename T>
void CheckScales(const std::vector<ScaleRow<T>>& rows) {
    for (const ScaleRow<T>& row : rows) {
        SCOPED_TRACE(row.in);
        T scale = row.in;
        int status = 0;
        EXPECT_EQ(row.log, LogOf([&] { status = util::ProcessScale(scale); }));
        EXPECT_EQ(*row.log == '\0' ? STATUS_OK : STATUS_SCALE_ERROR, status);
        EXPECT_EQ(Bits(row.out), Bits(scale));
    }
}

TEST(ProcessScale, Float) {
    CheckScales<float>({{0.0f, 1.0f, ""},
                        {-0.0f, 1.0f, ""},
                        {-3.0f, 1.0f, ""},
                        {-kInf, 1.0f, ""},
                        {1e-8f, 1.0f, ""},
                        {std::nextafter(FLT_EPSILON, 0.0f), 1.0f, ""},
                        {FLT_EPSILON, FLT_EPSILON, ""},
                        {8388608.0f, 8388608.0f, ""},
                        {8388609.0f, 8388609.0f, kLargeFloat},
                        {FLT_MAX, FLT_MAX, kLargeFloat},
                        {kInf, kInf, kInfinite},
                        {kNan, kNan, ""}});
}

TEST(ProcessScale, Double) {
    CheckScales<double>({{std::nextafter(DBL_EPSILON, 0.0), 1.0, ""},
                         {DBL_EPSILON, DBL_EPSILON, ""},
                         {0x1p52, 0x1p52, ""},
                         {0x1p52 + 1, 0x1p52 + 1, kLargeDouble},
                         {DBL_MAX, DBL_MAX, kLargeDouble},
                         {HUGE_VAL, HUGE_VAL, kInfinite}});
}

TEST(ProcessScale, RetrainClips) {
    const std::vector<float> in{0.0f, -2.0f, 5e-7f, 1e-6f};
    const std::vector<float> direct{1e-6f, 2.0f, 5e-7f + 1e-6f, 1e-6f};  // 1e-6 itself is not below 1e-6
    for (const bool reciprocal : {false, true}) {
        std::vector<float> scale(4);
        std::vector<int> offset(4, 7);
        KestTfOp::ProcessScale<util::ThreadPoolDevice, float>()(in.data(), scale.data(), offset.data(), 4, reciprocal);
        std::vector<float> expected = direct;
        if (reciprocal)
            for (float& x : expected) x = 1.0f / x;
        ExpectSameBits(expected, scale);
        ExpectSameBits({0, 0, 0, 0}, offset);
        KestCommon::ProcessScale(in.data(), nullptr, nullptr, -1, reciprocal);
    }
}

TEST(Clip, ClampsInPlace) {
    const auto clip = [](auto value, int low, int high) {
        KestCommon::Clip(value, low, high);
        return value;
    };
    EXPECT_EQ(32767, clip(40000, -32768, 32767));
    EXPECT_EQ(-32768, clip(-40000, -32768, 32767));
    EXPECT_EQ(-128.0f, clip(-128.5f, -128, 127));
    EXPECT_EQ(126.5f, clip(126.5f, -128, 127));
    EXPECT_EQ(Bits(kNan), Bits(clip(kNan, -128, 127)));
}

}  // namespace
