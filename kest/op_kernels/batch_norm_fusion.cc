#include <kest/op_kernels/batch_norm_fusion.h>

#include <kest/kernel_frame/parallel.h>
#include <kest/record/record_update.h>

#include <algorithm>
#include <cmath>

namespace KestTfOp {

int FuseScaleWCpu(RetrainWeightQuantParam weights, BnParam batchNorm, float* weightScaleOut) {
    const double multiplier = *batchNorm.multiplier;
    for (int c = 0; c < weights.channelNum; ++c) {
        const float product = weights.scaleW[c] * batchNorm.gamma[c];
        const float variance = std::fabs(batchNorm.variance[c] + *batchNorm.epsilon);
        const double deviation = std::sqrt(static_cast<double>(variance));
        float scale = static_cast<float>(std::fabs(static_cast<double>(product) / deviation * multiplier));
        if (scale < 1e-6f) scale = 1;
        weightScaleOut[c] = scale;
        weights.hostScaleW[c] = scale;
        weights.hostOffsetW[c] = weights.offsetW[c];
        if (!ValueCheck(scale)) return WEIGHT_SCALE_ERROR;
    }
    return STATUS_OK;
}

int CopyDataToHost<util::ThreadPoolDevice, float>::operator()(DataQuantFactors factors) const {
    *factors.hostScaleD = *factors.scaleD;
    *factors.hostOffsetD = *factors.offsetD;
    return ValueCheck(*factors.hostScaleD) ? STATUS_OK : DATA_SCALE_ERROR;
}

int CopyDataToHost<util::ThreadPoolDevice, float>::operator()(RetrainDataQuantParam data,
                                                              RetrainWeightQuantParam weights, BnParam batchNorm,
                                                              float* dataScaleOut, float* weightScaleOut) const {
    *dataScaleOut = *data.scaleD;
    const int status = (*this)(DataQuantFactors{data.scaleD, data.offsetD, data.hostScaleD, data.hostOffsetD});
    return status == STATUS_OK ? FuseScaleWCpu(weights, batchNorm, weightScaleOut) : status;
}

int FetchScaleFunctor<util::ThreadPoolDevice, float>::operator()(float* dst, const float* src, int n) const {
    constexpr int kWorthwhile = 1 << 17;
    util::ParallelFor(n, n >= kWorthwhile,
                      [&](util::Block block) { std::copy(src + block.begin, src + block.end, dst + block.begin); });
    return STATUS_OK;
}

}  // namespace KestTfOp
