#include <kest/weight_quant/nuq.h>

#include <benchmarks/plain_kmeans.h>
#include <tests/test_util.h>

#include <algorithm>
#include <climits>

using KestCommon::NuqParam;

namespace {

/// Returns the centres.
template <typename T>
std::vector<T> ExpectResult(const char* why, NuqParam param, const std::vector<T>& x, const std::vector<float>& scale,
                            const std::vector<int>& offset, const std::vector<T>& grid, int status = STATUS_OK) {
    SCOPED_TRACE(why);
    const unsigned int n = static_cast<unsigned int>(x.size()), numChannels = static_cast<unsigned int>(scale.size());
    std::vector<float> actualScale(numChannels, -77);
    std::vector<int> actualOffset(numChannels, -77);
    std::vector<T> actualGrid = x, centers(param.numClusters), data = x, expected = x;
    const util::FloatData scales{numChannels, actualScale.data()};
    const util::IntData offsets{numChannels, actualOffset.data()};
    EXPECT_EQ(status, KestCommon::NuqCalibrationCpuKernel<T>(x.data(), actualGrid, centers, n, param, scales, offsets));
    ExpectSameBits(scale, actualScale);
    ExpectSameBits(offset, actualOffset);
    ExpectSameBits(grid, actualGrid);
    EXPECT_EQ(status, KestCommon::NuqKernel<T>(data.data(), n, param, scales, offsets));
    for (unsigned int i = 0; i < n && status == STATUS_OK; ++i) {
        const unsigned int c = i / (n / numChannels);
        expected[i] = (static_cast<T>(offset[c]) + grid[i]) * static_cast<T>(scale[c]);
        EXPECT_NE(centers.end(), std::find(centers.begin(), centers.end(), grid[i]));
    }
    ExpectSameBits(expected, data);
    return centers;
}

template <typename T>
void WorkedRows() {
    const auto expectClusters = [](std::vector<T> values, double weight, const std::vector<T>& expected) {
        std::vector<double> weights(values.size(), weight);
        std::vector<T> centers(expected.size());
        KestCommon::Kmeans(values, static_cast<unsigned int>(expected.size()), weights, centers);
        ExpectSameBits(expected, centers);
    };
    expectClusters({6e4, 0, -7e4}, 1, {-35000, 6e4});  // as second seeds both leave 2^31 - 1: the first
    expectClusters({2.5, 2.5, 2.5}, 1, {3, 0, 0});     // further centres stay 0
    expectClusters({4}, 0x1p-23, {4});                 // a sum of weights just large enough to divide by
    expectClusters({4}, 0x1.fp-24, {0});
    expectClusters({0x1p30}, 0x1p-24, {64});  // else the sum is the centre
    expectClusters({-128, 0, 1}, 1, {0});     // a seed of 0 has not moved: it stays
    // The mean of -128 -128 and, 4 times, -128 0; without weights -96.
    ExpectResult<T>("weights", {1, false, 0}, {-128, -128, -256, 0}, {1, 2}, {0, 0}, {-77, -77, -77, -77});
    // ARQ: 1 and -28, grid -128 127. (100 * 156 + 155 * 99) / (156^2 + 99^2), then the mean of 17.7 and 44.0.
    ExpectResult<T>("a refit", {2, true, 1}, {-100, 155}, {30945.0f / 34137}, {31}, {-128, 127});
    // The grid anew: -79.3 and 202. (100 * 48 + 155 * 158) / (48^2 + 158^2), the mean of -14.1 and 17.3.
    ExpectResult<T>("a round starts from the data", {2, true, 2}, {-100, 155}, {29290.0f / 27268}, {2}, {-79, 127});
    // The refit of the offset divides by the scale -1.
    ExpectResult<T>("a scale is mended last", {1, true, 1}, {0, 255, 129, 128}, {1}, {-128}, {0, 0, 0, 0});
    ExpectResult<T>("levels of 0: 0 / 0 is scale 1", {2, false, 3}, {0, 0}, {1}, {0}, {0, 0});
    ExpectResult<T>("scale 0, weights NaN, scales 1", {1, false, 3}, {-128, 0}, {2, 1}, {0, 0}, {-64, -64});
    // Scales s, -1 / 85, 0, s after the first round.
    const float s = 128.0f / 85;
    ExpectResult<T>("grid 0 / 0", {1, false, 2}, {-128, 1, 0, -128}, {s, 1, 1, s}, {0, 0, 0, 0}, {-85, -85, -85, -85});
    // The mean -127.25 has the level -127; the scale behind the one that is too large stays 0.
    const std::string log = LogOf([] {
        ExpectResult<T>("above 2^23", {1, false, 1}, {-0x1p30, -0x1.fap29, 0, 0}, {0x1p23f * 127.25f / 127, 0}, {0, 0},
                        {-127, -127, -127, -127}, STATUS_SCALE_ERROR);
    });
    EXPECT_NE(log.npos, log.find("1 / FLT_EPSILON.\n[ERROR][NuqCalibrationCpuKernel][] NUQ scale is illegal.\n"));
}

TEST(Nuq, CodesAndWeights) {
    double x[] = {-0.5, 2.5, -0x1p40, 9};
    float scale = 1, lowest = -FLT_MAX, scales[] = {2, 1};
    int offset = 1;
    char codes[4];
    EXPECT_EQ(STATUS_OK, NuqQuantRealPython(x, 4, {1, &scale}, {1, &offset}, codes));  // rounded, then moved
    ExpectSameBits<char>({0, 4, 0, 10}, {codes, codes + 4});                           // INT_MIN's low byte
    LogOf([&] {                                                                        // as finite as a number can be
        EXPECT_EQ(STATUS_SCALE_ERROR, KestCommon::NuqQuant(&lowest, 1, {1, false, 0}, {1, &scale}, {1, &offset}));
    });
    ExpectSameBits({0.8, 0.8, 0.2, 0.2}, KestCommon::Weight(4, {2, scales}, 2));
}

template <typename T>
void AgainstPlain(unsigned int n, unsigned int numClusters, T spread) {
    SCOPED_TRACE(testing::Message() << n << " values, " << numClusters << " clusters");
    std::vector<T> x = MixedValues<T>(n, n + numClusters, spread), plain = x, centers(numClusters);
    std::vector<double> weights(n);
    for (unsigned int i = 0; i < n; ++i) weights[i] = (1 + i * 5 / n) / (3.0 * n);  // five channels
    KestCommon::Kmeans(x, numClusters, weights, centers);
    ExpectSameBits(bench::PlainKmeans(plain, numClusters, weights), centers);
    ExpectSameBits(plain, x);
}

TEST(Nuq, ClustersAgainstPlainLoops) {
    for (const unsigned int n : {1u, 15u, 16u, 45u, 260u, 780u, 5200u})
        for (const unsigned int numClusters : {1u, 5u, 16u, 40u}) {
            AgainstPlain<float>(n, numClusters, 100);
            AgainstPlain<double>(n, numClusters, 100);
        }
    AgainstPlain<float>(12000, 16, 30);  // potentials between 2^20 and 2^23 have fractions to lose
    AgainstPlain<double>(12000, 16, 30);
}

TEST(Nuq, WorkedRows) {
    WorkedRows<float>();
    WorkedRows<double>();
}

TEST(Nuq, FirstFailingCheckDecidesAndNothingIsWritten) {
    const std::string logs[] = {"Empty data pointer!",
                                "The length cannot be 0!",
                                "The data contains invalid values!",
                                "The scale.length should not be 0!",
                                "The length of data should be an integer multiple of scale.length!",
                                "The offset.length should be same as scale.length!"};
    for (int right = 0; right < 9; ++right) {  // how many arguments are, in the order of the checks
        std::vector<double> x{right > 2 ? 1 : -kInf, 1}, grid(right > 7 ? 2 : 1), centers(3, -77);
        float scale = -77;
        int offset = -77;
        const util::FloatData scales{right > 4 ? 2u : right > 3 ? 3u : 0u, &scale};
        const std::string log = LogOf([&] {
            EXPECT_EQ(STATUS_BAD_PARAM, KestCommon::NuqCalibrationCpuKernel<double>(
                                            right > 0 ? x.data() : nullptr, grid, centers, right > 1 ? 2 : 0,
                                            {right > 6 ? 4u : 0u, false, 1}, scales, {right > 5 ? 2u : 1u, &offset}));
        });
        const std::string own = right < 6 ? "[ERROR][CheckNuqQuantParams][] " + logs[right] : "";
        EXPECT_NE(log.npos, log.find(own + "\n[ERROR][NuqCalibrationCpuKernel][] Check NUQ parameters failed!\n"));
        EXPECT_TRUE(scale == -77 && offset == -77 && centers[0] == -77) << right;
    }
}

TEST(Nuq, FunctorsPublishStoreQuantiseAndRestore) {
    std::vector<float> scale(2), stored(2, -77), data{kInf, -127, 10, -0x1p-13f, 0, 0};
    std::vector<int> offset(2), storedOffset(2), centers(3);
    KestTfOp::WeightNuqQuantParam param{
        scale.data(), offset.data(), nullptr, stored.data(), storedOffset.data(), centers.data(), 2, 8, 2, 0, false};
    KestCommon::ThrustParam<float> thrust;
    const KestTfOp::NuqFunctor<util::ThreadPoolDevice, float> nuq;
    LogOf([&] { EXPECT_EQ(STATUS_BAD_PARAM, nuq(data.data(), 6, param, thrust)); });
    EXPECT_TRUE(data[1] == -127 && stored[0] == -77);
    data[0] = -128;
    // Channel 1 weighs 2^-40: means -127.5 and 10. Its scale of 2^-20 gives the weights, then it is 1.
    EXPECT_EQ(STATUS_OK, nuq(data.data(), 6, param, thrust));
    ExpectSameBits({-128, 10, 0}, centers);
    ExpectSameBits({-128, -128, 10, -0x1p-13f, 10 * 0x1p-20f, 10 * 0x1p-20f}, data);
    ExpectSameBits({1, 1}, scale);
    ExpectSameBits({1, 1}, stored);

    data = {-128 * 1e-6f, 0};  // a scale of 1e-6 is not below itself
    param.channelNum = 1;
    EXPECT_EQ(STATUS_OK, nuq(data.data(), 2, param, thrust));
    EXPECT_EQ(1e-6f, stored[0]);
    param.channelNum = 2;

    centers = {2, 3, 252};
    param.numClusters = 3;
    stored = {2, 0x1p-53f};
    storedOffset = {-1, 5};
    const std::vector<float> in{3.4f, 6, 300, 2.7f, 3, -9, 2.99f};  // 3.4 / 2 + 1 = 2.7: less than 1 from 2
    std::vector<float> out(7);
    const KestTfOp::FakeQuantWithNuq<util::ThreadPoolDevice, float> quantise;
    EXPECT_EQ(STATUS_OK, quantise(param, in.data(), out.data(), 7));
    ExpectSameBits({2, 4, 4, 7 * 0x1p-53f, 8 * 0x1p-53f, 7 * 0x1p-53f, 2}, out);
    centers = {INT_MAX, 3 << 29};  // 2^31 is no distance, 3 * 2^29 is one
    param.numClusters = 2;
    stored[0] = 1;
    float far = 0;
    EXPECT_EQ(STATUS_OK, quantise(param, &far, &far, 1));
    EXPECT_EQ(0x1.8p30f, far);
    EXPECT_EQ(STATUS_OK, (KestTfOp::IdentityScaleOffsetNuq<util::ThreadPoolDevice, float>()(param)));
    ExpectSameBits(stored, scale);
    ExpectSameBits(storedOffset, offset);
    EXPECT_EQ(STATUS_OK, (KestTfOp::IdentityWeightNuq<util::ThreadPoolDevice, float>()(in.data(), out.data(), 6)));
    EXPECT_TRUE(std::equal(in.begin(), in.begin() + 6, out.begin()) && out[6] == 2);
}

}  // namespace
