#include <kest/weight_quant/arq.h>

#include <kest/kernel_frame/extremes.h>
#include <kest/kernel_frame/fake_quant.h>
#include <kest/kernel_frame/grid.h>
#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/log.h>
#include <kest/kernel_frame/rounding.h>
#include <kest/kernel_frame/scale.h>
#include <kest/weight_quant/arq_loops.h>
#include <kest/weight_quant/columns.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>

namespace KestCommon {
namespace {

template <typename T>
int CheckArqParams(const T* data, unsigned int length, const ArqParam& arqParam, const util::FloatData& scale,
                   const util::IntData& offset) {
    if (data == nullptr) {
        LOG_ERROR("Empty pointer\n");
        return STATUS_BAD_PARAM;
    }
    if (length == 0) {
        LOG_ERROR("input data length = 0.\n");
        return STATUS_BAD_PARAM;
    }
    if (util::HasNan(data, length)) {
        LOG_ERROR("Exist NaN in input data, cannot do ARQ quantize.\n");
        return STATUS_BAD_PARAM;
    }
    if (scale.length != offset.length) {
        LOG_ERROR("scale.length = %u, offset.length = %u\n", scale.length, offset.length);
        return STATUS_BAD_PARAM;
    }
    if (scale.length > 1 && !arqParam.channelWise) {
        LOG_ERROR("arqParam.channelWise = %u, scale.length = %u\n", unsigned{arqParam.channelWise}, scale.length);
        return STATUS_BAD_PARAM;
    }
    if (scale.length == 0) {
        LOG_ERROR("scale.length = %u should not be 0.\n", scale.length);
        return STATUS_BAD_PARAM;
    }
    if (length % scale.length != 0) {
        LOG_ERROR("input data length = %u, scale.length = %u\n", length, scale.length);
        return STATUS_BAD_PARAM;
    }
    if (arqParam.numBits < 2) {
        LOG_ERROR("arqParam.numBits = %u, it should be greater than 2.\n", arqParam.numBits);
        return STATUS_BAD_PARAM;
    }
    if (arqParam.numBits > util::kMaxNumBits) {
        LOG_ERROR("arqParam.numBits = %u, it should not be greater than %u.\n", arqParam.numBits, util::kMaxNumBits);
        return STATUS_BAD_PARAM;
    }
    return STATUS_OK;
}

/// P = 2^(numBits - 1) and the number of codes on either side of zero as floats.
struct GridEnds {
    explicit GridEnds(unsigned int numBits)
        : half(util::PowerOfTwo(int64_t{numBits - 1})),
          negative(static_cast<float>(half)),
          positive(static_cast<float>(half - 1.0)) {}

