#include <kest/activation_calib/hfmg.h>
#include <kest/activation_calib/ifmr.h>

#include "case.h"

namespace exactness {
namespace {

template <typename T>
KestCommon::InputData<T> Batch(Case& c) {
    T* const data = c.Data<T>();
    return {static_cast<unsigned int>(c.n), data};
}
template <typename T>
std::vector<KestCommon::DataBin<T>> Bins(Case& c) {
    std::vector<KestCommon::DataBin<T>> bins(c.OneIn(16) ? 0 : 1 + c.Below(c.OneIn(16) ? 600 : 80));
    const T width = static_cast<T>(c.Scale());
    const T lowest = static_cast<T>(c.Below(100) - 90) * width;
    const int shift = c.Below(20);
    for (std::size_t i = 0; i < bins.size(); ++i) {
        const auto count = static_cast<unsigned int>(c.OneIn(3) ? 0 : c.Below(1 << shift));
        bins[i] = {count, lowest + static_cast<T>(i) * width, lowest + static_cast<T>(i + 1) * width};
    }
    return bins;
}
KestCommon::HfmgAlgoParam Hfmg(Case& c) {
    return {static_cast<unsigned int>(c.Bits()), c.Flag(), 0};
}
template <typename T>
float HfmgLoss(Case& c) {
    auto bins = Bins<T>(c);
    const int first = c.Below(static_cast<int>(bins.size()) + 1);
    const int last = first + c.Below(static_cast<int>(bins.size()) - first + 1);
    float loss = c.Scale();
    const int levels = c.Odd(1 << c.Below(12));
    Call{c, KestCommon::HfmgCalculateLoss<T>, bins, levels, std::max(first - 1, 0), std::max(last - 1, 0), loss};
    return loss;
}
COMMON(HfmgDistribute, c.Odd(c.Below(3000)), Bins<T>(c), Batch<T>(c));
COMMON(HfmgDistributeInter, c.Below(300), c.Real<T>(), T(c.Scale()), Bins<T>(c),
       KestCommon::InputData<T>{static_cast<unsigned int>(c.n), c.Values<T>(c.n)});
COMMON(HfmgMerge, c.Below(200), Bins<T>(c), Batch<T>(c));
COMMON(HfmgMergeInter, Bins<T>(c), Bins<T>(c), c.OneIn(4), T(-c.Scale()), T(c.Scale()));
COMMON(HfmgGetSearchRange, Bins<T>(c), std::vector<std::pair<unsigned int, unsigned int>>(c.Below(3)));
CASES(HfmgCalculateLoss, HfmgLoss<T>, c);
COMMON(HfmgCompute, Bins<T>(c), 7.0f, 7, Hfmg(c));
COMMON(CalScaleOffset, c.Real<T>(), c.Real<T>(), 7.0f, 7, Hfmg(c));
COMMON(ActArqCalibration, c.Real<T>(), c.Real<T>(), c.Scales(1), c.Offsets(1), Hfmg(c));
OP(ActArqFunctor, Batch<T>(c), KestTfOp::HfmgParam{static_cast<unsigned int>(c.Bits()), c.Flag(), 0},
   KestTfOp::HfmgDataQuantParam<float>{c.Out<float>(1), c.Out<int>(1), c.Out<float>(1), c.Out<int>(1)});
std::vector<KestCommon::DataBin<float>> HfmgBatches(Case& c) {
    std::vector<KestCommon::DataBin<float>> bins;
    KestTfOp::HfmgParam param{static_cast<unsigned int>(c.Bits()), c.Flag(), static_cast<unsigned int>(c.Below(200))};
    KestTfOp::HfmgDataQuantParam<float> quant{c.Out<float>(1), c.Out<int>(1), c.Out<float>(1), c.Out<int>(1)};
    int numBatches = 1 + c.Below(3);
    for (int batch = 0, i = 0; i < 3; ++i)
        Call{c, KestTfOp::QuantHfmgFunctor<Device, float>(), bins, param, batch, numBatches, Batch<float>(c), quant};
    return bins;
}
CASE(QuantHfmgFunctor, HfmgBatches, c);

template <typename Param>
Param Ifmr(Case& c) {
    const float start = static_cast<float>(c.Below(100)) / 64;
    const float end = start + static_cast<float>(c.Below(c.OneIn(8) ? 300 : 70)) / 100;
    const float step = c.OneIn(32) ? c.Pick({0.0f, -1.0f, NAN, INFINITY}) : c.Pick({0.01f, 0.01f, 0.02f, 0.07f, 1.0f});
    const auto percentile = [&c] { return c.OneIn(32) ? c.Real() : c.Pick({1.0f, 0.999999f, 0.999f, 0.9f, 0.5f}); };
    const auto calibration = static_cast<unsigned int>(c.OneIn(4)) + c.OneIn(64);
    const auto numBits = static_cast<unsigned int>(c.Bits());
    return {calibration, numBits, c.Flag(), start, end, step, percentile(), percentile()};
}
CASES(
    IfmrQuant, [](auto... args) { return KestCommon::IfmrQuant(args...); }, c.Data<T>(), c.n,
    Ifmr<KestCommon::IfmrParam>(c), c.Scales(c.Odd(1)), c.Offsets(c.Odd(1)));
COMMON(FindMaxAndMinValueWithPercentile, c.Data<T>(), c.n, KestCommon::MaxMinValue<T>{7, 7},
       Ifmr<KestCommon::IfmrParam>(c).maxPercentile, Ifmr<KestCommon::IfmrParam>(c).minPercentile);
std::vector<float> IfmrBatches(Case& c) {
    KestTfOp::InputParam<float> input{};
    const auto param = Ifmr<kest_tf::IfmrParam>(c);
    const KestTfOp::DataQuantParam<float> quant{c.Scales(1).data, c.Offsets(1).data, c.Scales(1).data,
                                                c.Offsets(1).data};
    int numBatches = 1 + c.Below(3);
    for (int batch = 0, i = 0; i < 3; ++i) {
        input.input = c.Values<float>(c.n);
        input.length = c.n;
        Call{c, KestTfOp::QuantIfmrFunctor<Device, float>(), param, batch, numBatches, input, quant};
    }
    return input.accumulated;
}
CASE(QuantIfmrFunctor, IfmrBatches, c);

}  // namespace
}  // namespace exactness
