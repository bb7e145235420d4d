// Every numeric entry with arbitrary lengths, parameters and values. Arrays end where the headers let them end, so that
// the sanitizer sees a byte too far. What a header leaves to its caller is kept; a comment tells where it is not plain.

#include <fuzzer/FuzzedDataProvider.h>
#include <kest/activation_calib/hfmg.h>
#include <kest/activation_calib/ifmr.h>
#include <kest/kernel_frame/log_sink.h>
#include <kest/kernel_frame/numeric_helpers.h>
#include <kest/kernel_frame/scale.h>
#include <kest/op_kernels/batch_norm_fusion.h>
#include <kest/op_kernels/deployed_ops.h>
#include <kest/op_kernels/fast_softmax.h>
#include <kest/op_kernels/tensor_dump.h>
#include <kest/prune_balance/channel_prune.h>
#include <kest/prune_balance/dmq_balance.h>
#include <kest/prune_balance/mask_out.h>
#include <kest/prune_balance/selective_mask.h>
#include <kest/record/record_update.h>
#include <kest/weight_quant/arq.h>
#include <kest/weight_quant/nuq.h>
#include <kest/weight_quant/search_n.h>
#include <kest/weight_quant/search_n_v2.h>
#include <kest/weight_quant/ulq.h>
#include <omp.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using namespace KestCommon;  // NOLINT: the subject of the whole file
using Device = util::ThreadPoolDevice;

/// Arguments made of the fuzzer's bytes; arrays live as long as it does.
class Source {
public:
    Source(const std::uint8_t* data, std::size_t size) : provider_(data, size) {}
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    ~Source() {
        for (void* array : arrays_) std::free(array);
    }

    int In(int low, int high) { return provider_.ConsumeIntegralInRange(low, high); }
    bool Bool() { return provider_.ConsumeBool(); }
    bool Rarely() { return In(0, 15) == 15; }
    /// A number of elements: mostly few, rarely enough for several blocks, seldom for several threads.
    int Length() { return In(0, Rarely() ? Rarely() ? 70000 : 4000 : Bool() ? 40 : 300); }
    /// Any integer, often one where something begins or ends.
    int Any() {
        if (In(0, 3) == 3) return provider_.ConsumeIntegral<int>();
        return provider_.PickValueInArray({8, 0, 1, 2, 3, 4, 16, 24, 31, 32, 33, 64, 1024, -1, -2, INT_MAX, INT_MIN});
    }
    unsigned int AnyUnsigned() { return static_cast<unsigned int>(Any()); }
    float Float() { return Value<float>(provider_.ConsumeIntegral<std::uint8_t>(), provider_.ConsumeIntegral<int>()); }

    /// n values that malloc places, at any alignment of T.
    template <typename T = float>
    T* Array(long n) {
        const auto shift = static_cast<std::size_t>(In(0, 3)),
                   count = static_cast<std::size_t>(std::max(n, 0L)) + shift;
        T* array = static_cast<T*>(std::malloc(count * sizeof(T)));
        arrays_.push_back(array);
        Fill(array, count);
        return array + shift;
    }
    template <typename T>
    T* ArrayOrNull(long n) {
        return Rarely() ? nullptr : Array<T>(n);
    }
    int* Ints(long n) { return Array<int>(n); }
    template <typename T>
    std::vector<T> Vector(int n) {
        std::vector<T> values(static_cast<std::size_t>(std::max(n, 0)));
        Fill(values.data(), values.size());
        return values;
    }
    template <typename T>
    std::vector<std::vector<T>> Rows(int n) {
        std::vector<std::vector<T>> rows;
        for (int i = 0; i < n; ++i) rows.push_back(Vector<T>(Length() % 200));
        return rows;
    }
    std::vector<int> Shape() {
        std::vector<int> shape = Vector<int>(In(0, 6));
        for (int& dimension : shape) dimension = Rarely() ? Any() : In(1, 6);
        return shape;
    }
    util::FloatData Scales(long n) { return {static_cast<unsigned int>(n), Array(n)}; }
    util::IntData Offsets(long n) { return {static_cast<unsigned int>(n), Ints(n)}; }

private:
    template <typename T>
    T Value(unsigned int kind, int bits) {
        if constexpr (std::is_floating_point_v<T>) {
            constexpr double kSpecial[] = {0,       -0.0,     1,         -1,         0.5,         255,
                                           FLT_MIN, FLT_MAX,  -FLT_MAX,  8388609,    2147483648., FLT_EPSILON / 2,
                                           NAN,     INFINITY, -HUGE_VAL, FLT_MIN / 4};
            if (kind < std::size(kSpecial)) return static_cast<T>(kSpecial[kind]);
            if (kind < 160) return static_cast<T>(static_cast<signed char>(bits)) / 32;
            return static_cast<T>(std::ldexp(static_cast<double>(bits), static_cast<int>(kind) - 240));
        } else {
            return static_cast<T>(kind < 128 ? bits % 128 : bits);
        }
    }
    /// A few values again and again, all of them plain in half of the arrays.
    template <typename T>
    void Fill(T* values, std::size_t count) {
        std::vector<T> pool;
        const bool plain = Bool();
        for (int i = In(1, 12); i > 0; --i) {
            const unsigned int kind = plain ? 100 : provider_.ConsumeIntegral<std::uint8_t>();
            pool.push_back(Value<T>(kind, provider_.ConsumeIntegral<int>()));
        }
        for (std::size_t i = 0; i < count; ++i) values[i] = pool[i * 7 % pool.size()];
    }

