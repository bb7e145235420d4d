#include <kest/activation_calib/ifmr.h>
#include <kest/weight_quant/arq.h>

#include "bench.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

// Weights of 8 bits. Passes that write in place meet the values they wrote before: they take no shortcut for them.

namespace bench {
namespace {

using KestCommon::ArqParam;
using util::WeightFormat;

constexpr int kLow = -128;
constexpr int kHigh = 127;
constexpr ArqParam kSymmetric{8, true, false};
constexpr ArqParam kAsymmetric{8, true, true};

struct Factors {
    explicit Factors(std::size_t numChannels) : scale(numChannels, 0.03f), offset(numChannels, 0) {}
    util::FloatData Scale() { return {static_cast<unsigned int>(scale.size()), scale.data()}; }
    util::IntData Offset() { return {static_cast<unsigned int>(offset.size()), offset.data()}; }

    std::vector<float> scale;
    std::vector<int> offset;
};

// The plain rivals, straight from the formulas in arq.h.

bool PlainHasNan(const float* x, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
        if (std::isnan(x[i])) return true;
    return false;
}

void PlainCalibrate(const float* x, std::size_t n, bool withOffset, WeightFormat format, Factors& factors) {
    const std::size_t numChannels = factors.scale.size();
    const bool contiguous = format == util::CO_CI_KH_KW;
    for (std::size_t c = 0; c < numChannels; ++c) {
        const std::size_t begin = contiguous ? c * (n / numChannels) : c;
        const std::size_t end = contiguous ? begin + n / numChannels : n;
        float min = FLT_MAX;
        float max = -FLT_MAX;
        for (std::size_t i = begin; i < end; i += contiguous ? 1 : numChannels) {
            if (x[i] < min) min = x[i];
            if (x[i] > max) max = x[i];
        }
        if (withOffset) {
            min = std::min(min, 0.0f);
            max = std::max(max, 0.0f);
            factors.scale[c] = (max - min) / 255.0f;
            factors.offset[c] = static_cast<int>(std::round(-min / factors.scale[c])) - 128;
        } else {
            const float extreme = std::fabs(max) > std::fabs(min) ? max : min;
            factors.scale[c] = extreme > 0 ? extreme / 127.0f : extreme / -128.0f;
            factors.offset[c] = 0;
        }
    }
}

int PlainCode(float x, float scale, int offset) {
    return std::clamp(static_cast<int>(std::round(x / scale)) + offset, kLow, kHigh);
}

void PlainFakeQuant(float* x, std::size_t n, const Factors& factors) {
    const std::size_t channelLength = n / factors.scale.size();
    for (std::size_t c = 0; c < factors.scale.size(); ++c) {
        const float scale = factors.scale[c];
        const int offset = factors.offset[c];
        for (std::size_t i = c * channelLength; i < (c + 1) * channelLength; ++i)
            x[i] = static_cast<float>(PlainCode(x[i], scale, offset) - offset) * scale;
    }
}

void PlainFakeQuantInnermost(const float* x, float* out, std::size_t n, const Factors& factors) {
    for (std::size_t i = 0; i < n; ++i) {
        const std::size_t c = i % factors.scale.size();
        const int code = PlainCode(x[i], factors.scale[c], factors.offset[c]);
        out[i] = static_cast<float>(code - factors.offset[c]) * factors.scale[c];
    }
}

void PlainQuant(const float* x, char* out, std::size_t n, const Factors& factors) {
    const std::size_t channelLength = n / factors.scale.size();
    for (std::size_t c = 0; c < factors.scale.size(); ++c) {
        for (std::size_t i = c * channelLength; i < (c + 1) * channelLength; ++i)
            out[i] = static_cast<char>(PlainCode(x[i], factors.scale[c], factors.offset[c]));
    }
}

/// What a row works with.
struct Task {
    Task(std::size_t size, std::size_t numChannels) : n(size), factors(numChannels) {}
    unsigned int Length() const { return static_cast<unsigned int>(n); }
    char* Codes() const { return reinterpret_cast<char*>(y); }

