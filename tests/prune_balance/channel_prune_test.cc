#include <kest/prune_balance/channel_prune.h>

#include <tests/test_util.h>

#include <numeric>

namespace {

using Device = util::ThreadPoolDevice;
using KestCommon::PruneParam;
using Floats = std::vector<float>;

PruneParam Param(std::vector<unsigned int> groupChannels, std::vector<unsigned int> groupPruneNum = {}) {
    const int numChannels = std::accumulate(groupChannels.begin(), groupChannels.end(), 0);
    return {numChannels, {}, static_cast<int>(groupChannels.size()), groupChannels, groupPruneNum};
}

std::vector<int> GroupOfChannel(const PruneParam& param) {
    std::vector<int> groups;
    for (int g = 0; g < param.numGroups; ++g) groups.insert(groups.end(), param.groupChannels[g], g);
    return groups;
}

TEST(ChannelPrune, CalPruneNum) {
    const auto prune = KestCommon::CalPruneNum;
    EXPECT_EQ(32, prune(64, 1, 0.5f, false));
    EXPECT_EQ(3, prune(10, 1, 0.25f, false));   // 2.5 goes away from zero
    EXPECT_EQ(11, prune(15, 1, 0.7f, false));   // 10.4999998 is 10.5 in single precision
    EXPECT_EQ(0, prune(8, 1, 0.9f, true));      // 1 -> 16 -> 8
    EXPECT_EQ(24, prune(40, 1, 1, true));       // 0 -> 16
    EXPECT_EQ(16, prune(48, 4, 0.3f, false));   // 34 -> 32
    EXPECT_EQ(37, prune(100, 3, 0.5f, true));   // 50 -> 64 -> 63: groups come last
    EXPECT_EQ(6, prune(10, 4, 0.9f, false));    // 1 -> 0 -> one for each group
    EXPECT_EQ(9, prune(10, 1, 1, false));       // never all
    EXPECT_EQ(-5, prune(10, 1, -0.5f, false));  // only the rounded-up count has a ceiling
}

/// The scores that one tensor adds to `acc`; its norms, put between 0 and 1, must be the same.
template <typename T>
std::vector<T> Scores(const PruneParam& param, int innerJump, const std::vector<T>& data, T acc = 0) {
    std::vector<T> norms(param.numChannels), scores(param.numChannels, acc);
    EXPECT_EQ(0, KestCommon::ComputeSumNorm<T>(innerJump, param, static_cast<int>(data.size()), data.data(), norms,
                                               scores, GroupOfChannel(param)));
    for (T& norm : norms) norm += acc;
    ExpectSameBits(scores, norms);
    return scores;
}

TEST(ChannelPrune, ScoresOfATensor) {
    ExpectSameBits({0.5, 0, 1}, Scores<float>(Param({3}), 1, {3, 0, 6, -4, 0, 8}));  // roots of 25, 0, 100
    // Each group by itself; equal norms add nothing.
    ExpectSameBits({7, 8, 7, 8, 7.5, 7, 7}, Scores<float>(Param({2, 0, 3, 2}), 1, {3, 5, 0, 2, 1, 2, -2}, 7));
    // Every partial sum is rounded to a float: 4096^2 swallows each 1 that comes after it, not those before.
    Floats ends(192, 1);
    ends.front() = ends.back() = 4096;
    for (const int jump : {1, 8, 96}) ExpectSameBits({0, 1}, Scores<float>(Param({2}), jump, ends));
    // NaN becomes both ends of the range, and the next channel takes its place: 2 to 4.
    Floats scores = Scores<float>(Param({8}), 1, {1, 16, kNan, 2, 4, 2, 2, 2});
    EXPECT_TRUE(std::isnan(scores[2]));
    scores[2] = 9;
    ExpectSameBits({-0.5, 7, 9, 0, 1, 0, 0, 0}, scores);
    for (const float score : Scores<float>(Param({3}), 1, {3, 4, kNan})) EXPECT_TRUE(std::isnan(score));
    scores = Scores<float>(Param({2, 1}), 1, {0, 2});  // no element a channel: 0 / 0, 2 / 0
    EXPECT_TRUE(scores[0] == 0 && scores[1] == 0 && std::isnan(scores[2]));
    // Floats are squared, added and their roots taken in double precision; a step of doubles is not fused.
    ExpectSameBits({0, 0x1.463682p-1f, 1}, Scores<float>(Param({3}), 1, {0, 0.5f, 1, 0, 0.4f, 0.1f}));
    ExpectSameBits({0, 0x1.c2fc316318c65p-1, 1}, Scores<double>(Param({3}), 1, {0, 0.9, 1, 0, 0.3, 0.4}));
}

TEST(ChannelPrune, SortsByScoreThenIndex) {
    PruneParam param = Param({2, 0, 6, 1});
    std::vector<int> groups = GroupOfChannel(param);
    std::vector<double> scores{9, -9, 0.5, 0.1, double{kNan}, 0.1, 0.0, -0.0, -9};
    ExpectSameBits({4, 5, 1, 3, 0, 2}, KestCommon::SortNorms<double>(2, param, groups, scores));
    groups = {0, 0, 0};
    scores = {double{kNan}, 2, 1};
    param = Param({3});
    ExpectSameBits({2, 1, 0}, KestCommon::SortNorms<double>(0, param, groups, scores));
}

using Remain = KestCommon::ComputeRemainOut<Device, float>;

/// {status, masks of the groups, all of them}; -77 where nothing is written.
Floats Masks(std::vector<Floats> tensors, std::vector<int> innerJumps, const PruneParam& param) {
    Floats result(1 + 2 * param.numChannels, -77);
    std::vector<const float*> inputs;
    std::vector<int> lengths;
    for (const Floats& tensor : tensors) {
        inputs.push_back(tensor.data());
        lengths.push_back(static_cast<int>(tensor.size()));
    }
    std::vector<float*> masks{result.data() + 1};
    for (const unsigned int n : param.groupChannels) masks.push_back(masks.back() + n);
    if (param.numGroups == 1) masks.pop_back();
    result[0] = static_cast<float>(Remain{}(inputs, lengths, innerJumps, param, masks));
    return result;
}

TEST(ChannelPrune, Masks) {
    ExpectSameBits({0, 0, 1, 0, 0, 0, 1, 0, 0}, Masks({{1, 2, 3, 4}}, {1}, Param({2, 2}, {1, 3})));
    ExpectSameBits({0, 0, 0, 1, 0, 1, 0, 0, 1, 0, 1}, Masks({{5, 5, 5, 2, 2}}, {1}, Param({3, 0, 2}, {2, 0, 1})));
    // Scores {0, 1/2, 1} and {1, 0, 1/2}: tensors weigh the same, and the second starts from zeros.
    const Floats first{1, 1, 2, 2, 3, 3}, second{0.1f, 0, 0.05f};
    ExpectSameBits({0, 1, 0, 1, -77, -77, -77}, Masks({first, second}, {2, 1}, Param({3}, {1})));
    Floats result;
    const std::string log =
        "[ERROR][ComputeSumNorm][] bcp algorithm: innerJump or pruneParam.numChannels is 0."
        "[ERROR][operator()][] bcp algorithm: ComputeRemainOut failed.";
    EXPECT_EQ(log, LogOf([&] { result = Masks({first, second}, {2, 0}, Param({3}, {1})); }));
    ExpectSameBits({EMPTY_INPUT_ERROR, -77, -77, -77, -77, -77, -77}, result);
    EXPECT_EQ(log, LogOf([&] { result = Masks({{}}, {1}, Param({0}, {0})); }));
    const std::string empty = "[ERROR][operator()][] out channel container is empty.";
    EXPECT_EQ(empty, LogOf([] { EXPECT_EQ(EMPTY_CONTAINER_ERROR, Remain{}({}, {}, {}, {}, {})); }));
    const KestCommon::IdentityOutChannel<Device, float> identity{};
    Floats made{1, 2, 3, 4, 5, 6}, mask(7, -77);
    PruneParam param = Param({1, 2});
    std::vector<float*> inputs{&made[0], &made[1], &made[3]}, outputs{&mask[0], &mask[1], &mask[3]}, none;
    EXPECT_EQ(0, identity(param, inputs, outputs));
    const PruneParam noGroups{3, {}, 0, {}, {}};
    EXPECT_EQ(0, Remain{}({made.data()}, {6}, {1}, noGroups, outputs));  // no score has a group to go to
    ExpectSameBits({1, 2, 3, 4, 5, 6, -77}, mask);
    EXPECT_EQ(empty, LogOf([&] { EXPECT_EQ(EMPTY_CONTAINER_ERROR, identity(param, none, outputs)); }));
}

}  // namespace