    FuzzedDataProvider provider_;
    std::vector<void*> arrays_;
};

template <typename T>
void Arq(Source& s) {
    const int n = s.Length(), k = s.In(0, 40);
    const ArqParam param{s.AnyUnsigned(), !s.Rarely(), s.Bool()};
    T* data = s.ArrayOrNull<T>(n);
    const util::FloatData scale = s.Scales(k);
    const util::IntData offset = s.Offsets(s.Rarely() ? s.In(0, 40) : k);
    ArqQuantReal(data, n, param, scale, offset, s.Array<char>(n));
    if constexpr (std::is_same_v<T, float>) {
        ArqQuantFloatPython(data, n, param, scale, offset);
    } else {
        QuantRealDoublePython(data, n, scale, offset, param.numBits, s.Array<char>(n));
        ArqQuantDoublePython(data, n, param, scale, offset);
    }
    ArqQuant(data, n, param, scale, offset);
    if (data == nullptr || offset.length != scale.length || param.numBits < 2) return;
    WtsArqCalibrationCpuKernel(data, n, param, scale, offset, static_cast<util::WeightFormat>(s.In(0, 2)));
    const int numBits = std::max(2, s.Any());
    ArqClipAndQuantKhKwCiCo(data, s.Bool() ? data : s.Array<T>(n), n, numBits, s.Scales(k), s.Offsets(k));
}

void ArqFunctors(Source& s) {
    const int n = s.Length(), k = s.In(0, 40), numBits = std::max(2, s.Any());
    const KestTfOp::WeightQuantParam param{s.Array(k), s.Ints(k), s.Array(k), s.Ints(k), k, numBits};
    float* data = s.Array(n);
    const Output<float> output{s.Bool() ? data : s.Array(n), param.scale, param.offset};
    KestTfOp::ArqQuantFunctor<Device, float>()({data, n, k}, output, numBits);
    KestTfOp::FindMaxMin<Device, float>()(n, data, param);
    KestTfOp::IdentityScaleOffset<Device, float>()(param);
}

void Nuq(Source& s) {
    const int n = s.Length() % 100, k = s.In(0, 20);
    const NuqParam param{static_cast<unsigned int>(s.In(0, 20)), s.Bool(), s.In(-1, 2)};
    const util::FloatData scale = s.Scales(k);
    const util::IntData offset = s.Offsets(s.Rarely() ? s.In(0, 20) : k);
    double* data = s.ArrayOrNull<double>(n);
    NuqQuantRealPython(data, n, scale, offset, s.Array<char>(n));
    NuqQuantPython(data, n, param, scale, offset);
    NuqQuant(s.ArrayOrNull<float>(n), n, param, scale, offset);
    const float* floats = s.Array(n);
    std::vector<float> grid(floats, floats + n), centers = s.Vector<float>(s.In(0, 50));
    if (s.Rarely()) grid.resize(s.In(0, 50));
    NuqCalibrationCpuKernel(floats, grid, centers, n, param, scale, offset);
}

