#include <kest/weight_quant/search_n.h>
#include <kest/weight_quant/search_n_v2.h>

#include "bench.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

// The shifts of 64 channels; of the plain rivals sixteen passes, each of which leaves an error for every value.

namespace bench {
namespace {

template <typename T>
using Rows = std::vector<std::vector<T>>;

constexpr std::size_t kNumChannels = 64;
constexpr std::size_t kNumShifts = 16;

/// What a row works with: values for which the channels take all kinds of shifts.
struct Task {
    explicit Task(std::size_t size) : n(size), rows(kNumChannels), intRows(kNumChannels) {
        for (std::size_t c = 0; c < kNumChannels; ++c) scale.push_back(0.9f * std::ldexp(1.0f, -10 - int(c % 12)));
        for (std::size_t i = 0; i < n; ++i) {
            const std::size_t c = i % kNumChannels;
            rows[c].push_back(x[i]);
            intRows[c].push_back(static_cast<int>(x[i] / scale[c]));
        }
    }

    std::size_t n;
    const float* x = NormalData(n);  // the channel innermost
    Rows<float> rows;
    Rows<int> intRows;
    std::vector<float> scale;
};

struct Result {
    std::vector<int> shifts;
    Rows<float> errors;  // of the streaming search
    bool operator==(const Result& other) const { return shifts == other.shifts && errors == other.errors; }
};

Result KestSearch(Task& task) {
    Result result{std::vector<int>(kNumChannels), {}};
    KestTfOp::SearchnQuantParam<float> quant{};
    quant.scale = task.scale.data();
    KestTfOp::SearchNInternelCpu(task.rows, result.shifts.data(), quant);
    return result;
}

Result KestIntSearch(Task& task) {
    Result result;
    KestCommon::SearchShiftBits(task.intRows, result.shifts);
    return result;
}

Result KestStreamingSearch(Task& task) {
    Result result{std::vector<int>(kNumChannels), {}};
    std::vector<float> shiftsAsFloat(kNumChannels);
    KestTfOp::DataParam param{
        {1, static_cast<int>(task.n / kNumChannels), 1, kNumChannels}, true, "NHWC", shiftsAsFloat.data()};
    KestCommon::SearchnV2InputParam<float> input{{}, static_cast<int>(task.n), const_cast<float*>(task.x)};
    KestTfOp::SearchnV2QuantParam<float> quant{false, result.shifts.data(), task.scale.data(), kNumChannels};
    int batch = 0;
    int numBatches = 1;
    KestTfOp::SearchNV2Functor<util::ThreadPoolDevice, float>()(param, batch, numBatches, input, quant);
    result.errors = input.errorTable;
    return result;
}

float FloatError(float q, float factor) {
    const float shifted = std::clamp(std::floor(q / factor), -32768.0f, 32767.0f);
    return std::fma(shifted, factor, -q);
}

template <typename Sum>
std::vector<int> BestShifts(const Rows<Sum>& errors) {
    std::vector<int> shifts;
    for (const auto& row : errors)
        shifts.push_back(1 + static_cast<int>(std::min_element(row.begin(), row.end()) - row.begin()));
    return shifts;
}

/// The sums of squaredError(q, factor) over the integers q of each row, for each shift.
template <typename Sum, typename T, typename SquaredError>
Rows<Sum> PlainErrors(const std::vector<T>& q, SquaredError squaredError) {
    std::vector<decltype(squaredError(T{}, T{}))> buffer(q.size());
    Rows<Sum> errors(kNumChannels);
    const std::size_t length = q.size() / kNumChannels;
    for (std::size_t shift = 1; shift <= kNumShifts; ++shift) {
        const T factor = static_cast<T>(1 << shift);
        for (std::size_t k = 0; k < q.size(); ++k) buffer[k] = squaredError(q[k], factor);
        for (std::size_t c = 0; c < kNumChannels; ++c) {
            Sum sum = 0;
            for (std::size_t k = c * length; k < (c + 1) * length; ++k) sum = static_cast<Sum>(sum + buffer[k]);
            errors[c].push_back(sum);
        }
    }
    return errors;
}

std::vector<float> Quantised(const Rows<float>& rows, const std::vector<float>& scale) {
    std::vector<float> q;
    for (std::size_t c = 0; c < rows.size(); ++c)
        for (const float x : rows[c]) q.push_back(std::round(x / scale[c]));
    return q;
}

Result PlainSearch(Task& task) {
    const auto squaredError = [](float q, float factor) {
        const double error = FloatError(q, factor);
        return error * error;
    };
    return {BestShifts(PlainErrors<float>(Quantised(task.rows, task.scale), squaredError)), {}};
}

Result PlainIntSearch(Task& task) {
    std::vector<int> q;
    for (const std::vector<int>& row : task.intRows) q.insert(q.end(), row.begin(), row.end());
    const auto squaredError = [](int x, int factor) {
        const double error = std::clamp(x / factor, -32768, 32767) * factor - x;
        return error * error;
    };
    return {BestShifts(PlainErrors<double>(q, squaredError)), {}};
}

Result PlainStreamingSearch(Task& task) {
    Rows<float> rows(kNumChannels);
    for (std::size_t i = 0; i < task.n; ++i) rows[i % kNumChannels].push_back(task.x[i]);
    const auto squaredError = [](float q, float factor) {
        const float error = FloatError(q, factor);
        return error * error;
    };
    const Rows<float> errors = PlainErrors<float>(Quantised(rows, task.scale), squaredError);
    return {BestShifts(errors), errors};
}

}  // namespace

void AddShiftRows(Size size) {
    const auto addAll = [=](const std::string& what, bool parallel, auto plain, auto kest) {
        const auto add = [=](const char* who, int numThreads, auto search) {
            const auto setUp = [=](auto&) {
                const auto task = std::make_shared<Task>(size.n);
                if (size.n == kSmall.n) RequireSame(search(*task) == kest(*task), what.c_str());
                return [=](auto&) { benchmark::DoNotOptimize(search(*task).shifts.data()); };
            };
            AddRow(what, size.name, who, double(size.n), 0, setUp, numThreads);
        };
        add("plain", 1, plain);
        add("kest", 1, kest);
        if (parallel && size.n > kSmall.n) add("kest", 2, kest);
    };
    addAll("shift search", true, PlainSearch, KestSearch);
    addAll("shift search of integers", true, PlainIntSearch, KestIntSearch);
    addAll("shift search streaming", false, PlainStreamingSearch, KestStreamingSearch);
}

}  // namespace bench
