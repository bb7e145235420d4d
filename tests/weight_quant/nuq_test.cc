#include <kest/weight_quant/arq.h>
#include <kest/weight_quant/nuq.h>
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

TEST(Nuq, WeightsOfChannels) {
    std::vector<float> scale{0.7f, 0.1f, 0.3f, 0.9f};
    std::vector<double> weights;
    double sum = 0;
    for (const float s : scale) weights.push_back(double{s} / double{0.1f} * (double{s} / double{0.1f}));
    for (const double weight : weights) sum += weight;
    for (double& weight : weights) weight /= sum;
    ExpectSameBits(weights, KestCommon::Weight(4, {4, scale.data()}, 1));
}

TEST(Nuq, Codes) {
    double x[] = {-0.5, 2.5, -0x1p40, 9};
    float scale = 1, lowest = -FLT_MAX;
    int offset = 1;
    char codes[4];
    EXPECT_EQ(STATUS_OK, NuqQuantRealPython(x, 4, {1, &scale}, {1, &offset}, codes));  // rounded, then moved
    ExpectSameBits<char>({0, 4, 0, 10}, {codes, codes + 4});                           // INT_MIN's low byte
    LogOf([&] {                                                                        // as finite as a number can be
        EXPECT_EQ(STATUS_SCALE_ERROR, KestCommon::NuqQuant(&lowest, 1, {1, false, 0}, {1, &scale}, {1, &offset}));
    });
}

template <typename T>
void PlainKmeans(std::vector<T>& x, const std::vector<double>& w, std::vector<T>& c) {
    const auto square = [](T a, T b) { return static_cast<T>(static_cast<double>(a - b) * (a - b)); };
    const auto nearest = [&c](T v) {
        const auto nearer = [v](T a, T b) { return std::fabs(v - a) < std::fabs(v - b); };
        return std::min_element(c.begin(), c.end(), nearer) - c.begin();
    };
    const std::size_t n = x.size(), numCandidates = static_cast<std::size_t>(std::log(c.size())) + 2;
    std::vector<T> candidate(numCandidates), left(n, FLT_MAX), previous = c;
    c[0] = KestCommon::Median(x);
    for (std::size_t k = 1; k < c.size(); ++k) {
        T total = 0, least = FLT_MAX;
        for (std::size_t i = 0; i < n; ++i) total += left[i] = std::min(left[i], square(x[i], c[k - 1]));
        for (std::size_t t = 0; t < numCandidates; ++t) {
            T reached = 0, potential = 0;
            const T threshold = static_cast<T>(t + 1) * static_cast<T>(total / (numCandidates + 1.0));
            for (std::size_t i = 0; i < n && reached <= threshold; ++i)
                if ((reached += left[i]) > threshold) candidate[t] = x[i];
            for (std::size_t i = 0; i < n; ++i)
                potential = std::trunc(potential + std::min(left[i], square(x[i], candidate[t])));
            if (potential < least) c[k] = candidate[t];
            least = std::min(least, potential);
        }
    }
    for (int step = 0; step < 200; ++step) {
        T shift = 0;
        for (std::size_t k = 0; k < c.size(); ++k) shift += std::fabs(c[k] - previous[k]);
        if (shift < 1e-6) break;
        previous = c;
        std::vector<T> weight(c.size()), sum(c.size());
        for (std::size_t i = 0; i < n; ++i) {
            const auto k = nearest(x[i]);
            weight[k] = static_cast<T>(weight[k] + w[i]);
            sum[k] += static_cast<T>(x[i] * w[i]);
        }
        for (std::size_t k = 0; k < c.size(); ++k) c[k] = sum[k] / (weight[k] < FLT_EPSILON ? 1 : weight[k]);
    }
    for (T& center : c) center = std::round(center);
    for (T& value : x) value = c[nearest(value)];
}