template <typename T>
void Clustering(Source& s) {
    const int n = s.Length() % 100, k = s.In(0, 12);
    std::vector<T> values = s.Vector<T>(n), centers = s.Vector<T>(k);
    std::vector<double> weights = s.Vector<double>(n);
    KmeansInit(values, centers);
    Kmeans(values, static_cast<unsigned int>(s.In(0, k)), weights, centers);  // room for all centres
    Median(values);
    Weight(n, s.Scales(s.In(0, 9)), s.AnyUnsigned());
}

void NuqFunctors(Source& s) {
    const int n = s.Length() % 300, k = s.In(-1, 20), numClusters = s.In(0, 20), numBits = s.Any();
    float *data = s.Array(n), *scale = s.Array(k), *scaleStore = s.Array(k);
    int *offset = s.Ints(k), *offsetStore = s.Ints(k), *centers = s.Ints(numClusters);
    const KestTfOp::WeightNuqQuantParam param{scale, offset,  nullptr,     scaleStore,  offsetStore, centers,
                                              k,     numBits, numClusters, s.In(-1, 2), s.Bool()};
    ThrustParam<float> thrust;
    KestTfOp::NuqFunctor<Device, float>()(data, n, param, thrust);
    KestTfOp::FakeQuantWithNuq<Device, float>()(param, data, s.Bool() ? data : s.Array(n), n);
    KestTfOp::IdentityScaleOffsetNuq<Device, float>()(param);
    KestTfOp::IdentityWeightNuq<Device, float>()(data, s.Array(n), n);
}

const char* const kFormats[] = {"NCHW", "NHWC", "NCDHW", "NDHWC", "", "nchw", nullptr};

void SearchN(Source& s) {
    const int n = s.Length(), k = s.In(0, 12);
    std::vector<int> found = s.Vector<int>(s.In(0, 3));
    SearchShiftBits(s.Rows<int>(k), found);
    EvaluateShiftNErrorCpu(n, s.Ints(n), s.Array<double>(n), 1 << s.In(0, 16));
    EvaluateShiftNErrorCpu(n, s.Array(n), s.Array<double>(n), 1 << s.In(0, 16));
    KestTfOp::Param param{s.Shape(), s.Bool(), kFormats[s.In(0, 6)]};
    int counter = s.In(-1, 1), batchNum = s.In(0, 2);
    KestTfOp::SearchnInputParam<float> input{s.Rows<float>(k), n, s.Array(n)};
    KestTfOp::SearchnQuantParam<float> quant{s.Bool(), s.Ints(k), nullptr, nullptr, nullptr, s.Array(k), s.Array(k)};
    for (int i = 0; i < 2; ++i) KestTfOp::SearchNFunctor<Device, float>()(param, counter, batchNum, input, quant);
}

template <typename T>
void SearchNV2(Source& s) {
    const int k = s.In(0, 12);
    auto rows = s.Rows<T>(k), table = s.Rows<T>(s.In(0, 12));
    const bool perTensor = s.Bool();
    util::IntData shiftBits = s.Offsets(s.In(0, 20));
    SearchNV2AccumulateError(rows, table, s.Scales(k), perTensor);
    SearchNV2FindBestNCpu(table, shiftBits, perTensor);
}

void SearchNV2Functor(Source& s) {
    const bool channelWise = s.Bool(), perTensor = s.Bool();
    const int n = s.Length(), k = channelWise || perTensor ? s.In(-1, 12) : 1, numScales = channelWise ? k : 1;
    KestTfOp::DataParam param{s.Shape(), channelWise, kFormats[s.In(0, 6)], s.Array(k)};
    int counter = s.In(-1, 1), batchNum = s.In(0, 2);
    SearchnV2InputParam<float> input{s.Rows<float>(s.In(0, 12)), n, s.Array(n)};
    KestTfOp::SearchnV2QuantParam<float> quant{perTensor, s.Ints(k), s.Array(numScales), k};
    for (int i = 0; i < 2; ++i) KestTfOp::SearchNV2Functor<Device, float>()(param, counter, batchNum, input, quant);
}

