#include <kest/kernel_frame/numeric_helpers.h>

#include <kest/kernel_frame/half_loops.h>
#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/log.h>

#include <algorithm>
#include <cfloat>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace util {

float Fp16ToFp32(unsigned short half) {
    return HalfToFloat(half);
}

unsigned short Fp32ToFp16(float value) {
    return FloatToHalf(value);
}

void DataCastToFloat32Functor<ThreadPoolDevice, unsigned short>::operator()(const unsigned short* in, float* out,
                                                                            int n) const {
    const auto count = static_cast<std::size_t>(std::max(n, 0));
    DispatchIsa([=](auto isa) { HalfLoops<decltype(isa)>::ToFloat(in, out, count); });
}

void DataCastToFloat16Functor<ThreadPoolDevice, float>::operator()(const float* in, unsigned short* out, int n) const {
    const auto count = static_cast<std::size_t>(std::max(n, 0));
    DispatchIsa([=](auto isa) { HalfLoops<decltype(isa)>::ToHalf(in, out, count); });
}

std::string OnnxTypeToString(int type) {
    constexpr int kFloat16 = 10;
    return type == kFloat16 ? "FLOAT16" : "FLOAT32";
}

int GetLengthByDim(std::vector<int> dims, long& length) {
    length = dims.empty() ? 0 : 1;
    for (const int size : dims) {
        if (size < 1 || std::numeric_limits<int64_t>::max() / size < length) {
            LOG_ERROR("Overflow is detected during calculating dataSize!");
            return STATUS_BAD_PARAM;
        }
        length *= size;
    }
    return STATUS_OK;
}

int CheckBalanceFactor(const float* factors, unsigned int n) {
    for (unsigned int i = 0; i < n; ++i) {
        if (factors[i] < FLT_EPSILON || factors[i] > 0x1p23f) {
            LOG_ERROR("tensor balance factor out of range[FLT_EPSILON, 1/FLT_EPSILON]: %f.\n",
                      static_cast<double>(factors[i]));
            return VALUE_RANGE_ERROR;
        }
    }
    return STATUS_OK;
}

}  // namespace util