    double half;
    float negative;
    float positive;
};

template <typename T>
float SymmetricScale(util::Extremes<T> found, const GridEnds& ends) {
    const float extreme = static_cast<float>(std::fabs(found.max) > std::fabs(found.min) ? found.max : found.min);
    const float steps = extreme > 0 ? ends.positive : -ends.negative;
    return extreme / steps;
}

/// The extremes of the range that an asymmetric grid covers: zero is inside.
template <typename T>
util::Extremes<T> WidenToZero(util::Extremes<T> found) {
    return {found.min > 0 ? T{0} : found.min, found.max >= 0 ? found.max : T{0}};
}

template <typename T>
float AsymmetricScale(util::Extremes<T> range, const GridEnds& ends) {
    return static_cast<float>((range.max - range.min) / static_cast<T>(ends.negative + ends.positive));
}

template <typename T>
int AsymmetricOffset(util::Extremes<T> range, float scale, const GridEnds& ends) {
    return util::SaturateTo<int>(double{util::RoundHalfAway(-range.min / static_cast<T>(scale))} - ends.half);
}

/// Turns the extremes of a channel into its scale and offset.
template <typename T>
int SetChannelFactors(util::Extremes<T> found, bool withOffset, const GridEnds& ends, float& scale, int& offset) {
    const util::Extremes<T> range = WidenToZero(found);
    scale = withOffset ? AsymmetricScale(range, ends) : SymmetricScale(found, ends);
    const int status = util::ProcessScale(scale);
    if (status != STATUS_OK) return status;
    offset = withOffset ? AsymmetricOffset(range, scale, ends) : 0;
    return STATUS_OK;
}

/// SetChannelFactors for channels in order until one fails. The common case, symmetric with scales that ProcessScale
/// would leave alone, takes no call and no branch a channel.
template <typename T>
int SetFactors(const T* min, const T* max, std::size_t numChannels, bool withOffset, const GridEnds& ends, float* scale,
               int* offset) {
    constexpr std::size_t kChunk = 256;
    float found[kChunk];
    for (std::size_t first = 0; first < numChannels; first += kChunk) {
        const std::size_t count = std::min(kChunk, numChannels - first);
        int numFit = 0;
        if (!withOffset) {
            for (std::size_t c = 0; c < count; ++c)
                found[c] = SymmetricScale(util::Extremes<T>{min[first + c], max[first + c]}, ends);
            for (std::size_t c = 0; c < count; ++c) numFit += (found[c] >= FLT_EPSILON) & (found[c] <= 1 / FLT_EPSILON);
        }
        if (numFit == static_cast<int>(count)) {
            std::copy_n(found, count, scale + first);
            std::fill_n(offset + first, count, 0);
            continue;
        }
        for (std::size_t c = first; c < first + count; ++c) {
            const int status =
                SetChannelFactors(util::Extremes<T>{min[c], max[c]}, withOffset, ends, scale[c], offset[c]);
            if (status != STATUS_OK) return status;
        }
    }
    return STATUS_OK;
}

/// Calls use(first, n, minima, maxima) for runs of n channels in order until it returns a failure.
template <typename T, typename Use>
int ForEachContiguousChannel(const T* data, std::size_t length, std::size_t numChannels, Use use) {
    constexpr std::size_t kRun = 64;
    const std::size_t channelLength = numChannels > 0 ? length / numChannels : 0;
    T min[kRun];
    T max[kRun];
    for (std::size_t first = 0; first < numChannels; first += kRun) {
        const std::size_t count = std::min(kRun, numChannels - first);
        util::DispatchIsa([&](auto isa) {
            for (std::size_t c = 0; c < count; ++c) {
                const T* channel = data + (first + c) * channelLength;
                const auto found = util::ArrayLoops<decltype(isa), T>::FindExtremes(channel, channelLength);
                min[c] = found.min;
                max[c] = found.max;
            }
        });
        const int status = use(first, count, min, max);
        if (status != STATUS_OK) return status;
    }
    return STATUS_OK;
}

/// Fake-quantises a CO_CI_KH_KW tensor with the factors that were calibrated from it.
template <typename T>
void ArqFakeQuantInPlace(T* data, unsigned int length, const ArqParam& arqParam, const util::FloatData& scale,
                         const util::IntData& offset) {
    const util::Grid grid = util::SignedGrid(arqParam.numBits);
    const std::size_t channelLength = length / scale.length;
    for (std::size_t c = 0; c < scale.length; ++c)
        util::FakeQuant(data + c * channelLength, channelLength, scale.data[c], offset.data[c], grid);
}

}  // namespace

int CheckArqQuantParams(const float* data, unsigned int length, const ArqParam& arqParam, const util::FloatData& scale,
                        const util::IntData& offset) {
    return CheckArqParams(data, length, arqParam, scale, offset);
}

int CheckArqQuantParams(const double* data, unsigned int length, const ArqParam& arqParam, const util::FloatData& scale,
                        const util::IntData& offset) {
    return CheckArqParams(data, length, arqParam, scale, offset);
}

template <typename T>
int WtsArqCalibrationCpuKernel(const T* data, unsigned int length, const ArqParam& arqParam,
                               const util::FloatData& scale, const util::IntData& offset, util::WeightFormat format) {
    const GridEnds ends(arqParam.numBits);
    const auto setFactors = [&](std::size_t first, std::size_t numChannels, const T* min, const T* max) {
        return SetFactors(min, max, numChannels, arqParam.withOffset, ends, scale.data + first, offset.data + first);
    };
    const int status = format == util::CO_CI_KH_KW ? ForEachContiguousChannel(data, length, scale.length, setFactors)
                                                   : ForEachInnermostChannel(data, length, scale.length, setFactors);
    if (status != STATUS_OK) LOG_ERROR("ArqQuantCPU scale is illegal.\n");
    return status;
}

// ArqQuant and the two plain entries are the same steps, each with log lines that bear its own name.

template <typename T>
int ArqQuant(T* data, unsigned int length, const ArqParam& arqParam, const util::FloatData& scale,
             const util::IntData& offset) {
    int status = CheckArqQuantParams(data, length, arqParam, scale, offset);
    if (status != STATUS_OK) {
        LOG_ERROR("CheckArqQuantParams failed.\n");
        return status;
    }
    status = WtsArqCalibrationCpuKernel(data, length, arqParam, scale, offset, util::CO_CI_KH_KW);
    if (status != STATUS_OK) {
        LOG_ERROR("WtsArqCalibrationCpuKernel of format CO_CI_KH_KW failed.\n");
        return status;
    }
    ArqFakeQuantInPlace(data, length, arqParam, scale, offset);
    return STATUS_OK;
}

template <typename T>
int ArqQuantRealKernel(T* data, unsigned int length, const ArqParam& arqParam, const util::FloatData& scale,
                       const util::IntData& offset, char* out) {
    int status = CheckArqQuantParams(data, length, arqParam, scale, offset);
    if (status != STATUS_OK) {
        LOG_ERROR("CheckArqQuantParams failed.\n");
        return status;
    }
    const util::Grid grid = util::SignedGrid(arqParam.numBits);
    const std::size_t channelLength = length / scale.length;
    for (std::size_t c = 0; c < scale.length; ++c) {
        float channelScale = scale.data[c];
        status = util::ProcessScale(channelScale);
        if (status != STATUS_OK) {
            LOG_ERROR("ArqQuantRealCPU scale is illegal.\n");
            return status;
        }
        const std::size_t first = c * channelLength;
        util::DispatchIsa([&](auto isa) {
            ArqLoops<decltype(isa), T>::Quant(data + first, out + first, channelLength, channelScale, offset.data[c],
                                              grid);
        });
    }
    return STATUS_OK;
}

template <typename T>
int ArqQuantReal(T* data, unsigned int length, const ArqParam& arqParam, const util::FloatData& scale,
                 const util::IntData& offset, char* out) {
    return ArqQuantRealKernel(data, length, arqParam, scale, offset, out);
}

template <typename T>
void ArqClipAndQuantKhKwCiCo(const T* in, T* out, unsigned int length, int numBits, const util::FloatData& scale,
                             const util::IntData& offset) {
    if (scale.length == 0) return;
    const util::Grid grid = util::SignedGrid(numBits);
    float columnScale[kMaxColumns];
    int columnOffset[kMaxColumns];
    bool small = true;
    const auto setColumn = [&](std::size_t column, std::size_t c) {
        columnScale[column] = scale.data[c];
        columnOffset[column] = offset.data[c];
        small &= util::MovedBoundsAreSmall(grid, offset.data[c]);
    };
    ForEachColumnRun(length, scale.length, setColumn, [&](std::size_t first, std::size_t count) {
        util::DispatchIsa([&](auto isa) {
            ArqLoops<decltype(isa), T>::FakeQuantColumns(in + first, out + first, count, columnScale, columnOffset,
                                                         grid, small);
        });
    });
}

#define INSTANTIATE(T)                                                                                              \
    template KEST_EXPORT int WtsArqCalibrationCpuKernel(                                                            \
        const T*, unsigned int, const ArqParam&, const util::FloatData&, const util::IntData&, util::WeightFormat); \
    template KEST_EXPORT int ArqQuant(T*, unsigned int, const ArqParam&, const util::FloatData&,                    \
                                      const util::IntData&);                                                        \
    template KEST_EXPORT int ArqQuantRealKernel(T*, unsigned int, const ArqParam&, const util::FloatData&,          \
                                                const util::IntData&, char*);                                       \
    template KEST_EXPORT int ArqQuantReal(T*, unsigned int, const ArqParam&, const util::FloatData&,                \
                                          const util::IntData&, char*);                                             \
    template KEST_EXPORT void ArqClipAndQuantKhKwCiCo(const T*, T*, unsigned int, int, const util::FloatData&,      \
                                                      const util::IntData&)
INSTANTIATE(float);
INSTANTIATE(double);
#undef INSTANTIATE

}  // namespace KestCommon