template <typename T>
void Ulq(Source& s) {
    const int n = s.Length();
    T* data = s.Array<T>(n);
    KestCommon::Ulq(data, s.Bool() ? data : s.Array<T>(n), n, s.Scales(1), s.Offsets(1), s.Any());
    UlqDiff(data, s.Array<T>(n), n, s.Vector<T>(s.In(0, 5)));
    const int k = s.In(1, 40);
    std::vector<int> shape = s.Shape();
    if (s.Bool()) shape = {n / k, k};
    TransposeAB(data, n, shape);
    T* bounds = s.Array<T>(4);
    ClipCheck(bounds[0], bounds[1], bounds[2], bounds[3]);
}

void UlqFunctors(Source& s) {
    const int n = s.Length(), k = s.In(-1, 40), numBits = s.Any();
    float *data = s.Array(n), *out = s.Bool() ? data : s.Array(n), *bounds = s.Array(4);
    const WeightUlqParam param{s.Array(k), k, numBits, s.Bool()};
    KestTfOp::ScaleArqInit<Device, float>()(n, data, s.Array(k), s.Array(k), param);
    KestTfOp::WtsFakeQuantFunctor<Device, float>()({data, n, k}, out, s.Array(k), numBits, s.Bool());
    const KestTfOp::Output<float> output{out, s.Array(1), s.Ints(1), bounds + 2, bounds + 3};
    KestTfOp::UlqFunctor<Device, float>()({data, n, bounds, bounds + 1}, output, numBits);
    KestTfOp::ClipCalculate<Device, float>()(s.Array(1), s.Ints(1), bounds, bounds + 1, numBits);
    KestTfOp::ClipCheckFunctor<Device, float>()(bounds, bounds + 1, bounds[2], bounds[3], s.Bool());
    int batchNum = 0;
    KestTfOp::GetBatchNum<Device, float>()(s.Float(), batchNum);
}

template <typename T>
void Ifmr(Source& s) {
    const int n = s.Length() % 1500;
    const auto calibration = static_cast<unsigned int>(s.In(0, 2));
    const float maxPercentile = s.Rarely() ? s.Float() : 1 - s.In(0, 1000) / 1e3f, minPercentile = s.In(0, 1000) / 1e3f;
    IfmrParam param{calibration, s.AnyUnsigned(), s.Bool(),      s.Float(),
                    s.Float(),   s.Float(),       maxPercentile, minPercentile};
    const float count = (param.endRatio - param.startRatio) / param.step;
    if (count > 100 && count < 1e8f) param.startRatio = 0.7f, param.endRatio = 1.3f, param.step = 0.02f;  // for time
    T* data = s.ArrayOrNull<T>(n);
    MaxMinValue<T> bounds{};
    FindMaxAndMinValueWithPercentile(data, n, bounds, param.maxPercentile, param.minPercentile);
    IfmrQuant(data, n, param, s.Scales(!s.Rarely()), s.Offsets(!s.Rarely()));
    if constexpr (std::is_same_v<T, float>) {
        const kest_tf::IfmrParam sameParam{param.calibration, param.numBits, param.withOffset,    param.startRatio,
                                           param.endRatio,    param.step,    param.maxPercentile, param.minPercentile};
        int batchIndex = s.In(-1, 1), batchNum = s.In(-1, 3);
        KestTfOp::InputParam<float> input{s.Vector<float>(s.In(0, 9)), n, s.Array(n)};
        const KestTfOp::DataQuantParam<float> factors{s.Array(1), s.Ints(1), s.Array(1), s.Ints(1)};
        for (int i = 0; i < 2; ++i)
            KestTfOp::QuantIfmrFunctor<Device, float>()(sameParam, batchIndex, batchNum, input, factors);
    }
}

