#include <kest/weight_quant/nuq.h>

#include <kest/kernel_frame/extremes.h>
#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/log.h>
#include <kest/kernel_frame/rounding.h>
#include <kest/kernel_frame/scale.h>
#include <kest/weight_quant/arq.h>
#include <kest/weight_quant/kmeans.h>
#include <kest/weight_quant/nuq_loops.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace KestCommon {
namespace {

constexpr unsigned int kGridBits = 8;  // of the grid that is clustered

template <typename T>
bool IsFinite(const T* data, std::size_t length) {
    constexpr T kMax = std::numeric_limits<T>::max();
    const util::Extremes<T> found = util::FindExtremes(data, length);
    return !util::HasNan(data, length) && found.min >= -kMax && found.max <= kMax;
}

template <typename T>
int CheckNuqQuantParams(const T* data, unsigned int length, const util::FloatData& scale, const util::IntData& offset) {
    if (data == nullptr) {
        LOG_ERROR("Empty data pointer!\n");
        return STATUS_BAD_PARAM;
    }
    if (length == 0) {
        LOG_ERROR("The length cannot be 0!\n");
        return STATUS_BAD_PARAM;
    }
    if (!IsFinite(data, length)) {
        LOG_ERROR("The data contains invalid values!\n");
        return STATUS_BAD_PARAM;
    }
    if (scale.length == 0) {
        LOG_ERROR("The scale.length should not be 0!\n");
        return STATUS_BAD_PARAM;
    }
    if (length % scale.length != 0) {
        LOG_ERROR("The length of data should be an integer multiple of scale.length!\n");
        return STATUS_BAD_PARAM;
    }
    if (offset.length != scale.length) {
        LOG_ERROR("The offset.length should be same as scale.length!\n");
        return STATUS_BAD_PARAM;
    }
    return STATUS_OK;
}

int CheckNuqClusters(unsigned int length, unsigned int numClusters, std::size_t numGridValues, std::size_t numCenters) {
    if (numClusters == 0) {
        LOG_ERROR("The numClusters should not be 0!\n");
        return STATUS_BAD_PARAM;
    }
    if (numGridValues != length || numCenters < numClusters) {
        LOG_ERROR("%zu grid values and %zu centers, it should be %u and at least %u.\n", numGridValues, numCenters,
                  length, numClusters);
        return STATUS_BAD_PARAM;
    }
    return STATUS_OK;
}

/// The channels of a CO_CI_KH_KW tensor.
struct Channels {
    std::size_t count;
    std::size_t length;  // of each
};

template <typename T>
void ToGrid(const T* data, const Channels& channels, const util::FloatData& scale, const util::IntData& offset,
            std::vector<T>& grid) {
    for (std::size_t c = 0; c < channels.count; ++c) {
        const std::size_t first = c * channels.length;
        util::DispatchIsa([&](auto isa) {
            NuqLoops<decltype(isa), T>::ToGrid(data + first, channels.length, scale.data[c],
                                               static_cast<T>(offset.data[c]), &grid[first]);
        });
    }
}

template <typename T>
void FromGrid(const std::vector<T>& grid, const Channels& channels, const util::FloatData& scale,
              const util::IntData& offset, T* out) {
    for (std::size_t c = 0; c < channels.count; ++c) {
        const std::size_t first = c * channels.length;
        util::DispatchIsa([&](auto isa) {
            NuqLoops<decltype(isa), T>::FromGrid(&grid[first], channels.length, scale.data[c],
                                                 static_cast<T>(offset.data[c]), out + first);
        });
    }
}

/// The share of one element of each channel in the clustering.
std::vector<double> ChannelWeights(const util::FloatData& scale) {
    std::vector<double> weights(scale.data, scale.data + scale.length);
    if (weights.empty()) return weights;
    const double smallest = *std::min_element(weights.begin(), weights.end());
    double sum = 0;
    for (double& weight : weights) {
        weight = weight / smallest * (weight / smallest);
        sum += weight;
    }
    for (double& weight : weights) weight /= sum;
    return weights;
}

/// Fits scale and offset of each channel to the centres of its elements.
template <typename T>
void Refit(const T* data, const std::vector<T>& grid, const Channels& channels, bool withOffset,
           const util::FloatData& scale, const util::IntData& offset) {
    for (std::size_t c = 0; c < channels.count; ++c) {
        const T* x = data + c * channels.length;
        const T* centres = &grid[c * channels.length];
        util::DispatchIsa([&](auto isa) {
            using Loops = NuqLoops<decltype(isa), T>;
            const auto fitted =
                static_cast<float>(Loops::FitScale(x, centres, channels.length, static_cast<T>(offset.data[c])));
            scale.data[c] = std::isnan(fitted) ? 1.0f : fitted;
            if (!withOffset) return;
            const T sum = Loops::SumOfOffsets(x, centres, channels.length, scale.data[c] + 1e-6);
            offset.data[c] = util::SaturateTo<int>(util::RoundHalfAway(sum / static_cast<T>(channels.length)));
        });
    }
}

/// Runs the calibration and leaves every element's centre in `grid`; both are filled here.
template <typename T>
int Calibrate(const T* data, unsigned int length, const NuqParam& nuqParam, const util::FloatData& scale,
              const util::IntData& offset, std::vector<T>& grid, std::vector<T>& centers) {
    if (data != nullptr) grid.assign(data, data + length);
    centers.assign(nuqParam.numClusters, 0);
    return NuqCalibrationCpuKernel(data, grid, centers, length, nuqParam, scale, offset);
}

}  // namespace

