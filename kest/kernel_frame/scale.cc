#include <kest/kernel_frame/scale.h>

#include <kest/kernel_frame/log.h>

#include <cfloat>
#include <cmath>

namespace util {

int ProcessScale(float& scale) {
    if (scale < FLT_EPSILON) {
        scale = 1.0f;
        return STATUS_OK;
    }
    if (std::fabs(scale) > FLT_MAX) {
        LOG_ERROR("Not support scale is +inf.\n");
        return STATUS_SCALE_ERROR;
    }
    if (1.0f / scale < FLT_EPSILON) {
        LOG_ERROR("Not support scale greater than 1 / FLT_EPSILON.\n");
        return STATUS_SCALE_ERROR;
    }
    return STATUS_OK;
}

int ProcessScale(double& scale) {
    if (scale < DBL_EPSILON) {
        scale = 1.0;
        return STATUS_OK;
    }
    if (std::fabs(scale) > DBL_MAX) {
        LOG_ERROR("Not support scale is +inf.\n");
        return STATUS_SCALE_ERROR;
    }
    if (1.0 / scale < DBL_EPSILON) {
        LOG_ERROR("Not support scale greater than 1 / DBL_EPSILON.\n");
        return STATUS_SCALE_ERROR;
    }
    return STATUS_OK;
}

}  // namespace util

namespace KestCommon {

void ProcessScale(const float* in, float* scaleOut, int* offsetOut, int n, bool reciprocal) {
    constexpr float kSmallest = 1e-6f;
    for (int i = 0; i < n; ++i) {
        float scale = std::fabs(in[i]);
        if (scale < kSmallest) scale += kSmallest;
        scaleOut[i] = reciprocal ? 1.0f / scale : scale;
        offsetOut[i] = 0;
    }
}

template <typename T>
void Clip(T& value, int low, int high) {
    if (value < static_cast<T>(low)) {
        value = static_cast<T>(low);
    } else if (value > static_cast<T>(high)) {
        value = static_cast<T>(high);
    }
}

template KEST_EXPORT void Clip<int>(int&, int, int);
template KEST_EXPORT void Clip<float>(float&, int, int);

}  // namespace KestCommon

namespace KestTfOp {

void ProcessScale<util::ThreadPoolDevice, float>::operator()(const float* in, float* scaleOut, int* offsetOut, int n,
                                                             bool reciprocal) const {
    KestCommon::ProcessScale(in, scaleOut, offsetOut, n, reciprocal);
}

}  // namespace KestTfOp
