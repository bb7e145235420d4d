#include <kest/weight_quant/ulq.h>

#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/log.h>
#include <kest/kernel_frame/parallel.h>
#include <kest/kernel_frame/rounding.h>
#include <kest/weight_quant/columns.h>
#include <kest/weight_quant/ulq_loops.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace KestCommon {
namespace {

constexpr int kWorthwhile = 1 << 17;  // elements below which fake-quantising stays on one thread, some 20 microseconds

/// Whether the dimensions are those of `length` elements.
bool IsShapeOf(const std::vector<int>& shape, int length) {
    if (std::find_if(shape.begin(), shape.end(), [](int size) { return size < 0; }) != shape.end()) return false;
    if (std::find(shape.begin(), shape.end(), 0) != shape.end()) return length == 0;
    int64_t product = 1;
    for (const int size : shape) {
        product *= size;
        if (product > length) return false;  // before the product of the next can overflow
    }
    return product == length;
}

template <typename T>
void SwapAxes(T* data, std::size_t length, std::size_t numRows, std::size_t numColumns) {
    const std::size_t inner = length / (numRows * numColumns);
    const std::vector<T> copy(data, data + length);
    for (std::size_t column = 0; column < numColumns; ++column) {
        for (std::size_t row = 0; row < numRows; ++row)
            data = std::copy_n(&copy[(row * numColumns + column) * inner], inner, data);
    }
}

}  // namespace

template <typename T>
void Ulq(const T* in, T* out, int length, const util::FloatData& scale, const util::IntData& offset, int numBits) {
    const float step = scale.data[0];
    const int level = offset.data[0];
    const T upper = static_cast<T>((level + util::PowerOfTwo(numBits) - 1) * step);
    const T lower = static_cast<float>(level) * step;
    util::ParallelFor(length, length > kWorthwhile, [&](util::Block block) {
        const auto count = static_cast<std::size_t>(block.end - block.begin);
        util::DispatchIsa([&](auto isa) {
            UlqLoops<decltype(isa), T>::FakeQuant(in + block.begin, out + block.begin, count, lower, upper, step);
        });
    });
}

template <typename T>
std::vector<T> UlqDiff(const T* in, const T* grad, int length, std::vector<T> bounds) {
    if (length < 1 || bounds.size() < 4) return {0, 0};
    UlqGradient<T> gradient{bounds[0], bounds[1], bounds[3], bounds[2] - bounds[3], 0, 0};
    util::DispatchIsa([&](auto isa) { UlqLoops<decltype(isa), T>::AddGradients(in, grad, length, gradient); });
    return {gradient.max, gradient.min};
}

template <typename T>
bool ClipCheck(T& clipMax, T& clipMin, T& clipMaxRecord, T& clipMinRecord) {
    if (clipMax <= clipMin) {
        clipMax = clipMaxRecord;
        clipMin = clipMinRecord;
        return true;
    }
    if (clipMax < 0) {
        clipMax = clipMaxRecord;
        clipMinRecord = clipMin;
        return false;
    }
    clipMaxRecord = clipMax;
    if (clipMin > 0) {
        clipMin = clipMinRecord;
    } else {
        clipMinRecord = clipMin;
    }
    return false;
}

template <typename T>
int ScaleArqInit(int length, const T* data, T* maxOut, T* minOut, WeightUlqParam param) {
    if (param.channelNum < 1) return STATUS_OK;
    const auto numElements = static_cast<std::size_t>(std::max(length, 0));
    const auto widenToZero = [&](std::size_t first, std::size_t count, const T* min, const T* max) {
        for (std::size_t c = 0; c < count; ++c) {
            maxOut[first + c] = max[c] > 0 ? max[c] : 0;
            minOut[first + c] = min[c] < 0 ? min[c] : 0;
        }
        return STATUS_OK;
    };
    ForEachInnermostChannel(data, numElements, static_cast<std::size_t>(param.channelNum), widenToZero);

    const double half = util::PowerOfTwo(int64_t{param.numBits} - 1);
    if (half < 2) return STATUS_OK;
    const float negative = static_cast<float>(half);
    const float positive = static_cast<float>(half - 1);
    for (int c = 0; c < param.channelNum; ++c) {
        const float step = -minOut[c] > maxOut[c] ? -minOut[c] / negative : maxOut[c] / positive;
        if (step < 1e-6f) {
            param.scale[c] = 1;
        } else {
            param.scale[c] = param.reciprocal ? 1 / step : step;
        }
    }
    return STATUS_OK;
}

template <typename T>
int WtsFakeQuant(const Input<T>& input, T* out, const float* scale, int numBits, bool reciprocal) {
    if (input.length < 1 || input.channelNum < 1) return STATUS_OK;
    const float low = static_cast<float>(-util::PowerOfTwo(int64_t{numBits} - 1));
    const float high = static_cast<float>(util::PowerOfTwo(int64_t{numBits} - 1) - 1);
    float step[kMaxColumns];
    const auto setColumn = [&](std::size_t column, std::size_t c) {
        const float learned = scale[c] < 1e-6f ? scale[c] + 1e-6f : scale[c];
        step[column] = reciprocal ? 1 / learned : learned;
    };
    ForEachColumnRun(input.length, input.channelNum, setColumn, [&](std::size_t first, std::size_t count) {
        util::DispatchIsa([&](auto isa) {
            UlqWeightLoops<decltype(isa)>::FakeQuantColumns(input.data + first, out + first, count, step, low, high);
        });
    });
    return STATUS_OK;
}