namespace KestTfOp {

using KestCommon::ArqParam;

int ArqQuantFunctor<util::ThreadPoolDevice, float>::operator()(KestCommon::Input<float> input,
                                                               KestCommon::Output<float> output, int numBits) const {
    const ArqParam arqParam{static_cast<unsigned int>(numBits), true, false};
    const util::FloatData scale{static_cast<unsigned int>(input.channelNum), output.scale};
    const util::IntData offset{static_cast<unsigned int>(input.channelNum), output.offset};
    const int status = KestCommon::WtsArqCalibrationCpuKernel<float>(input.data, input.length, arqParam, scale, offset,
                                                                     util::KH_KW_CI_CO);
    if (status == STATUS_OK) {
        KestCommon::ArqClipAndQuantKhKwCiCo<float>(input.data, output.data, input.length, numBits, scale, offset);
    }
    return status;
}

int FindMaxMin<util::ThreadPoolDevice, float>::operator()(int length, const float* data, WeightQuantParam param) const {
    const ArqParam arqParam{static_cast<unsigned int>(param.numBits), true, false};
    const util::FloatData scale{static_cast<unsigned int>(param.channelNum), param.scale};
    const util::IntData offset{static_cast<unsigned int>(param.channelNum), param.offset};
    const int status = KestCommon::WtsArqCalibrationCpuKernel(data, length, arqParam, scale, offset, util::KH_KW_CI_CO);
    if (status != STATUS_OK) return status;
    std::copy_n(param.scale, param.channelNum, param.scaleStore);
    std::copy_n(param.offset, param.channelNum, param.offsetStore);
    return STATUS_OK;
}

int IdentityScaleOffset<util::ThreadPoolDevice, float>::operator()(WeightQuantParam param) const {
    std::copy_n(param.scaleStore, param.channelNum, param.scale);
    std::copy_n(param.offsetStore, param.channelNum, param.offset);
    return STATUS_OK;
}

}  // namespace KestTfOp

