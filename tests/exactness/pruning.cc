#include <kest/prune_balance/channel_prune.h>
#include <kest/prune_balance/dmq_balance.h>
#include <kest/prune_balance/mask_out.h>
#include <kest/prune_balance/selective_mask.h>

#include <algorithm>

#include "case.h"

namespace exactness {
namespace {

/// Up to four groups of the c.k channels.
KestCommon::PruneParam Groups(Case& c) {
    KestCommon::PruneParam param{c.k, {}, 1 + c.Below(std::min(c.k, 4)), {}, {}};
    for (int group = 0, rest = c.k; group < param.numGroups; ++group) {
        const int last = group + 1 == param.numGroups;
        param.groupChannels.push_back(last ? rest : c.k / param.numGroups);
        rest -= static_cast<int>(param.groupChannels.back());
        param.groupPruneNum.push_back(c.Below(static_cast<int>(param.groupChannels.back()) + 1));
    }
    return param;
}
/// The group of each channel.
std::vector<int> GroupOfChannel(const KestCommon::PruneParam& param) {
    std::vector<int> groups;
    for (int group = 0; group < param.numGroups; ++group)
        groups.insert(groups.end(), param.groupChannels[group], group);
    return groups;
}
int InnerJump(Case& c) {
    return c.Odd(1 + c.Below(c.OneIn(4) ? 200 : 9));
}
template <typename T>
std::vector<T> SumNorm(Case& c) {
    const KestCommon::PruneParam param = Groups(c);
    std::vector<T> scores = c.Vector<T>(c.k);
    const T* const data = c.Values<T>(c.Large(1 << 16));
    Call{c,      KestCommon::ComputeSumNorm<T>, InnerJump(c), param, c.n, data, std::vector<T>(c.k),
         scores, GroupOfChannel(param)};
    return scores;
}
template <typename T>
std::vector<int> Sorted(Case& c) {
    KestCommon::PruneParam param = Groups(c);
    std::vector<int> groups = GroupOfChannel(param);
    std::vector<T> scores = c.Vector<T>(c.k);
    return KestCommon::SortNorms<T>(c.Below(param.numGroups), param, groups, scores);
}
/// One mask a group, and one of all.
template <typename T, typename Draw>
std::vector<T*> Masks(Case& c, const KestCommon::PruneParam& param, Draw draw) {
    std::vector<T*> masks;
    for (const unsigned int size : param.groupChannels) masks.push_back(draw(static_cast<int>(size)));
    if (param.numGroups > 1) masks.push_back(draw(c.k));
    return c.OneIn(64) ? std::vector<T*>() : masks;
}
template <typename T>
int RemainOut(Case& c) {
    const KestCommon::PruneParam param = Groups(c);
    std::vector<const T*> tensors;
    std::vector<int> lengths;
    std::vector<int> innerJumps;
    for (int i = c.Below(4); i > 0; --i) {
        lengths.push_back(c.Large(1 << 16));
        tensors.push_back(c.Values<T>(c.n));
        innerJumps.push_back(InnerJump(c));
    }
    const auto masks = Masks<T>(c, param, [&](int n) { return c.Out<T>(n); });
    return KestCommon::ComputeRemainOut<Device, T>()(tensors, lengths, innerJumps, param, masks);
}
template <typename T>
int Identity(Case& c) {
    KestCommon::PruneParam param = Groups(c);
    auto masks = Masks<T>(c, param, [&](int n) { return c.Values<T>(n); });
    auto out = Masks<T>(c, param, [&](int n) { return c.Out<T>(n); });
    return KestCommon::IdentityOutChannel<Device, T>()(param, masks, out);
}
CASE(CalPruneNum, KestCommon::CalPruneNum, c.k, 1 + c.Below(9), static_cast<float>(c.Odd(c.Below(33))) / 32, c.Flag());
CASES(ComputeSumNorm, SumNorm<T>, c);
CASES(SortNorms, Sorted<T>, c);
CASES(ComputeRemainOut, RemainOut<T>, c);
CASES(IdentityOutChannel, Identity<T>, c);

util::FloatData Tensor(Case& c) {
    c.Large(0);
    float* const data = c.Data<float>();
    return {static_cast<unsigned int>(c.n), data};
}
float Strength(Case& c) {
    return static_cast<float>(c.OneIn(16) ? c.Below(100) : 20 + c.Below(61)) / 100;
}
CASE(DMQBalance, KestCommon::DMQBalance, Tensor(c), Tensor(c), Strength(c), c.Odd(c.k), c.Out<float>(c.k + 5));
CASE(CheckDMQBParam, KestCommon::CheckDMQBParam, Tensor(c), Tensor(c), Strength(c), c.Odd(c.k), c.Data<float>());
CASE(ProcessZeroChannel, KestCommon::ProcessZeroChannel, c.Vector<float>(c.k), c.Vector<float>(c.k),
     c.Values<float>(c.k));
int Balancer(Case& c) {
    const util::FloatData act = Tensor(c);
    const util::FloatData wts = Tensor(c);
    DMQBalancerKernel::DMQBalancerParam param{Strength(c), static_cast<unsigned int>(c.k), act.length, wts.length,
                                              c.Out<float>(c.k)};
    return DMQBalancerKernel::DMQBalancer<Device, float>()(act.data, wts.data, param, c.Out<float>(c.k));
}
CASE(DMQBalancer, Balancer, c);

template <typename T>
KestTfOp::MaskGenParam<T> Saved(Case& c, int numRows, int numColumns) {
    const int n = numRows * numColumns;
    T* const out = c.Out<T>(n);
    return {numRows, c.Odd(numColumns) > numColumns ? 0 : numColumns, n, out, c.Values<T>(n)};
}
template <typename T>
int Generated(Case& c) {
    const int numRows = c.OneIn(128) ? (1 << 17) / c.k + 2 : 1 + c.Below(40);
    const KestTfOp::MaskGenParam<T> param = Saved<T>(c, numRows, c.k);
    const T* const rowMask = c.Values<T>(numRows);
    return KestTfOp::GenerateMask<Device, T>()(rowMask, c.Values<T>(c.k), param);
}
template <typename T>
int Masked(Case& c) {
    const auto stride = [&c] { return c.Odd(c.Pick({1, 1, c.k, c.k, 1 + c.Below(70), 1 + c.Below(4000)})); };
    const int numRows = 1 + c.Below(c.OneIn(8) ? 400 : 20);
    const T* const data = c.Values<T>(c.Large(1 << 17));
    T* const out = c.InPlaceOrOut<T>();
    const T* const mask = c.Values<T>(numRows * c.k);
    const int rowStride = stride();
    const KestTfOp::MaskParam param{c.n, rowStride, stride(), numRows, c.k};
    return KestTfOp::MaskOut<Device, T>()(param, mask, data, out);
}
CASES(GenerateMask, Generated<T>, c);
OPS(IdentityMask, Saved<T>(c, c.OneIn(128) ? (1 << 17) / c.k + 2 : 9, c.k));
CASES(MaskOut, Masked<T>, c);

template <typename T>
int Selective(Case& c) {
    const auto numChannels = static_cast<unsigned int>(c.k);
    const auto inner = static_cast<unsigned int>(c.Odd(c.Large(1 << 15) / c.k / 2 + 1));
    const auto outer = 1 + static_cast<unsigned int>(c.Below(3));
    const auto groupSize = static_cast<unsigned int>(c.OneIn(16) ? c.Below(100) : 1 << c.Below(4));
    SelectiveMaskGenKernel::SelectivePruneParam param{
        c.Odd(1) % 4u, groupSize, static_cast<unsigned int>(c.Below(9)), {outer, numChannels, inner}};
    const auto n = static_cast<int>(outer * numChannels * inner);
    const int axis = std::min<int>(param.axis, 2);
    const T* const data = c.Values<T>(n);
    const T* const select = c.Values<T>(static_cast<int>(param.shape[axis]));
    T* const gathered = c.Out<T>(n + n * 100 / std::max<int>(param.shape[axis], 1));
    return SelectiveMaskGenKernel::ComputeMask<Device, T>()(data, select, gathered, param, c.Out<T>(n));
}
CASE(ComputeProduct, SelectiveMaskGenKernel::ComputeProduct, std::vector<unsigned int>(4, c.Int()), c.Below(4),
     c.Below(5));
CASES(GetNOutOfM, SelectiveMaskGenKernel::GetNOutOfM<T>, c.Below(c.k + 1), std::vector<unsigned int>(c.k, c.Below(7)),
      c.Values<T>(7));
CASES(ComputeMask, Selective<T>, c);
CASES(SelectiveIdentityMask, SelectiveMaskGenKernel::IdentityMask<Device, T>(), c.n, c.Values<T>(c.n), c.Out<T>(c.n));

}  // namespace
}  // namespace exactness
