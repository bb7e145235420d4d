#include "machine_limits.h"

#include <cstring>

namespace bench {
namespace {

typedef float Vector __attribute__((vector_size(64)));
constexpr std::size_t kLanes = sizeof(Vector) / sizeof(float);
constexpr std::size_t kChains = 4;
constexpr std::size_t kStep = kLanes * kChains;

void Load(Vector& vector, const float* x) {
    std::memcpy(&vector, x, sizeof(vector));
}

}  // namespace

float LimitRead(const float* x, std::size_t n) {
    Vector sum[kChains] = {};
    for (std::size_t i = 0; i < n; i += kStep) {
        for (std::size_t chain = 0; chain < kChains; ++chain) {
            Vector values;
            Load(values, x + i + chain * kLanes);
            sum[chain] += values;
        }
    }
    const Vector all = (sum[0] + sum[1]) + (sum[2] + sum[3]);
    float total = 0;
    for (std::size_t lane = 0; lane < kLanes; ++lane) total += all[lane];
    return total;
}

float LimitMinMax(const float* x, std::size_t n) {
    Vector min[kChains] = {};
    Vector max[kChains] = {};
    for (std::size_t i = 0; i < n; i += kStep) {
        for (std::size_t chain = 0; chain < kChains; ++chain) {
            Vector values;
            Load(values, x + i + chain * kLanes);
            min[chain] = values < min[chain] ? values : min[chain];
            max[chain] = values > max[chain] ? values : max[chain];
        }
    }
    for (std::size_t chain = 1; chain < kChains; ++chain) {
        min[0] = min[chain] < min[0] ? min[chain] : min[0];
        max[0] = max[chain] > max[0] ? max[chain] : max[0];
    }
    float low = 0;
    float high = 0;
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
        low = min[0][lane] < low ? min[0][lane] : low;
        high = max[0][lane] > high ? max[0][lane] : high;
    }
    return high - low;
}

void LimitScale(float* x, std::size_t n, float factor) {
    for (std::size_t i = 0; i < n; i += kLanes) {
        Vector values;
        Load(values, x + i);
        values *= factor;
        std::memcpy(x + i, &values, sizeof(values));
    }
}

void LimitCopy(const float* x, float* out, std::size_t n) {
    std::memcpy(out, x, n * sizeof(float));
}

}  // namespace bench