template <typename T>
void AgainstPlain(unsigned int numChannels, unsigned int step, unsigned int numClusters) {
    SCOPED_TRACE(testing::Message() << numChannels << " channels of " << step << ", " << numClusters << " clusters");
    const unsigned int n = numChannels * step;
    const NuqParam param{numClusters, numClusters != 5, 1};
    const std::vector<T> x = MixedValues<T>(n, n + numClusters);
    std::vector<T> grid(n), centers(numClusters);
    std::vector<float> scale(numChannels);
    std::vector<int> offset(numChannels);
    const util::FloatData scales{numChannels, scale.data()};
    KestCommon::WtsArqCalibrationCpuKernel<T>(x.data(), n, {8, true, param.withOffset}, scales,
                                              {numChannels, offset.data()}, util::CO_CI_KH_KW);
    for (unsigned int i = 0; i < n; ++i)
        grid[i] = std::clamp<T>(x[i] / static_cast<T>(scale[i / step]) + static_cast<T>(offset[i / step]), -128, 127);
    PlainKmeans(grid, KestCommon::Weight(n, scales, step), centers);
    for (unsigned int c = 0; c < numChannels; ++c) {
        T num = 0, den = 0, sum = 0;
        for (unsigned int i = c * step; i < (c + 1) * step; ++i) {
            const T level = static_cast<T>(offset[c]) + grid[i];
            num = std::fma(x[i], level, num);
            den += level * level;
        }
        scale[c] = std::isnan(num / den) ? 1 : static_cast<float>(num / den);
        for (unsigned int i = c * step; i < (c + 1) * step; ++i)
            sum = static_cast<T>(sum + (x[i] / (scale[c] + 1e-6) - grid[i]));
        if (param.withOffset) offset[c] = static_cast<int>(std::round(sum / static_cast<T>(step)));
        if (scale[c] < FLT_EPSILON) scale[c] = 1;
    }
    ExpectSameBits(centers, ExpectResult("plain loops", param, x, scale, offset, grid));
}

TEST(Nuq, WorkedRows) {
    WorkedRows<float>();
    WorkedRows<double>();
}

TEST(Nuq, AgainstPlainLoops) {
    for (const unsigned int numChannels : {1u, 3u, 20u})
        for (const unsigned int step : {1u, 15u, 16u, 17u, 33u, 260u})
            for (const unsigned int numClusters : {1u, 5u, 16u, 40u}) {
                AgainstPlain<float>(numChannels, step, numClusters);
                AgainstPlain<double>(numChannels, step, numClusters);
            }
}

template <typename T>
void ManyValues() {
    // Potentials between 2^20 and 2^23 have fractions to lose.
    std::vector<T> x = MixedValues<T>(12000, 3, 30), plain = x, centers(16), plainCenters(16);
    std::vector<double> weights(x.size(), 1.0 / 12000);
    KestCommon::Kmeans(x, 16, weights, centers);
    PlainKmeans(plain, weights, plainCenters);
    ExpectSameBits(plainCenters, centers);
    ExpectSameBits(plain, x);
}

TEST(Nuq, ManyValuesAgainstPlainLoops) {
    ManyValues<float>();
    ManyValues<double>();
    const std::vector<float> x = MixedValues<float>(2 * 200, 5, 30);
    std::vector<float> scale{0.3f, 0x1p-53f}, out(x.size());
    std::vector<int> offset{-3, 2}, centers{5, -128, -7, 40, 6, 127, -40};
    const KestTfOp::WeightNuqQuantParam param{nullptr, nullptr, nullptr, scale.data(), offset.data(), centers.data(), 2,
                                              7,       7,       0,       false};
    EXPECT_EQ(STATUS_OK,
              (KestTfOp::FakeQuantWithNuq<util::ThreadPoolDevice, float>()(param, x.data(), out.data(), 400)));
    for (std::size_t i = 0; i < x.size(); ++i) {
        const float s = scale[i / 200], o = static_cast<float>(offset[i / 200]);
        const float code = std::clamp(i < 200 ? x[i] / s - o : x[i], -64.0f, 63.0f);
        const auto distance = [=](int center) { return std::abs(static_cast<int>(code - static_cast<float>(center))); };
        const int nearest =
            *std::min_element(centers.begin(), centers.end(), [=](int a, int b) { return distance(a) < distance(b); });
        ASSERT_EQ((o + static_cast<float>(nearest)) * s, out[i]) << i;
    }
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
    EXPECT_EQ(STATUS_OK,
              (KestTfOp::FakeQuantWithNuq<util::ThreadPoolDevice, float>()(param, in.data(), out.data(), 7)));
    ExpectSameBits({2, 4, 4, 7 * 0x1p-53f, 8 * 0x1p-53f, 7 * 0x1p-53f, 2}, out);
    centers = {INT_MAX, 3 << 29};  // 2^31 is no distance, 3 * 2^29 is one
    param.numClusters = 2;
    stored[0] = 1;
    float far = 0;
    EXPECT_EQ(STATUS_OK, (KestTfOp::FakeQuantWithNuq<util::ThreadPoolDevice, float>()(param, &far, &far, 1)));
    EXPECT_EQ(0x1.8p30f, far);
    EXPECT_EQ(STATUS_OK, (KestTfOp::IdentityScaleOffsetNuq<util::ThreadPoolDevice, float>()(param)));
    ExpectSameBits(stored, scale);
    ExpectSameBits(storedOffset, offset);
    EXPECT_EQ(STATUS_OK, (KestTfOp::IdentityWeightNuq<util::ThreadPoolDevice, float>()(in.data(), out.data(), 6)));
    EXPECT_TRUE(std::equal(in.begin(), in.begin() + 6, out.begin()) && out[6] == 2);
}

}  // namespace