int ArqQuantFloatPython(float* data, unsigned int length, KestCommon::ArqParam arqParam, util::FloatData scale,
                        util::IntData offset) {
    int status = KestCommon::CheckArqQuantParams(data, length, arqParam, scale, offset);
    if (status != STATUS_OK) {
        LOG_ERROR("CheckArqQuantParams failed.\n");
        return status;
    }
    status = KestCommon::WtsArqCalibrationCpuKernel(data, length, arqParam, scale, offset, util::CO_CI_KH_KW);
    if (status != STATUS_OK) {
        LOG_ERROR("WtsArqCalibrationCpuKernel float of format CO_CI_KH_KW failed.\n");
        return status;
    }
    KestCommon::ArqFakeQuantInPlace(data, length, arqParam, scale, offset);
    return STATUS_OK;
}

int ArqQuantDoublePython(double* data, unsigned int length, KestCommon::ArqParam arqParam, util::FloatData scale,
                         util::IntData offset) {
    int status = KestCommon::CheckArqQuantParams(data, length, arqParam, scale, offset);
    if (status != STATUS_OK) {
        LOG_ERROR("CheckArqQuantParams failed.\n");
        return status;
    }
    status = KestCommon::WtsArqCalibrationCpuKernel(data, length, arqParam, scale, offset, util::CO_CI_KH_KW);
    if (status != STATUS_OK) {
        LOG_ERROR("WtsArqCalibrationCpuKernel double of format CO_CI_KH_KW failed.\n");
        return status;
    }
    KestCommon::ArqFakeQuantInPlace(data, length, arqParam, scale, offset);
    return STATUS_OK;
}

int QuantRealDoublePython(double* data, unsigned int length, util::FloatData scale, util::IntData offset,
                          unsigned int numBits, char* out) {
    return KestCommon::ArqQuantRealKernel(data, length, {numBits, scale.length > 1, false}, scale, offset, out);
}
