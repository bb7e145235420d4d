#include <kest/weight_quant/search_n.h>
#include <kest/weight_quant/search_n_v2.h>

#include <tests/test_util.h>

#include <algorithm>
#include <climits>

namespace {

using Rows = std::vector<std::vector<float>>;
const KestTfOp::SearchNFunctor<util::ThreadPoolDevice, float> kSearchN{};
const KestTfOp::SearchNV2Functor<util::ThreadPoolDevice, float> kSearchNV2{};

std::vector<int> Search(Rows rows, std::vector<float> scale, bool perTensor) {
    std::vector<int> shifts(rows.size(), -7);
    KestTfOp::SearchnQuantParam<float> quant{perTensor, nullptr, nullptr, nullptr, nullptr, scale.data(), nullptr};
    EXPECT_EQ(STATUS_OK, KestTfOp::SearchNInternelCpu(rows, shifts.data(), quant));
    return shifts;
}

TEST(SearchN, ErrorOfOneValue) {
    const auto error = [](auto value, int factor) {
        double errors[2] = {-7, -7};
        KestCommon::EvaluateShiftNErrorCpu(1, &value, errors, factor);
        EXPECT_EQ(-7, errors[1]);
        return errors[0];
    };
    EXPECT_EQ(9, error(-65537.0f, 4));                          // floor: -16385 * 4
    EXPECT_EQ(1, error(-65537, 4));                             // truncated: -16384 * 4
    EXPECT_EQ(4, error(65536.0f, 2));                           // 32767 * 2
    EXPECT_EQ(9, error(-65539, 2));                             // -32768 * 2
    EXPECT_EQ(0x1p-298, error(-0x1p-149f, 65536));              // underflows to -0, whose floor is not -1
    EXPECT_EQ(1, error(2147385344.0f, 65535));                  // 32767 * 65535 is one more, and no float
    EXPECT_EQ(16777215.0 * 16777215.0, error(16809982.0f, 1));  // neither is the square
    EXPECT_EQ(2147450880.0 * 2147450880.0, error(INT_MIN, 1));  // 2^31 - 32768
    EXPECT_EQ(kInf, error(kInf, 2));
    EXPECT_EQ(65536, KestCommon::GetShiftFactor().at(16));
}

TEST(SearchN, WorkedRows) {
    // Every shift leaves the whole of `big`. `half` squared is half a step of a float sum at big^2 and a little more,
    // too little for a float of its own; the shift by 16, alone, takes it below.
    const float big = 0x1p60f, half = 8193 * 0x1p41f;
    const auto shift = [](std::vector<float> values, float scale) { return Search({values}, {scale}, false)[0]; };
    EXPECT_EQ(1, shift({}, 1));
    EXPECT_EQ(9, shift({1e7f}, 1));                // 10^7 / 512 = 19531.25 is the first below 32768
    EXPECT_EQ(1, shift({-65536}, 1));              // no error
    EXPECT_EQ(1, shift({-65538}, 1));              // errors 4 and 4: the smallest of equal ones
    EXPECT_EQ(2, shift({-65539}, 1));              // 9 and 1
    EXPECT_EQ(2, shift({-65538.5f}, 1));           // -65539: half away from zero
    EXPECT_EQ(1, shift({-98307.7421875f}, 1.5f));  // -65538.4922; a product with 1 / 1.5 is -65538.5
    EXPECT_EQ(16, shift({0x1p40f}, 1));            // too large for all
    EXPECT_EQ(16, shift({big, half}, 1));          // an error is added before it is rounded
    EXPECT_EQ(1, shift({half, big}, 1));           // in the order of the row, to a float
    EXPECT_EQ(1, shift({65536, kNan}, 1));
    EXPECT_EQ(1, shift({65536}, 0));                                           // all errors infinite
    ExpectSameBits({2, 2}, Search({{65536, 1e9f}, {131072}}, {1, 2}, false));  // as long as the shortest
    EXPECT_EQ(2, Search({{0}, {131072}}, {1, 2}, true)[0]);                    // each row has its scale
    ExpectSameBits({1, -7}, Search({{1, 3}, {65536, 5}}, {1, 1}, true));       // 7 and 11
    const Rows many(37, std::vector<float>(5000, -65539));                     // worth several threads
    ExpectSameBits(std::vector<int>(37, 2), Search(many, std::vector<float>(37, 1), false));
    std::vector<int> shifts{9};
    EXPECT_EQ(STATUS_OK, KestCommon::SearchShiftBits({{-65539}, {}, {65536}, {INT_MIN}, {INT_MAX}}, shifts));
    ExpectSameBits({9, 1, 1, 2, 16, 16}, shifts);  // -65539 truncated: 9 and 9
}

TEST(SearchN, ValuesFindTheirChannel) {
    const auto channelOf = [](int i, std::vector<int> shape, const char* format) {
        KestTfOp::Param param{shape, true, format};
        KestTfOp::SearchnQuantParam<float> quant{};
        std::vector<float> batch(200);
        batch[i] = 1;
        KestTfOp::SearchnInputParam<float> in{Rows(8), i + 1, batch.data()};
        int counter = 0, batchNum = 2, channel = 7;
        kSearchN(param, counter, batchNum, in, quant);
        while (channel >= 0 && (in.channelData[channel].empty() || in.channelData[channel].back() == 0)) --channel;
        return channel;
    };
    EXPECT_EQ(1, channelOf(25, {2, 3, 4, 5}, "NCHW"));
    EXPECT_EQ(0, channelOf(130, {2, 3, 2, 4, 5}, "NCDHW"));
    EXPECT_EQ(1, channelOf(25, {2, 4, 5, 3}, "NHWC"));
    EXPECT_EQ(2, channelOf(7, {1, 2, 2, 2, 5}, "NDHWC"));
    EXPECT_EQ(1, channelOf(7, {2, 3, 4}, "NHWC"));             // mod shape[1] below rank 4
    EXPECT_EQ(0, channelOf(5, {1, 3, 65536, 65536}, "NCHW"));  // an area of 2^32
    EXPECT_EQ(-1, channelOf(1, {2, 3, 0, 5}, "NCHW"));
    EXPECT_EQ(-1, channelOf(1, {3}, "NHWC"));
    EXPECT_EQ(-1, channelOf(1, {2, 3, 4, 5}, "nchw"));
    EXPECT_EQ(-1, channelOf(9, {1, 1, 1, 12}, "NHWC"));  // of eight rows
}

template <typename T>
void AccumulateRows(T sum, T rounded) {
    using Table = std::vector<std::vector<T>>;
    const auto add = [](Table data, Table table, bool perTensor) {
        float scale[2] = {1, 3};
        EXPECT_EQ(data.empty() ? EMPTY_CONTAINER_ERROR : STATUS_OK,
                  KestCommon::SearchNV2AccumulateError(data, table, {2, scale}, perTensor));
        return table;
    };
    EXPECT_EQ(sum, add({{1, 4097}}, Table(1, std::vector<T>(16)), false)[0][12]);
    EXPECT_EQ((Table{{rounded}}), add({{static_cast<T>(-65538.4999999)}}, {{0}}, false));
    const T large = 0x1p24f;  // large + 1 is no float: the errors 1 and 1 are summed before they are added
    EXPECT_EQ((Table{{large + 2}, {2}, {4}}), add({{3, 5, 7e9f}, {9, 15}}, {{large}, {0}, {4}}, false));
    EXPECT_EQ((Table{{large + 2, 10}, {0}}), add({{3}, {15}}, {{large, 0}, {0}}, true));
    EXPECT_EQ((Table{{5}}), add({}, {{5}}, false));
}

TEST(SearchNV2, ErrorsAndTheirBest) {
    AccumulateRows<float>(16785408, 9);   // 4097^2 loses its last bit, 1 more another; -65538.5 becomes -65539
    AccumulateRows<double>(16785410, 4);  // -65538
    Rows table{{3, 2, 2}, {kNan, 1}, {5, kNan, 3}, {}};
    std::vector<int> shifts(5, -7);
    util::IntData out{5, shifts.data()};
    EXPECT_EQ(STATUS_OK, KestCommon::SearchNV2FindBestNCpu(table, out, false));
    ExpectSameBits({2, 1, 3, 1, 1}, shifts);
    out.length = 4;
    EXPECT_EQ(STATUS_OK, KestCommon::SearchNV2FindBestNCpu(table, out, true));
    ExpectSameBits({2, 2, 2, 2, 1}, shifts);
}

TEST(SearchN, BothFunctorsSearchOnTheLastBatch) {
    constexpr int kChannels = 300;
    std::vector<float> scale(kChannels, 1.0f), asFloat(kChannels), asFloatV2(kChannels), batch(kChannels);
    std::vector<int> shifts(kChannels), shiftsV2(kChannels);
    KestTfOp::Param param{{1, kChannels, 1, 1}, true, "NCHW"};
    KestTfOp::DataParam paramV2{{1, 1, 1, kChannels}, true, "NHWC", asFloatV2.data()};
    KestTfOp::SearchnInputParam<float> in{Rows(kChannels), kChannels, batch.data()};
    KestCommon::SearchnV2InputParam<float> inV2{Rows(kChannels + 1, std::vector<float>(20)), kChannels, batch.data()};
    KestTfOp::SearchnQuantParam<float> q{false, shifts.data(), nullptr, nullptr, nullptr, scale.data(), asFloat.data()};
    KestTfOp::SearchnV2QuantParam<float> qV2{false, shiftsV2.data(), scale.data(), kChannels};
    int counter = 0, counterV2 = 0, batchNum = 0;
    EXPECT_EQ(STATUS_OK, kSearchNV2(paramV2, counterV2, batchNum, inV2, qV2));
    EXPECT_EQ(Rows(kChannels, std::vector<float>(16)), inV2.errorTable);  // sized, nothing added
    inV2.errorTable[0][15] = 1;                                           // stays
    counterV2 = 0;
    batchNum = 2;
    for (int call = 1; call <= 3; ++call) {
        // All but one error of a channel is 0, so that their roundings cannot differ.
        for (int c = 1; c < kChannels && call > 1; ++c) batch[c] = std::ldexp(1 + 0.01f * c, c / 8);
        batch[0] = static_cast<float>(2 * call + 1);
        EXPECT_EQ(STATUS_OK, kSearchN(param, counter, batchNum, in, q));
        EXPECT_EQ(STATUS_OK, kSearchNV2(paramV2, counterV2, batchNum, inV2, qV2));
        for (int n = 1; n <= 16; ++n) EXPECT_EQ(call > 1, std::count(shifts.begin(), shifts.end(), n) > 0) << n;
        ExpectSameBits(shifts, shiftsV2);
        ExpectSameBits(std::vector<float>(shifts.begin(), shifts.end()), asFloat);
        ExpectSameBits(asFloat, asFloatV2);
    }
    ExpectSameBits({3.0f, 5.0f}, in.channelData[0]);  // the third call only counts
    const std::vector<float>& errors = inV2.errorTable[0];
    ExpectSameBits({2, 10, 35}, std::vector<float>{errors[0], errors[1], errors[15]});  // 1 + 1, 9 + 1, 1 + 9 + 25
    counterV2 = 1;
    qV2.perTensor = true;
    EXPECT_EQ(STATUS_OK, kSearchNV2(paramV2, counterV2, batchNum, inV2, qV2));
    EXPECT_EQ(kChannels, std::count(shiftsV2.begin(), shiftsV2.end(), 16));  // too large for all
    qV2.channelNum = counterV2 = 0;
    EXPECT_EQ(EMPTY_CONTAINER_ERROR, kSearchNV2(paramV2, counterV2, batchNum, inV2, qV2));
}

}  // namespace