std::vector<double> Weight(unsigned int length, const util::FloatData& scale, unsigned int step) {
    const std::vector<double> channels = ChannelWeights(scale);
    if (channels.empty()) return {};
    std::vector<double> weights(length);
    for (unsigned int i = 0; i < length; ++i)
        weights[i] = channels[step == 0 ? 0 : std::min<std::size_t>(i / step, channels.size() - 1)];
    return weights;
}

template <typename T>
int NuqCalibrationCpuKernel(const T* data, std::vector<T>& gridValues, std::vector<T>& centers, unsigned int length,
                            const NuqParam& nuqParam, const util::FloatData& scale, const util::IntData& offset) {
    int status = CheckNuqQuantParams(data, length, scale, offset);
    if (status == STATUS_OK) status = CheckNuqClusters(length, nuqParam.numClusters, gridValues.size(), centers.size());
    if (status != STATUS_OK) {
        LOG_ERROR("Check NUQ parameters failed!\n");
        return STATUS_BAD_PARAM;
    }
    const ArqParam arqParam{kGridBits, true, nuqParam.withOffset};
    status = WtsArqCalibrationCpuKernel(data, length, arqParam, scale, offset, util::CO_CI_KH_KW);
    if (status != STATUS_OK) {
        LOG_ERROR("NuqCalibrationCpuKernel run ARQ init failed! \n");
        return status;
    }

    const Channels channels{scale.length, length / scale.length};
    for (int round = 0;; ++round) {
        ToGrid(round == 0 ? gridValues.data() : data, channels, scale, offset, gridValues);
        ClusterRuns(gridValues, nuqParam.numClusters, ChannelWeights(scale), channels.length, centers);
        if (round >= nuqParam.numIterations) break;
        Refit(data, gridValues, channels, nuqParam.withOffset, scale, offset);
        if (round + 1 == nuqParam.numIterations) break;
    }

    for (std::size_t c = 0; c < channels.count; ++c) {
        status = util::ProcessScale(scale.data[c]);
        if (status != STATUS_OK) {
            LOG_ERROR("NUQ scale is illegal.\n");
            return status;
        }
    }
    return STATUS_OK;
}

template <typename T>
int NuqKernel(T* data, unsigned int length, const NuqParam& nuqParam, const util::FloatData& scale,
              const util::IntData& offset) {
    if (scale.length == 0) {
        LOG_ERROR("The scale.length should not be 0!\n");
        return STATUS_BAD_PARAM;
    }
    std::vector<T> grid;
    std::vector<T> centers;
    const int status = Calibrate(data, length, nuqParam, scale, offset, grid, centers);
    if (status != STATUS_OK) return status;
    FromGrid(grid, {scale.length, length / scale.length}, scale, offset, data);
    return STATUS_OK;
}

#define INSTANTIATE(T)                                                                                               \
    template KEST_EXPORT int NuqCalibrationCpuKernel(const T*, std::vector<T>&, std::vector<T>&, unsigned int,       \
                                                     const NuqParam&, const util::FloatData&, const util::IntData&); \
    template KEST_EXPORT int NuqKernel(T*, unsigned int, const NuqParam&, const util::FloatData&, const util::IntData&)
INSTANTIATE(float);
INSTANTIATE(double);
#undef INSTANTIATE

int NuqQuant(float* data, unsigned int length, const NuqParam& nuqParam, const util::FloatData& scale,
             const util::IntData& offset) {
    return NuqKernel(data, length, nuqParam, scale, offset);
}