template <typename T>
std::vector<DataBin<T>> Bins(Source& s, int n) {
    const auto bounds = s.Vector<T>(n + 1);
    const auto counts = s.Vector<unsigned int>(n);
    std::vector<DataBin<T>> bins;
    for (int i = 0; i < n; ++i) bins.push_back({counts[i], bounds[i], bounds[i + 1]});
    return bins;
}

template <typename T>
void Hfmg(Source& s) {
    const int n = s.Length(), numBins = s.Rarely() ? std::min(0, s.Any()) : s.In(1, 200);
    const HfmgAlgoParam param{s.AnyUnsigned(), s.Bool(), 0};
    InputData<T> input{static_cast<unsigned int>(n), s.ArrayOrNull<T>(n)};
    std::vector<DataBin<T>> bins = Bins<T>(s, s.Bool() ? 0 : s.In(0, 200)), oldBins = Bins<T>(s, s.In(0, 200));
    float scale = 0, loss = s.Float();
    int offset = 0;
    if (s.Bool()) {
        HfmgDistribute(numBins, oldBins, input);
        HfmgMerge(numBins, bins, input);
        input.data = s.Array<T>(n);
        HfmgMerge(numBins, bins, input);
    } else {
        const bool sameRange = s.Bool();
        if (sameRange) oldBins.resize(bins.size());  // bin by bin
        const T minValue = s.Float(), width = s.Float();
        HfmgMergeInter(oldBins, bins, sameRange, minValue, width);
        if (input.data != nullptr) HfmgDistributeInter(numBins, minValue, width, bins, input);
    }
    if (!bins.empty()) {  // startBin <= endBin < n
        const int last = s.In(0, static_cast<int>(bins.size()) - 1);
        HfmgCalculateLoss(bins, s.AnyUnsigned(), s.In(0, last), last, loss);
    }
    HfmgCompute(bins, scale, offset, param);
    ActArqCalibration<T>(s.Float(), s.Float(), s.Scales(1), s.Offsets(1), param);
    if constexpr (std::is_same_v<T, float>) {
        KestTfOp::HfmgParam sameParam{param.numBits, param.withOffset, static_cast<unsigned int>(numBins)};
        KestTfOp::HfmgDataQuantParam<float> factors{s.Array(1), s.Ints(1), s.Array(1), s.Ints(1)};
        int batchIndex = 0, batchNum = s.In(0, 2);
        KestTfOp::QuantHfmgFunctor<Device, float>()(bins, sameParam, batchIndex, batchNum, input, factors);
        KestTfOp::ActArqFunctor<Device, float>()(input, sameParam, factors);
    }
}

void Deployed(Source& s) {
    const int n = s.Length(), k = s.In(-1, 60), inner = s.Rarely() ? s.Any() : s.In(1, 40), multiplier = s.Any();
    const bool channelWise = s.Bool(), channelFirst = s.Bool();
    const int numFactors = channelWise ? std::max(k, 1) : 1;
    float *in = s.Array(n), *out = s.Bool() ? in : s.Array(n);
    KestTfOp::OrvaneQuantFunctor<Device, float>()({n, in, s.Float(), s.Float(), std::max(1, s.Any())}, out);
    const auto* words = s.Array<std::uint64_t>(numFactors);
    const auto *codes = s.Array<signed char>(n), *offsets = s.Array<signed char>(numFactors);
    KestTfOp::OrvaneDequantFunctor<Device, float>()(
        {multiplier == 0 ? 1 : multiplier, n, in, words, k, inner, channelWise, channelFirst, ""}, out);
    KestTfOp::OrvaneAntiQuantFunctor<Device, float>()({n, in, s.Float()}, out);
    KestTfOp::OrvaneWeightQuantFunctor<Device, float>()({n, codes, offsets, inner, k, channelWise, channelFirst}, out);
}

void Fusion(Source& s) {
    const int k = s.In(-1, 40);
    const KestTfOp::RetrainDataQuantParam data{s.Array(1), s.Ints(1), s.Array(1), s.Ints(1)};
    const KestTfOp::RetrainWeightQuantParam weights{s.Array(k), s.Ints(k), s.Array(k), s.Ints(k), k};
    const KestTfOp::BnParam batchNorm{s.Array(k), s.Array(k), s.Array(1), s.Array(1)};
    KestTfOp::CopyDataToHost<Device, float>()(data, weights, batchNorm, s.Array(1), s.Array(k));
    KestTfOp::FetchScaleFunctor<Device, float>()(s.Array(k), s.Array(k), k);
}

