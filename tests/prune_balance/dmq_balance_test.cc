#include <kest/prune_balance/dmq_balance.h>

#include <tests/test_util.h>

namespace {

using Floats = std::vector<float>;

util::FloatData View(Floats& values) {
    return {static_cast<unsigned int>(values.size()), values.data()};
}

/// {status, factors}; -77 where nothing is written.
Floats Balance(Floats act, Floats wts, float strength, unsigned int numChannels) {
    Floats result(numChannels + 1, -77);
    result[0] =
        static_cast<float>(KestCommon::DMQBalance(View(act), View(wts), strength, numChannels, result.data() + 1));
    return result;
}

TEST(DMQBalance, WorkedRows) {
    const float tiny = 0x1.fffffep-24f;  // counts as zero
    ExpectSameBits({0, 2}, Balance({-4, kNan}, {0.5f, -1}, 0.5f, 1));
    ExpectSameBits({0, 2, 3, 1}, Balance({1, -4, 9, 0, 1, 1}, {1, 0, 0, 1, 1, 1, -1, 0, 1}, 0.5f, 3));  // blocks
    ExpectSameBits({0, 32}, Balance({256}, {16}, 0.75f, 1));                                            // 64 / 2
    ExpectSameBits({0, 1, 1}, Balance({0, tiny}, {5, 7}, 0.5f, 2));
    ExpectSameBits({0, 1, 1}, Balance({5, 7}, {0, tiny}, 0.5f, 2));
    ExpectSameBits({0, 2, 1}, Balance({4, 0}, {1, 2}, 0.5f, 2));                    // 2 * 1 / 2
    ExpectSameBits({0, 2, 4.5f}, Balance({4, 9}, {1, 0}, 0.5f, 2));                 // 9 / (4 / 2)
    ExpectSameBits({0, 2, 1}, Balance({4, 0}, {1, tiny}, 0.5f, 2));                 // zero on both sides
    ExpectSameBits({0, 1, 1}, Balance({4, 0}, {0, 4}, 0.5f, 2));                    // no channel is healthy
    ExpectSameBits({0, 2, 4, 0.5f}, Balance({4, 16, 0}, {1, 1, 8}, 0.5f, 3));       // the largest of 2 and 4, by 8
    ExpectSameBits({0, 0.5f}, Balance({FLT_EPSILON}, {4 * FLT_EPSILON}, 0.5f, 1));  // not zero yet
    ExpectSameBits({0, 0x1.fffffep63f}, Balance({FLT_MAX}, {1}, 0.5f, 1));          // finite: 2^64 * sqrt(1 - 2^-24)
    ExpectSameBits({0, 0x1.ffffcep-80f}, Balance({1}, {0x1p100f}, 0.21f, 1));  // 1 - 0.21f is rounded to float, too
    ExpectSameBits({0, 0.81649661f}, Balance({2}, {3}, 0.5f, 1));              // not the product of two roots in floats
    ExpectSameBits({0, 8, 2}, Balance({16, 0}, {1, 4}, 0.75f, 2));             // 8 * 1 / 4; the ratio is 16 / 8
    ExpectSameBits({0, 27, 10 / 3.0f}, Balance({81, 10}, {1, 0}, 0.75f, 2));   // 10 / (81 / 27), no reciprocal
}

TEST(DMQBalance, ZeroChannelsKeepWhatIsTooSmallToBeHealthy) {
    Floats actMax{4, 1, 0}, wtsMax{1, 1, 2}, factors{2, 0x1p-24f, 0};
    KestCommon::ProcessZeroChannel(actMax, wtsMax, factors.data());
    ExpectSameBits({2, 0x1p-24f, 1}, factors);
}

TEST(DMQBalance, FirstFailingCheckDecidesAndNothingIsWritten) {
    const std::string check = "[ERROR][CheckDMQBParam][] ", number = check + "migrationStrength: 0.";
    const std::string range = "0000 not support, should be in [0.2, 0.8]!\n", find = "[ERROR][FindMaxValue][] channel[";
    const auto expect = [](const std::string& log, Floats act, Floats wts, float strength, unsigned int numChannels) {
        Floats result, expected(numChannels + 1, -77);
        expected[0] = STATUS_BAD_PARAM;
        EXPECT_EQ(log, LogOf([&] { result = Balance(act, wts, strength, numChannels); }));
        ExpectSameBits(expected, result);
    };
    expect(check + "act pointer is null or length is 0!\n", {}, {}, 0, 0);
    expect(check + "wts pointer is null or length is 0!\n", {1}, {}, 0, 0);
    expect(number + "19" + range, {1}, {1}, 0.19f, 0);
    expect(number + "81" + range, {1}, {1}, 0.81f, 0);
    expect(check + "channelNum is 0!\n", {1}, {1}, 0.8f, 0);
    expect(check + "act.length: 2 or wts.length: 3 cannot be divisible by channelNum: 2!\n", {1, 1}, {1, 1, 1}, 0.2f,
           2);
    expect(find + "0] max value is illegal!\n[ERROR][DMQBalance][] find wts max value fail.\n", {1, kInf}, {-kInf, 1},
           0.5f, 2);
    expect(find + "1] max value is illegal!\n[ERROR][DMQBalance][] find act max value fail.\n", {1, -kInf}, {1, kInf},
           0.5f, 2);
    float one = 1;
    EXPECT_EQ(check + "balanceFactor is null!\n", LogOf([&] {
                  EXPECT_EQ(STATUS_BAD_PARAM, KestCommon::DMQBalance({1, &one}, {1, &one}, 0.5f, 1, nullptr));
              }));
}

TEST(DMQBalance, FunctorCopiesThenChecksTheRange) {
    const float act[] = {4, 0x1p60f, kInf}, wts[] = {1, 0x1p-20f, 1};
    Floats factors(3, -77), copy(3, -77);
    const auto expect = [&](int status, unsigned int n, const Floats& copied) {
        DMQBalancerKernel::DMQBalancerParam param{0.5f, n, n, n, copy.data()};
        const DMQBalancerKernel::DMQBalancer<util::ThreadPoolDevice, float> balance;
        LogOf([&] { EXPECT_EQ(status, balance(act, wts, param, factors.data())); });
        ExpectSameBits(copied, copy);
    };
    expect(STATUS_OK, 1, {2, -77, -77});
    expect(STATUS_BAD_PARAM, 3, {2, -77, -77});
    expect(VALUE_RANGE_ERROR, 2, {2, 0x1p40f, -77});
    ExpectSameBits(copy, factors);
}

}  // namespace
