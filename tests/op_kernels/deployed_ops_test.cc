#include <kest/op_kernels/deployed_ops.h>

#include <tests/test_util.h>

namespace {

using namespace KestTfOp;
using Device = util::ThreadPoolDevice;
using Floats = std::vector<float>;

/// What `call` makes of x beside it and in its place, any NaN as kNan.
template <typename Param, typename Call>
Floats Apply(Param param, Floats x, Call call) {
    Floats out(x.size(), -77);
    param.input = x.data();
    param.length = static_cast<int>(x.size());
    EXPECT_EQ(0, call(param, out.data()));
    EXPECT_EQ(0, call(param, x.data()));
    ExpectSameBits(out, x);
    for (float& y : out)
        if (std::isnan(y)) y = kNan;
    return out;
}

Floats Quantise(float scale, float offset, int numBits, const Floats& x) {
    return Apply(QuantInputParam<float>{0, nullptr, scale, offset, numBits}, x, OrvaneQuantFunctor<Device, float>());
}

struct Layout {
    int channelNum, innerSize;
    bool channelWise = true, channelFirst = true;
};

std::uint64_t Word(float scale, unsigned int shift) {
    return 0xABCDEFull << 40 | std::uint64_t{shift} << 32 | Bits(scale);
}

Floats Dequantise(int k, const std::vector<std::uint64_t>& words, Layout layout, const Floats& x) {
    const auto [num, inner, wise, first] = layout;
    const DequantInputParam<float> param{k, 0, nullptr, words.data(), num, inner, wise, first, ""};
    const Floats out = Apply(param, x, OrvaneDequantFunctor<Device, float>());
    ExpectSameBits(out, Apply(param, x, OrvaneDequantInternelCpu<float>));
    return out;
}

Floats WeightQuantise(const std::vector<signed char>& w, const std::vector<signed char>& o, Layout layout) {
    const auto [num, inner, wise, first] = layout;
    const OrvaneWeightQuantFunctor<Device, float> functor;
    Floats out(w.size(), -77);
    EXPECT_EQ(0, functor({static_cast<int>(w.size()), w.data(), o.data(), inner, num, wise, first}, out.data()));
    return out;
}

TEST(DeployedOps, Quantise) {
    ExpectSameBits({3, -3, 127, -128, 127, 0, 0, 127, -128, kNan},
                   Quantise(1, 0, 8, {2.5f, -2.5f, 300, -300, 127.5f, 0.49999997f, -0.2f, kInf, -kInf, kNan}));
    ExpectSameBits({117, -138, 117, 116}, Quantise(1, 10, 8, {120, -140, 117, 116}));
    ExpectSameBits({1, 126.5f, -128.5f}, Quantise(1, 0.5f, 8, {1, 127, -129}));  // no integer offset
    ExpectSameBits({7, -8, 7}, Quantise(10, 0, 4, {9, -9, 0.65f}));              // 6.5; exactly 6.4999998
    ExpectSameBits({0, -1, 0}, Quantise(1, 0, 1, {1, -5, 0.4f}));
    ExpectSameBits({0x1.fffffep23f, -0x1p24f}, Quantise(1, 0, 25, {2e7f, -2e7f}));
    for (const int numBits : {32, 33, 1000}) {  // 8388609 + 0.5 is 8388610
        ExpectSameBits({8388609, 0x1p31f, -0x1p31f}, Quantise(1, 0, numBits, {8388609, 1e20f, -1e20f}));
        ExpectSameBits({0, 4}, Quantise(1, 0x1p24f, numBits, {1, 3}));  // the sum is rounded to even
    }
}

TEST(DeployedOps, Dequantise) {
    const auto tensor = [](int k, float scale, unsigned int shift, const Floats& x) {
        return Dequantise(k, {Word(scale, shift)}, {1, 1, false}, x);
    };
    ExpectSameBits({5e4f, 1.625f, -0.25f, kNan}, tensor(1, 0.5f, 0, {1e5f, 3.25f, -0.5f, kNan}));
    ExpectSameBits({48, -8, 262136, -262144, 262128, -0.0f, 262136, -262144, kNan},  // 524271 / 16 is 32766.9
                   tensor(1, 0.5f, 4, {100, -1, 1e9f, -1e9f, 524271, -0.0f, kInf, -kInf, kNan}));
    ExpectSameBits({2 / 3.0f, -4 / 3.0f, 2}, tensor(3, 1, 1, {1, -1, 2}));          // floors of 1.5, -1.5, 3
    ExpectSameBits({kInf}, tensor(3, 1, 0, {2e38f}));                               // times 3 first
    ExpectSameBits({kInf}, tensor(10, 1e38f, 0, {1}));                              // 10 * 1e38, then by 10
    ExpectSameBits({0x1.200002p+2f}, tensor(3, 0.3f, 0, {15}));                     // 13.500001 / 3; 15 * 0.3f is 4.5
    ExpectSameBits({1}, tensor(41, 1, 0, {1}));                                     // 41 * (1 / 41.0f) is below 1
    ExpectSameBits({2, -0.0f}, tensor(-1, 1, 1, {1, -1}));                          // floors of -0.5 and 0.5
    ExpectSameBits({0, -0x1p127f, 0x1p127f}, tensor(1, 1, 127, {1, -1, FLT_MAX}));  // FLT_MAX / 2^127 is 1.99
    for (const unsigned int shift : {128u, 150u, 255u})  // x / infinity * infinity, and 0 * infinity for -1
        ExpectSameBits({kNan, kNan, kNan, kNan}, tensor(1, 1, shift, {1, -1, kInf, 0}));
    ExpectSameBits({2, 4}, Dequantise(1, {Word(2, 0)}, {2, 1, false}, {1, 2}));  // there is one word for all
    ExpectSameBits({}, Dequantise(1, {}, {2, 1}, {}));
    ExpectSameBits({0, -0.0f, kNan}, Dequantise(1, {}, {0, 1, false, false}, {1, -2, kInf}));
    ExpectSameBits({0, 0}, Dequantise(1, {}, {-1, 3}, {1, 2}));
}

TEST(DeployedOps, ChannelRule) {
    const std::vector<std::uint64_t> words{Word(1, 0), Word(2, 0), Word(0.5f, 3), Word(7, 0)};
    ExpectSameBits({1, 2, 4, 1, 2, 0}, Dequantise(1, words, {3, 2, true, false}, {1, 1, 8, 1, 1, 7.5f}));
    ExpectSameBits({1, 1, 1, 2, 2, 2, 1, 1, 1}, Dequantise(1, words, {2, 3}, Floats(9, 1)));
    ExpectSameBits({1, 2, 0, 1, 2, 0, 1, 2, 0}, Dequantise(1, words, {3, 0}, Floats(9, 1)));
    ExpectSameBits({1, 1, 1, 1, 1, 1, 1, 1, 1}, Dequantise(1, words, {4, 1 << 30}, Floats(9, 1)));

    const std::vector<signed char> weight{-128, 127, 1, -1, 0, 5, 6}, offset{127, -128, 3, 9};
    ExpectSameBits({-255, 255, -2, -128, 128, 2, -121}, WeightQuantise(weight, offset, {3, 2, true, false}));
    ExpectSameBits({-255, 0, 129, 127, -3, 2, -121}, WeightQuantise(weight, offset, {3, 2}));
    const Floats ofTensor{-255, 0, -126, -128, -127, -122, -121};
    ExpectSameBits(ofTensor, WeightQuantise(weight, offset, {3, 2, false}));
    ExpectSameBits(ofTensor, WeightQuantise(weight, offset, {0, 2, true, false}));
    ExpectSameBits(ofTensor, WeightQuantise(weight, offset, {4, 1 << 30}));
}

TEST(DeployedOps, ProductsWithZero) {
    const Floats out =
        Apply(AntiQuantInputParam<float>{0, nullptr, 0}, {-1, kInf}, OrvaneAntiQuantFunctor<Device, float>());
    EXPECT_TRUE(Bits(out[0]) == Bits(-0.0f) && std::isnan(out[1]));
}

}  // namespace