template <typename T>
void Softmax(Source& s) {
    const int n = s.Length();
    KestTfOp::SoftmaxParam param{s.Float(), s.Float(), s.Float(), s.In(-1, 6), n, s.Shape()};
    T* data = s.Array<T>(n);
    std::vector<T> rows = s.Vector<T>(s.In(0, 60));
    KestTfOp::FindMaxAlongAxis(data, rows, param);
    KestTfOp::ApproximateExp(data, rows, data, param);
    KestTfOp::ApproximateSoftmax(data, rows, param);
    KestTfOp::FastSoftmaxFunctor<Device, T>()(data, s.Bool() ? data : s.Array<T>(n), param);
}

template <typename T>
void Prune(Source& s) {
    CalPruneNum(s.Any(), s.Any(), s.Float(), s.Bool());
    PruneParam param{0, {}, s.In(0, 4), {}, {}};  // K channels in all groups; a mask for each of them and one for all
    std::vector<T*> masks;
    for (int g = 0; g < param.numGroups; ++g) {
        param.groupChannels.push_back(static_cast<unsigned int>(s.In(0, 12)));
        param.groupPruneNum.push_back(s.AnyUnsigned());
        param.numChannels += static_cast<int>(param.groupChannels[g]);
        masks.push_back(s.Array<T>(param.groupChannels[g]));
    }
    if (param.numGroups > 1) masks.push_back(s.Array<T>(param.numChannels));
    if (s.Rarely()) masks.clear();
    std::vector<const T*> tensors;
    std::vector<int> lengths, innerJumps;
    for (int t = s.In(0, 3); t > 0; --t) {
        lengths.push_back(s.Length());
        innerJumps.push_back(s.Rarely() ? s.Any() : s.In(1, 9));
        tensors.push_back(s.Array<T>(lengths.back()));
    }
    ComputeRemainOut<Device, T>()(tensors, lengths, innerJumps, param, masks);
    IdentityOutChannel<Device, T>()(param, masks, masks);
}

template <typename T>
void Masks(Source& s) {
    const int n = s.Length(), rows = s.In(-1, 30), columns = s.In(-1, 30),
              area = std::max(rows, 0) * std::max(columns, 0);
    const int rowStride = s.Rarely() ? s.Any() : s.In(1, 40), columnStride = s.Rarely() ? s.Any() : s.In(1, 40);
    T *data = s.Array<T>(n), *mask = s.Array<T>(std::max(rows, 1) * std::max(columns, 1));
    const KestTfOp::MaskParam param{n, rowStride, columnStride, rows, columns};
    KestTfOp::MaskOut<Device, T>()(param, mask, data, s.Bool() ? data : s.Array<T>(n));
    const KestTfOp::MaskGenParam<T> masks{rows, columns, area, s.Array<T>(area), s.Array<T>(area)};
    KestTfOp::GenerateMask<Device, T>()(s.Array<T>(rows), s.Array<T>(columns), masks);
    KestTfOp::IdentityMask<Device, T>()(masks);
}

template <typename T>
void Selective(Source& s) {
    const unsigned int axis = s.In(0, 4), groupSize = s.In(0, 70);
    std::vector<unsigned int> shape;
    for (int i = s.In(0, 4); i > 0; --i) shape.push_back(static_cast<unsigned int>(s.In(0, 9)));
    if (s.Rarely()) shape = {65536, 65536, 3};  // no elements, modulo 2^32
    const auto rank = static_cast<unsigned int>(shape.size());
    const unsigned int size = SelectiveMaskGenKernel::ComputeProduct(shape, 0, rank);
    const unsigned int k = axis < rank ? std::min(shape[axis], 9u) : 0;
    const T* select = s.Array<T>(k);
    const long numSelected = std::count_if(select, select + k, [](T x) { return std::fabs(x) >= 1; });
    const long numGroups = groupSize > 0 ? (numSelected + groupSize - 1) / groupSize : 0;
    T* gathered = s.Array<T>(k > 0 ? size / k * numGroups * groupSize : 0);
    SelectiveMaskGenKernel::ComputeMask<Device, T>()(s.Array<T>(size), select, gathered,
                                                     {axis, groupSize, s.AnyUnsigned(), shape}, s.Array<T>(size));
    std::vector<unsigned int> indices(k);
    for (unsigned int& index : indices) index = static_cast<unsigned int>(s.In(0, static_cast<int>(k) - 1));
    SelectiveMaskGenKernel::GetNOutOfM(s.AnyUnsigned(), indices, select);
}

