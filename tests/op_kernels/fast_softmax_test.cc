#include <kest/op_kernels/fast_softmax.h>

#include <tests/test_util.h>

namespace {

using KestTfOp::SoftmaxParam;

SoftmaxParam Param(std::size_t length, int rowLength, float threshold = -3, float b = 0.25f, float a = 0.5f) {
    return {a, b, threshold, 1, static_cast<int>(length), {-1, rowLength}};
}

/// -77 where nothing is written.
template <typename T>
std::vector<T> Softmax(const std::vector<T>& in, SoftmaxParam param) {
    std::vector<T> out(in.size(), -77);
    EXPECT_EQ(0, (KestTfOp::FastSoftmaxFunctor<util::ThreadPoolDevice, T>{}(in.data(), out.data(), param)));
    return out;
}

TEST(FastSoftmax, WorkedRows) {
    const float third = 1 / 3.0f;
    ExpectSameBits({-4, 1, 4}, Softmax<float>({1, 2, 3}, Param(3, 3)));  // 1 - 2 + 2 - 2 = -1, 1 - 1 + 1/2 - 1/4 = 1/4
    ExpectSameBits({0, 0.2f, 0.8f, third / 2, 2 * third, third / 2},     // at the cut-off; 1/4, 1, 1/4 by 3/2
                   Softmax<float>({1, 2, 3, 7, 8, 7}, Param(6, 3, -2)));
    ExpectSameBits({third, third, third, 0.5, 0, 0.5}, Softmax<float>({-5, -5, -5, 9, -kInf, 9}, Param(6, 3)));
    std::vector<float> out = Softmax<float>({1, kNan, 1, 1, kInf, 2, -kInf, -kInf, -kInf, 7, 7, 7}, Param(12, 3));
    for (int i = 0; i < 9; ++i) EXPECT_TRUE(std::isnan(out[i])) << i;  // inf - inf; 0 / 0
    EXPECT_EQ(third, out[11]);
    ExpectSameBits({0.2f, 0.8f, -77}, Softmax<float>({1, 2, 3}, Param(3, 2)));
    for (const int rowLength : {0, -3}) ExpectSameBits({-77, -77, -77}, Softmax<float>({1, 2, 3}, Param(3, rowLength)));
    ExpectSameBits({-77, -77}, Softmax<float>({1, 2}, {0.5f, 0.25f, -3, 2, 2, {2, 2}}));
    // Maxima start from the lowest float: every difference is cut off, and the row sums to 0.
    for (const double value : Softmax<double>({-1e300, -1e300}, Param(2, 2))) EXPECT_TRUE(std::isnan(value));
}

TEST(FastSoftmax, CubeIsTheNearest) {
    const auto polynomial = [](auto max, float b) {
        SoftmaxParam param = Param(1, 1, -kInf, b);
        std::vector<decltype(max)> rowMax{max}, out{0};
        KestTfOp::ApproximateExp<decltype(max)>(out.data(), rowMax, out.data(), param);
        return out[0];
    };
    // (1 + 2^-27)^3 = 1 + 3 * 2^-27 + 3/4 ulp + ..., of which the rounded square loses 1/4.
    EXPECT_EQ(-0x1p100 * (1 + 0x3p-27 + 0x1p-52), polynomial(1 + 0x1p-27, 0x1p100f));
    EXPECT_EQ(-kInf, polynomial(1e120, 0.25f));            // what the rounding of an infinite cube leaves is no number
    EXPECT_EQ(kInf, polynomial(1e200, -0.25f));            // and here already that of the square
    EXPECT_EQ(0x1.6c0394p-1f, polynomial(0.336f, 0.25f));  // 1 + x becomes a float, the cube none
    EXPECT_EQ(-0x1.6f274ap-28f, polynomial(0x1.8072fp-2f, 0x1.a448a6p+3f));  // the cube times b is not rounded
}

TEST(FastSoftmax, Steps) {
    SoftmaxParam param = Param(8, 2);
    std::vector<float> x{-0.0f, 0, 2, kNan, 7, 9, 5, 6}, rowMax{-FLT_MAX, -FLT_MAX, 10};
    KestTfOp::FindMaxAlongAxis<float>(x.data(), rowMax, param);
    ExpectSameBits({-0.0f, 2, 10}, rowMax);  // 0 is not greater than -0; no entry for the fourth row
    x[3] = 1;
    KestTfOp::ApproximateExp<float>(x.data(), rowMax, x.data(), param);
    ExpectSameBits({1, 1, 1, 0.25f, 0, 0.25f, 5, 6}, x);
    rowMax = {2, 0, 0.25f};
    KestTfOp::ApproximateSoftmax<float>(x.data(), rowMax, param);
    ExpectSameBits({4, 1.25f, 0.5f}, rowMax);
    ExpectSameBits({0.25f, 0.25f, 0.8f, 0.2f, 0, 0.5f, 5, 6}, x);
}

TEST(FastSoftmax, FirstZeroAndNoNanIsTheMaximum) {
    std::vector<float> x(40, -1), rowMax{-FLT_MAX};
    x[0] = x[17] = kNan;
    x[20] = -0.0f;
    x[39] = 0;
    SoftmaxParam param = Param(40, 40);
    KestTfOp::FindMaxAlongAxis<float>(x.data(), rowMax, param);
    ExpectSameBits({-0.0f}, rowMax);
}

}  // namespace
