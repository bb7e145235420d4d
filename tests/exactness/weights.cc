#include <kest/weight_quant/arq.h>
#include <kest/weight_quant/nuq.h>
#include <kest/weight_quant/search_n.h>
#include <kest/weight_quant/search_n_v2.h>
#include <kest/weight_quant/ulq.h>

#include "case.h"

namespace exactness {
namespace {

KestCommon::ArqParam Arq(Case& c, int low = 0) {
    return {static_cast<unsigned int>(c.Bits(low)), !c.OneIn(32), c.Flag()};
}
KestTfOp::WeightQuantParam ArqFactors(Case& c) {
    return {c.Scales(c.k).data, c.Offsets(c.k).data, c.Scales(c.k).data, c.Offsets(c.k).data, c.k, c.Bits(2)};
}
#define WEIGHTS c.Data<T>(), c.n
#define FACTORS c.Scales(c.Odd(c.k)), c.Offsets(c.Odd(c.k))
CASES(
    CheckArqQuantParams, [](auto... a) { return KestCommon::CheckArqQuantParams(a...); }, WEIGHTS, Arq(c), FACTORS);
COMMON(ArqQuant, WEIGHTS, Arq(c), FACTORS);
CASE(ArqQuantFloatPython, ArqQuantFloatPython, WEIGHTS, Arq(c), FACTORS);
CASE_OF(double, ArqQuantDoublePython, ArqQuantDoublePython, WEIGHTS, Arq(c), FACTORS);
COMMON(WtsArqCalibrationCpuKernel, c.Values<T>(c.n), c.n, Arq(c, 2), c.Scales(c.k), c.Offsets(c.k),
       c.Pick({util::CO_CI_KH_KW, util::KH_KW_CI_CO}));
COMMON(ArqQuantReal, WEIGHTS, Arq(c), FACTORS, c.Out<char>(c.n));
COMMON(ArqQuantRealKernel, WEIGHTS, Arq(c), FACTORS, c.Out<char>(c.n));
CASE_OF(double, QuantRealDoublePython, QuantRealDoublePython, WEIGHTS, FACTORS, c.Bits(), c.Out<char>(c.n));
COMMON(ArqClipAndQuantKhKwCiCo, c.Values<T>(c.n), c.InPlaceOrOut<T>(), c.n, c.Bits(2), c.Scales(c.k), c.Offsets(c.k));
OP(ArqQuantFunctor, KestCommon::Input<T>{c.Values<T>(c.n), c.n, c.k},
   KestCommon::Output<T>{c.Out<T>(c.n), c.Out<T>(c.k), c.Out<int>(c.k)}, c.Bits(2));
OP(FindMaxMin, c.n, c.Values<T>(c.n), ArqFactors(c));
OP(IdentityScaleOffset, ArqFactors(c));

KestCommon::NuqParam Nuq(Case& c) {
    return {static_cast<unsigned int>(c.OneIn(16) ? c.Below(40) : 1 + c.Below(8)), c.Flag(), c.Below(4) - 1};
}
KestTfOp::WeightNuqQuantParam NuqFactors(Case& c) {
    const int numClusters = c.OneIn(16) ? c.Below(40) : 1 + c.Below(8);
    return {c.Scales(c.k).data,
            c.Offsets(c.k).data,
            nullptr,
            c.Scales(c.k).data,
            c.Offsets(c.k).data,
            c.Offsets(numClusters).data,
            c.OneIn(32) ? 0 : c.k,
            c.Bits(1),
            numClusters,
            c.Below(4) - 1,
            c.Flag()};
}
COMMON(NuqKernel, WEIGHTS, Nuq(c), FACTORS);
CASE(NuqQuant, KestCommon::NuqQuant, WEIGHTS, Nuq(c), FACTORS);
CASE_OF(double, NuqQuantPython, NuqQuantPython, WEIGHTS, Nuq(c), FACTORS);
CASE_OF(double, NuqReal, KestCommon::NuqReal, WEIGHTS, FACTORS, c.Out<char>(c.n));
CASE_OF(double, NuqQuantRealPython, NuqQuantRealPython, WEIGHTS, FACTORS, c.Out<char>(c.n));
COMMON(NuqCalibrationCpuKernel, c.Data<T>(), c.Vector<T>(c.Odd(c.n)), std::vector<T>(c.Odd(40)), c.n, Nuq(c), FACTORS);
COMMON(Kmeans, c.Vector<T>(c.n % 300, true), c.Below(12), std::vector<double>(c.n % 300, c.Scale()),
       std::vector<T>(12));
COMMON(KmeansInit, c.Vector<T>(c.n % 300, true), std::vector<T>(c.Below(16)));
COMMON(Median, c.Vector<T>(c.n, true));
CASE(Weight, KestCommon::Weight, c.n, c.Scales(c.Odd(c.k)), c.Below(40));
OP(NuqFunctor, WEIGHTS, NuqFactors(c), KestCommon::ThrustParam<T>());
OP(FakeQuantWithNuq, NuqFactors(c), c.Values<T>(c.n), c.InPlaceOrOut<T>(), c.n);
OP(IdentityWeightNuq, c.Values<T>(c.n), c.Out<T>(c.n), c.n);
OP(IdentityScaleOffsetNuq, NuqFactors(c));

/// Rows of one length, or some of them shorter.
template <typename T>
std::vector<std::vector<T>> Rows(Case& c) {
    std::vector<std::vector<T>> rows(c.OneIn(32) ? 0 : c.k % 100 + 1);
    const int length = c.Large(1 << 13) / static_cast<int>(rows.size() + 1) + 1;
    const auto size = static_cast<T>(std::is_same_v<T, int> ? 1 : c.Pick({1, 1 << 10, 1 << 20}));
    for (std::vector<T>& row : rows) {
        row = c.Vector<T>(c.OneIn(64) ? c.Below(length) : length);
        for (T& value : row) value *= size;
    }
    return rows;
}
KestTfOp::SearchnQuantParam<float> Shifts(Case& c, int k) {
    return {c.OneIn(4), c.Out<int>(k), nullptr, nullptr, nullptr, c.Scales(k).data, c.Out<float>(k)};
}
template <typename T>
std::vector<std::vector<T>> Errors(Case& c) {
    const int length = c.Odd(16);
    std::vector<std::vector<T>> table(c.Odd(c.k % 100 + 1));
    for (std::vector<T>& row : table) row = c.Vector<T>(length);
    return table;
}
#define SHIFT c.OneIn(4) ? 1 + c.Below(65536) : 1 << c.Below(17)
CASE(ShiftError, KestCommon::EvaluateShiftNErrorCpu<T>, c.Large(1 << 16), c.Values<T>(c.n), c.Out<double>(c.n), SHIFT);
CASE_OF(int, ShiftError, KestCommon::EvaluateShiftNErrorCpu<T>, c.Large(1 << 16), c.Values<T>(c.n), c.Out<double>(c.n),
        SHIFT);
CASE(SearchShiftBits, KestCommon::SearchShiftBits, Rows<int>(c), std::vector<int>(c.Below(3)));
CASE(SearchShiftBitsInternal, KestCommon::SearchShiftBitsInternal, Rows<int>(c), std::vector<int>());
CASE(
    GetShiftFactor, [](Case& c) { c.Result(KestCommon::GetShiftFactor()); }, c);
CASE(SearchN, KestTfOp::SearchNInternelCpu<T>, Rows<T>(c), c.Out<int>(c.k % 100 + 1), Shifts(c, c.k % 100 + 1));
COMMON(SearchNV2AccumulateError, Rows<T>(c), Errors<T>(c), c.Scales(c.k % 100 + 1), c.OneIn(4));
COMMON(SearchNV2FindBestNCpu, Errors<T>(c), c.Offsets(c.Below(20)), c.OneIn(4));

/// A tensor whose channels are found by one of the layouts.
struct Layout {
    std::vector<int> shape;
    bool channelWise;
    const char* format;
    int length = 1;
    int k;