void Dmq(Source& s) {
    const int numActs = s.Length(), numWeights = s.Length();
    const unsigned int k = s.Rarely() ? s.AnyUnsigned() : s.In(1, 9);
    const int numFactors = k <= 5000 ? static_cast<int>(k) : 0;  // more never divide the lengths
    const float *acts = s.Array(numActs), *weights = s.Array(numWeights), strength = s.Bool() ? 0.5f : s.Float();
    DMQBalancerKernel::DMQBalancerParam param{strength, k, static_cast<unsigned int>(numActs),
                                              static_cast<unsigned int>(numWeights), s.Array(numFactors)};
    DMQBalancerKernel::DMQBalancer<Device, float>()(acts, weights, param, s.ArrayOrNull<float>(numFactors));
    std::vector<float> actMax = s.Vector<float>(numFactors), wtsMax = s.Vector<float>(numFactors);
    ProcessZeroChannel(actMax, wtsMax, s.Array(numFactors));
}

void Helpers(Source& s) {
    const int n = s.Length() - 1;
    float scale = s.Float(), *scales = s.Array(n);
    double wideScale = scale * 1e10;
    util::ProcessScale(scale);
    util::ProcessScale(wideScale);
    KestTfOp::ProcessScale<Device, float>()(scales, s.Bool() ? scales : s.Array(n), s.Ints(n), n, s.Bool());
    Clip(scale, s.Any(), s.Any());
    util::DataCastToFloat16Functor<Device, float>()(s.Array(n), s.Array<unsigned short>(n), n);
    util::DataCastToFloat32Functor<Device, unsigned short>()(s.Array<unsigned short>(n), s.Array(n), n);
    long length = 0;
    util::GetLengthByDim(s.Shape(), length);
    util::CheckBalanceFactor(scales, std::max(n, 0));
    KestTfOp::ComputeDeqScale(s.Array(n), scales, scale, n);
    std::string name(s.In(0, 20), 'a');
    KestTfOp::ConvertLayerName(name, std::string(s.In(0, 3), 'a'), std::string(s.In(0, 3), 'b'));
    kest_tf::CopyDataFunctor<Device, float>()(scales, std::max(n, 0), s.Array(n));
    kest_tf::DumpFunctor<Device, float>()(scales, std::max(n, 0), {"/dev/null", "", 0, s.Vector<float>(3), 4});
}

using Entry = void (*)(Source&);
constexpr Entry kFloats[] = {Arq<float>,  Clustering<float>, SearchNV2<float>, Ulq<float>,   Ifmr<float>,
                             Hfmg<float>, Softmax<float>,    Prune<float>,     Masks<float>, Selective<float>};
constexpr Entry kDoubles[] = {Arq<double>,  Clustering<double>, SearchNV2<double>, Ulq<double>,   Ifmr<double>,
                              Hfmg<double>, Softmax<double>,    Prune<double>,     Masks<double>, Selective<double>};
constexpr Entry kOthers[] = {ArqFunctors, Nuq,      NuqFunctors, SearchN, SearchNV2Functor,
                             UlqFunctors, Deployed, Fusion,      Dmq,     Helpers};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    util::SetLogSink([](const char*) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Source source(data, size);
    const auto& entries = source.Bool() ? kFloats : source.Bool() ? kDoubles : kOthers;
    const Entry entry = entries[source.In(0, 9)];
    omp_set_num_threads(source.In(1, 3));
    entry(source);
    return 0;
}