    std::size_t n;
    const float* x = NormalData(n);
    float* y = WorkingCopy(n);
    Factors factors;
};

/// Adds kest's row and that of the plain loop. An element costs `numBytes` bytes of memory traffic.
template <typename Kest, typename Plain>
void AddPair(std::string what, Size size, std::size_t numChannels, int numBytes, Kest kest, Plain plain) {
    if (numChannels > 1) what += " K=" + std::to_string(numChannels);
    const auto add = [&](const char* who, auto setUp) {
        AddRow(what, size.name, who, double(size.n), double(size.n) * numBytes, setUp);
    };
    add("kest", [=](auto&) { return [=, task = std::make_shared<Task>(size.n, numChannels)](auto&) { kest(*task); }; });
    add("plain", [=](auto&) {
        if (size.n == kSmall.n) {
            Task task(size.n, numChannels);
            kest(task);
            const std::vector<float> expected(task.y, task.y + task.n);
            const Factors factors = task.factors;
            task = Task(size.n, numChannels);
            plain(task);
            const bool same = std::memcmp(task.y, expected.data(), task.n * sizeof(float)) == 0;
            RequireSame(same && task.factors.scale == factors.scale && task.factors.offset == factors.offset,
                        what.c_str());
        }
        return [=, task = std::make_shared<Task>(size.n, numChannels)](auto&) { plain(*task); };
    });
}

void AddCalibrationPair(const std::string& what, Size size, std::size_t numChannels, ArqParam param,
                        WeightFormat format) {
    AddPair(
        what, size, numChannels, 4,
        [=](Task& task) {
            KestCommon::WtsArqCalibrationCpuKernel(task.x, task.Length(), param, task.factors.Scale(),
                                                   task.factors.Offset(), format);
        },
        [=](Task& task) { PlainCalibrate(task.x, task.n, param.withOffset, format, task.factors); });
}

}  // namespace

void AddArqRows(Size size) {
    AddPair(
        "arq check parameters", size, 1, 4,
        [](Task& task) {
            benchmark::DoNotOptimize(KestCommon::CheckArqQuantParams(task.x, task.Length(), kSymmetric,
                                                                     task.factors.Scale(), task.factors.Offset()));
        },
        [](Task& task) { benchmark::DoNotOptimize(PlainHasNan(task.x, task.n)); });
    for (const std::size_t numChannels : {64, 512})
        AddCalibrationPair("arq calibrate", size, numChannels, kSymmetric, util::CO_CI_KH_KW);
    AddCalibrationPair("arq calibrate with offset", size, 64, kAsymmetric, util::CO_CI_KH_KW);
    for (const std::size_t numChannels : {64, 512, 4096})
        AddCalibrationPair("arq calibrate innermost", size, numChannels, kSymmetric, util::KH_KW_CI_CO);

    // The library's pass in place has no entry of its own; IFMR's second mode is the same loop with one channel.
    AddPair(
        "arq fake-quant in place", size, 1, 8,
        [](Task& task) {
            const KestCommon::IfmrParam apply{1, 8, true, 1, 1, 1, 1, 1};
            KestCommon::IfmrQuant(task.y, task.Length(), apply, task.factors.Scale(), task.factors.Offset());
        },
        [](Task& task) { PlainFakeQuant(task.y, task.n, task.factors); });
    for (const std::size_t numChannels : {64, 512}) {
        AddPair(
            "ArqQuantFloatPython", size, numChannels, 16,
            [](Task& task) {
                ArqQuantFloatPython(task.y, task.Length(), kSymmetric, task.factors.Scale(), task.factors.Offset());
            },
            [](Task& task) {
                if (PlainHasNan(task.y, task.n)) return;
                PlainCalibrate(task.y, task.n, false, util::CO_CI_KH_KW, task.factors);
                PlainFakeQuant(task.y, task.n, task.factors);
            });
        AddPair(
            "ArqClipAndQuantKhKwCiCo", size, numChannels, 8,
            [](Task& task) {
                KestCommon::ArqClipAndQuantKhKwCiCo(task.x, task.y, task.Length(), 8, task.factors.Scale(),
                                                    task.factors.Offset());
            },
            [](Task& task) { PlainFakeQuantInnermost(task.x, task.y, task.n, task.factors); });
        AddPair(
            "ArqQuantReal", size, numChannels, 9,
            [](Task& task) {
                KestCommon::ArqQuantReal(const_cast<float*>(task.x), task.Length(), kSymmetric, task.factors.Scale(),
                                         task.factors.Offset(), task.Codes());
            },
            [](Task& task) {
                if (PlainHasNan(task.x, task.n)) return;
                PlainQuant(task.x, task.Codes(), task.n, task.factors);
            });
    }
}

}  // namespace bench