int NuqReal(double* data, unsigned int length, const util::FloatData& scale, const util::IntData& offset, char* out) {
    if (CheckNuqQuantParams(data, length, scale, offset) != STATUS_OK) {
        LOG_ERROR("Check NUQ parameters failed!\n");
        return STATUS_BAD_PARAM;
    }
    const std::size_t channelLength = length / scale.length;
    for (std::size_t c = 0; c < scale.length; ++c) {
        const std::size_t first = c * channelLength;
        util::DispatchIsa([&](auto isa) {
            NuqWeightLoops<decltype(isa)>::Quant(data + first, channelLength, scale.data[c], offset.data[c],
                                                 out + first);
        });
    }
    return STATUS_OK;
}

}  // namespace KestCommon

namespace KestTfOp {

int NuqFunctor<util::ThreadPoolDevice, float>::operator()(float* data, int length, WeightNuqQuantParam param,
                                                          KestCommon::ThrustParam<float>& /*thrust*/) const {
    const KestCommon::NuqParam nuqParam{static_cast<unsigned int>(std::max(param.numClusters, 0)), param.withOffset,
                                        param.numIterations};
    const auto numElements = static_cast<unsigned int>(std::max(length, 0));
    const auto numChannels = static_cast<unsigned int>(std::max(param.channelNum, 0));
    const util::FloatData scale{numChannels, param.scale};
    const util::IntData offset{numChannels, param.offset};
    std::vector<float> grid;
    std::vector<float> centers;
    const int status = KestCommon::Calibrate<float>(data, numElements, nuqParam, scale, offset, grid, centers);
    if (status != STATUS_OK) return status;
    KestCommon::FromGrid(grid, {numChannels, numElements / numChannels}, scale, offset, data);
    for (std::size_t k = 0; k < centers.size(); ++k) param.centers[k] = util::SaturateTo<int>(centers[k]);
    for (unsigned int c = 0; c < numChannels; ++c) {
        if (param.scale[c] < 1e-6f) param.scale[c] = 1;
        param.scaleStore[c] = param.scale[c];
        param.offsetStore[c] = param.offset[c];
    }
    return STATUS_OK;
}

int FakeQuantWithNuq<util::ThreadPoolDevice, float>::operator()(WeightNuqQuantParam param, const float* in, float* out,
                                                                int length) const {
    if (param.channelNum < 1) {
        LOG_ERROR("channelNum = %d, it should be greater than 0.\n", param.channelNum);
        return STATUS_BAD_PARAM;
    }
    const double half = util::PowerOfTwo(int64_t{param.numBits} - 1);
    KestCommon::NuqChannel channel{};
    channel.centers = param.centers;
    channel.numCenters = param.numClusters;
    channel.low = static_cast<float>(std::trunc(-half));
    channel.high = static_cast<float>(std::trunc(half - 1));
    const std::size_t step = static_cast<std::size_t>(std::max(length, 0) / param.channelNum);
    const auto fakeQuant = [&](std::size_t first, std::size_t count) {
        util::DispatchIsa([&](auto isa) {
            KestCommon::NuqWeightLoops<decltype(isa)>::FakeQuant(in + first, out + first, count, channel);
        });
    };
    for (int c = 0; c < param.channelNum; ++c) {
        channel.divides = !(param.scaleStore[c] < static_cast<float>(DBL_EPSILON));
        channel.scale = param.scaleStore[c];
        channel.offset = static_cast<float>(param.offsetStore[c]);
        fakeQuant(static_cast<std::size_t>(c) * step, step);
    }
    if (param.numClusters > 0 && length > 0) {  // what belongs to no channel is compared as it is
        channel = {param.centers, param.numClusters, -FLT_MAX, FLT_MAX, false, 1, 0};
        fakeQuant(static_cast<std::size_t>(param.channelNum) * step,
                  static_cast<std::size_t>(length % param.channelNum));
    }
    return STATUS_OK;
}

int IdentityWeightNuq<util::ThreadPoolDevice, float>::operator()(const float* in, float* out, int length) const {
    std::copy_n(in, length, out);
    return STATUS_OK;
}

int IdentityScaleOffsetNuq<util::ThreadPoolDevice, float>::operator()(WeightNuqQuantParam param) const {
    std::copy_n(param.scaleStore, param.channelNum, param.scale);
    std::copy_n(param.offsetStore, param.channelNum, param.offset);
    return STATUS_OK;
}

}  // namespace KestTfOp

int NuqQuantPython(double* data, unsigned int length, KestCommon::NuqParam nuqParam, util::FloatData scale,
                   util::IntData offset) {
    return KestCommon::NuqKernel(data, length, nuqParam, scale, offset);
}

int NuqQuantRealPython(double* data, unsigned int length, util::FloatData scale, util::IntData offset, char* out) {
    return KestCommon::NuqReal(data, length, scale, offset, out);
}
