#include <kest/kernel_frame/scale.h>

#include <tests/test_util.h>

namespace {

/// An empty message is success.
template <typename T>
void ExpectScale(T expected, T scale, const std::string& message = "") {
    SCOPED_TRACE(scale);
    const int status = message.empty() ? STATUS_OK : STATUS_SCALE_ERROR;
    EXPECT_EQ(message.empty() ? "" : "[ERROR][ProcessScale][] Not support scale " + message + ".\n",
              LogOf([&] { EXPECT_EQ(status, util::ProcessScale(scale)); }));
    EXPECT_EQ(Bits(expected), Bits(scale));
}

TEST(ProcessScale, SmallBecomesOneAndLargeFails) {
    for (const float x : {0.0f, -0.0f, -3.0f, -kInf, 1e-8f, std::nextafter(FLT_EPSILON, 0.0f)}) ExpectScale(1.0f, x);
    for (const float x : {FLT_EPSILON, 8388608.0f, kNan}) ExpectScale(x, x);
    for (const float x : {8388609.0f, FLT_MAX}) ExpectScale(x, x, "greater than 1 / FLT_EPSILON");
    ExpectScale(kInf, kInf, "is +inf");
    ExpectScale(1.0, std::nextafter(DBL_EPSILON, 0.0));
    for (const double x : {DBL_EPSILON, 0x1p52}) ExpectScale(x, x);
    for (const double x : {0x1p52 + 1, DBL_MAX}) ExpectScale(x, x, "greater than 1 / DBL_EPSILON");
    ExpectScale(HUGE_VAL, HUGE_VAL, "is +inf");
}

TEST(ProcessScale, RetrainClips) {
    const std::vector<float> in{0.0f, -2.0f, 5e-7f, 1e-6f};
    for (const bool reciprocal : {false, true}) {
        std::vector<float> scale(4), expected{1e-6f, 2.0f, 5e-7f + 1e-6f, 1e-6f};  // 1e-6 itself is not below 1e-6
        std::vector<int> offset(4, 7);
        KestTfOp::ProcessScale<util::ThreadPoolDevice, float>()(in.data(), scale.data(), offset.data(), 4, reciprocal);
        for (float& x : expected) x = reciprocal ? 1.0f / x : x;
        ExpectSameBits(expected, scale);
        ExpectSameBits({0, 0, 0, 0}, offset);
        KestCommon::ProcessScale(in.data(), nullptr, nullptr, -1, reciprocal);
    }
}

TEST(Clip, ClampsInPlace) {
    std::vector<int> codes{40000, -40000, 7};
    for (int& code : codes) KestCommon::Clip(code, -32768, 32767);
    ExpectSameBits({32767, -32768, 7}, codes);
    std::vector<float> values{-128.5f, 126.5f, kNan};
    for (float& value : values) KestCommon::Clip(value, -128, 127);
    ExpectSameBits({-128, 126.5f, kNan}, values);
}

}  // namespace