template <typename T>
void TransposeAB(T* data, int length, std::vector<int>& shape) {
    if (shape.size() < 2) {
        LOG_ERROR("The shape dimensions less than 2!\n");
        return;
    }
    if (!IsShapeOf(shape, length)) {
        LOG_ERROR("The length and length calculated by shape are different!\n");
        return;
    }
    if (length > 0) SwapAxes(data, length, shape[0], shape[1]);
    std::swap(shape[0], shape[1]);
}

#define INSTANTIATE(T)                                                                                   \
    template KEST_EXPORT void Ulq(const T*, T*, int, const util::FloatData&, const util::IntData&, int); \
    template KEST_EXPORT std::vector<T> UlqDiff(const T*, const T*, int, std::vector<T>);                \
    template KEST_EXPORT bool ClipCheck(T&, T&, T&, T&);                                                 \
    template KEST_EXPORT void TransposeAB(T*, int, std::vector<int>&)
INSTANTIATE(float);
INSTANTIATE(double);
#undef INSTANTIATE

template KEST_EXPORT int ScaleArqInit(int, const float*, float*, float*, WeightUlqParam);
template KEST_EXPORT int WtsFakeQuant(const Input<float>&, float*, const float*, int, bool);

}  // namespace KestCommon

namespace KestTfOp {

int UlqFunctor<util::ThreadPoolDevice, float>::operator()(Input<float> input, Output<float> output, int numBits) const {
    const float clipMax = *input.clipMax;
    const float clipMin = *input.clipMin;
    const float numSteps = static_cast<float>(std::trunc(util::PowerOfTwo(numBits) - 1));
    *output.scale = (clipMax - clipMin) / numSteps + 1e-6f;
    const int level = util::SaturateTo<int>(util::RoundHalfAway(clipMin / *output.scale));
    *output.offset = level;
    *output.clipMaxOut = clipMax;
    *output.clipMinOut = clipMin;
    KestCommon::Ulq(input.data, output.data, input.length, {1, output.scale}, {1, output.offset}, numBits);
    *output.offset = util::SaturateTo<int>(-util::PowerOfTwo(int64_t{numBits} - 1) - level);
    return STATUS_OK;
}

int ClipCalculate<util::ThreadPoolDevice, float>::operator()(const float* scale, const int* offset, float* clipMax,
                                                             float* clipMin, int numBits) const {
    const double low = std::trunc(-static_cast<double>(*offset) - util::PowerOfTwo(int64_t{numBits} - 1));
    const double high = std::trunc(util::PowerOfTwo(numBits) - 1) + low;
    *clipMax = static_cast<float>(high) * *scale;
    *clipMin = *scale * static_cast<float>(low);
    return STATUS_OK;
}

int ClipCheckFunctor<util::ThreadPoolDevice, float>::operator()(float* clipMax, float* clipMin, float& clipMaxRecord,
                                                                float& clipMinRecord, bool resetMin) const {
    if (resetMin) *clipMin = 0;
    KestCommon::ClipCheck(*clipMax, *clipMin, clipMaxRecord, clipMinRecord);
    return STATUS_OK;
}

int ClipRecord<util::ThreadPoolDevice, float>::operator()(float* clipMax, float* clipMin, float& clipMaxRecord,
                                                          float& clipMinRecord) const {
    clipMaxRecord = *clipMax;
    clipMinRecord = *clipMin;
    return STATUS_OK;
}

int GetBatchNum<util::ThreadPoolDevice, float>::operator()(const float& counter, int& batchNum) const {
    batchNum = util::SaturateTo<int>(counter);
    return STATUS_OK;
}

int GetBatchNum<util::ThreadPoolDevice, double>::operator()(const double& counter, int& batchNum) const {
    batchNum = util::SaturateTo<int>(counter);
    return STATUS_OK;
}

int UpdateBatchNum<util::ThreadPoolDevice, float>::operator()(float& counter) const {
    counter += 1;
    return STATUS_OK;
}

int UpdateBatchNum<util::ThreadPoolDevice, double>::operator()(double& counter) const {
    counter += 1;
    return STATUS_OK;
}

int ScaleArqInit<util::ThreadPoolDevice, float>::operator()(int length, const float* data, float* maxOut, float* minOut,
                                                            KestCommon::WeightUlqParam param) const {
    return KestCommon::ScaleArqInit(length, data, maxOut, minOut, param);
}

int WtsFakeQuantFunctor<util::ThreadPoolDevice, float>::operator()(KestCommon::Input<float> input, float* out,
                                                                   const float* scale, int numBits,
                                                                   bool reciprocal) const {
    return KestCommon::WtsFakeQuant(input, out, scale, numBits, reciprocal);
}

}  // namespace KestTfOp
