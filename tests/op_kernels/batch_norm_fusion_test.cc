#include <kest/op_kernels/batch_norm_fusion.h>

#include <tests/test_util.h>

namespace {

using namespace KestTfOp;
using Floats = std::vector<float>;

/// {status, fused scales}; -77 where nothing is written, to the host neither.
Floats Fuse(Floats scaleW, Floats gamma, Floats variance, float epsilon, float multiplier) {
    const int n = static_cast<int>(scaleW.size());
    Floats scales(scaleW.size(), -77), host = scales;
    std::vector<int> offsets(scaleW.size(), 5), hostOffsets(scaleW.size(), -77);
    const int status = FuseScaleWCpu({scaleW.data(), offsets.data(), host.data(), hostOffsets.data(), n},
                                     {gamma.data(), variance.data(), &epsilon, &multiplier}, scales.data());
    ExpectSameBits(scales, host);
    for (int c = 0; c < n; ++c) EXPECT_EQ(scales[c] == -77 ? -77 : 5, hostOffsets[c]);
    scales.insert(scales.begin(), static_cast<float>(status));
    return scales;
}

TEST(BatchNormFusion, FusedScales) {
    ExpectSameBits({0, 0.5f, 0.5f, 1, kNan}, Fuse({0.5f, 0.5f, 1, kNan}, {2, -2, 0, 1}, {3, -5, 3, 3}, 1, 1));
    ExpectSameBits({9, 1, kInf, -77}, Fuse({1, 1, 1}, {1, 1, 1}, {3, -1, 3}, 1, -2));  // 1 / 0
    ExpectSameBits({9, kInf}, Fuse({0x1p64f}, {0x1p64f}, {0x1p126f}, 0, 1));           // a float product
    ExpectSameBits({0, 1}, Fuse({0x1p-100f}, {0x1p-100f}, {0x1p-120f}, 0, 0x1p127f));  // 0, not 2^-13
    ExpectSameBits({0, 1}, Fuse({1}, {1}, {FLT_MAX}, FLT_MAX, 0x1p100f));              // a float sum: 1 / infinity
    ExpectSameBits({0, 1.3416407864998738f}, Fuse({1}, {1}, {5}, 0, 3));  // float roots, quotients: 1.3416407
    // The float 1e-6, 8796093 / 2^43, is not below itself, nor is what rounds to it.
    ExpectSameBits({0, 1e-6f, 1}, Fuse({1e-6f, std::nextafter(1e-6f, 0.0f)}, {1, 1}, {1, 1}, 0, 1));
    ExpectSameBits({0, 1e-6f}, Fuse({15637498 * 0x1p-47f}, {1}, {1}, 0, 9));  // 3 / 8 ulp less
    ExpectSameBits({0}, Fuse({}, {}, {}, 0, 1));
}

/// {status, scale} alone, {status, scale, scale, fused, fused} with the weights of a channel, three offsets.
Floats Copy(float scale, float gamma) {
    const CopyDataToHost<util::ThreadPoolDevice, float> copy;
    const float one = 1, three = 3;
    const int offset = -3, offsetW = 7;
    float a = -77, b = a, c = a, d = a, e = a;
    int offsets[] = {-77, -77, -77};
    const int alone = copy({&scale, &offset, &a, &offsets[0]});
    const int both = copy({&scale, &offset, &b, &offsets[1]}, {&one, &offsetW, &d, &offsets[2], 1},
                          {&gamma, &three, &one, &one}, &c, &e);
    return {float(alone), a, float(both), b, c, d, e, float(offsets[0]), float(offsets[1]), float(offsets[2])};
}

TEST(BatchNormFusion, CopyDataToHost) {
    for (const float good : {0.25f, -FLT_MIN, kNan})
        ExpectSameBits({0, good, 0, good, good, 0.5f, 0.5f, -3, -3, 7}, Copy(good, 1));
    for (const float bad : {0.0f, FLT_MIN / 2, -kInf})
        ExpectSameBits({10, bad, 10, bad, bad, -77, -77, -3, -3, -77}, Copy(bad, 1));
    ExpectSameBits({0, 1, 9, 1, 1, kInf, kInf, -3, -3, 7}, Copy(1, kInf));
}

TEST(BatchNormFusion, FetchScale) {
    const Floats src{1, kNan, -0.0f};
    Floats dst(4, -77);
    EXPECT_EQ(0, (FetchScaleFunctor<util::ThreadPoolDevice, float>()(dst.data(), src.data(), 3)));
    ExpectSameBits({1, kNan, -0.0f, -77}, dst);
}

}  // namespace