    explicit Layout(Case& c) {
        for (int i = c.OneIn(8) ? c.Below(4) : 4 + c.Below(2); i > 0; --i) shape.push_back(1 + c.Below(7));
        for (const int size : shape) length *= size;
        channelWise = !c.OneIn(8);
        format = c.Pick({"NCHW", "NHWC", "NCDHW", "NDHWC", "NCHW", "NHWC", "CHWN"});
        const bool last = format[1] != 'C' && shape.size() >= 4;
        k = c.OneIn(16) ? 1 + c.Below(9) : shape.size() < 2 || !channelWise ? 1 : last ? shape.back() : shape[1];
    }
};
template <typename Functor, typename Param, typename Input, typename Quant>
void SearchBatches(Case& c, const Layout& layout, Functor functor, Param param, Input& input, Quant quant) {
    int numBatches = 1 + c.Below(3);
    for (int batch = 0, i = 0; i < 3; ++i) {
        input.data = c.Values<float>(layout.length);
        Call{c, functor, param, batch, numBatches, input, quant};
    }
}
std::vector<std::vector<float>> SearchN(Case& c) {
    const Layout layout(c);
    KestTfOp::SearchnInputParam<float> input{std::vector<std::vector<float>>(layout.k), layout.length, nullptr};
    SearchBatches(c, layout, KestTfOp::SearchNFunctor<Device, float>(),
                  KestTfOp::Param{layout.shape, layout.channelWise, layout.format}, input, Shifts(c, layout.k));
    return input.channelData;
}
CASE(OpSearchNFunctor, SearchN, c);
std::vector<std::vector<float>> SearchNV2(Case& c) {
    const Layout layout(c);
    KestCommon::SearchnV2InputParam<float> input{{}, layout.length, nullptr};
    const KestTfOp::SearchnV2QuantParam<float> quant{c.OneIn(4), c.Out<int>(layout.k), c.Scales(layout.k).data,
                                                     c.OneIn(32)          ? 0
                                                     : layout.channelWise ? layout.k
                                                                          : 1};
    const KestTfOp::DataParam param{layout.shape, layout.channelWise, layout.format, c.Out<float>(layout.k)};
    SearchBatches(c, layout, KestTfOp::SearchNV2Functor<Device, float>(), param, input, quant);
    return input.errorTable;
}
CASE(OpSearchNV2Functor, SearchNV2, c);

template <typename T>
std::vector<T> Bounds(Case& c) {
    return c.OneIn(8) ? c.Vector<T>(c.Below(6))
                      : std::vector<T>{T(c.Scale()), T(-c.Scale()), T(c.Scale()), T(-c.Scale())};
}
KestTfOp::Input<float> Clipped(Case& c) {
    float* const clip = c.Flag() ? c.Values<float>(2) : c.Scales(2).data;
    if (c.Flag()) clip[1] = -clip[1];
    return {c.Values<float>(c.Large(1 << 17)), c.n, &clip[0], &clip[1]};
}
KestCommon::WeightUlqParam Steps(Case& c) {
    return {c.Scales(c.k).data, c.OneIn(32) ? 0 : c.k, c.Bits(), c.Flag()};
}
KestCommon::Input<float> StepWeights(Case& c) {
    return {c.Values<float>(c.n), c.n, c.OneIn(32) ? 0 : c.k};
}
#define STEP_WEIGHTS StepWeights(c), c.InPlaceOrOut<T>(), c.Scales(c.k).data, c.Bits(), c.Flag()
#define EXTREMES c.n, c.Values<T>(c.n), c.Out<T>(c.k), c.Out<T>(c.k), Steps(c)
COMMON(Ulq, c.Values<T>(c.Large(1 << 17)), c.InPlaceOrOut<T>(), c.n, c.Scales(1), c.Offsets(1), c.Bits());
COMMON(UlqDiff, c.Values<T>(c.n), c.Values<T>(c.n), c.n, Bounds<T>(c));
COMMON(TransposeAB, c.Values<T>(c.n), c.n, std::vector<int>{c.n % c.k == 0 ? c.n / c.k : 2, c.Odd(c.k)});
OP(UlqFunctor, Clipped(c), KestTfOp::Output<T>{c.Out<T>(c.n), c.Out<T>(1), c.Out<int>(1), c.Out<T>(1), c.Out<T>(1)},
   c.Bits());
OP(ClipCalculate, c.Scales(1).data, c.Offsets(1).data, c.Out<T>(1), c.Out<T>(1), c.Bits());
COMMON(ClipCheck, c.Real<T>(), c.Real<T>(), c.Real<T>(), c.Real<T>());
OP(ClipCheckFunctor, c.Values<T>(1), c.Values<T>(1), c.Real(), c.Real(), c.Flag());
OP(ClipRecord, c.Values<T>(1), c.Values<T>(1), c.Real(), c.Real());
OPS(GetBatchNum, c.Real<T>(), 7);
OPS(UpdateBatchNum, c.Real<T>());
CASE(ScaleArqInit, KestCommon::ScaleArqInit<T>, EXTREMES);
OP(ScaleArqInit, EXTREMES);
CASE(WtsFakeQuant, KestCommon::WtsFakeQuant<T>, STEP_WEIGHTS);
OP(WtsFakeQuantFunctor, STEP_WEIGHTS);

}  // namespace
}  // namespace exactness
