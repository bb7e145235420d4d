#include "bench.h"
#include "machine_limits.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <random>

namespace bench {
namespace {

/// Grows to the largest size asked for; `fill(data, n)` fills it whenever it does.
class Array {
public:
    template <typename Fill>
    float* Get(std::size_t n, Fill fill) {
        if (n > size_) {
            if (data_ != nullptr) operator delete[](data_, kAlignment);
            data_ = new (kAlignment) float[n];
            size_ = n;
            fill(data_, n);
        }
        return data_;
    }

private:
    static constexpr std::align_val_t kAlignment{64};
    float* data_ = nullptr;
    std::size_t size_ = 0;
};

void AddLimitRows(Size size) {
    const std::size_t n = size.n;
    const double bytes = static_cast<double>(n * sizeof(float));
    const auto add = [=](const char* what, double numBytes, auto setUp) {
        AddRow(what, size.name, "limit", static_cast<double>(n), numBytes, setUp);
    };
    add("read", bytes,
        [=](auto&) { return [x = NormalData(n), n](auto&) { benchmark::DoNotOptimize(LimitRead(x, n)); }; });
    add("min and max", bytes,
        [=](auto&) { return [x = NormalData(n), n](auto&) { benchmark::DoNotOptimize(LimitMinMax(x, n)); }; });
    add("scale in place", 2 * bytes, [=](auto&) {
        return [x = WorkingCopy(n), n](auto&) { LimitScale(x, n, 1.0f); };  // the compiler knows no factor
    });
    add("copy", 2 * bytes,
        [=](auto&) { return [x = NormalData(n), out = WorkingCopy(n), n](auto&) { LimitCopy(x, out, n); }; });
    if (n == kSmall.n) return;
    const auto copyHalves = [=](auto&) {
        return [x = NormalData(n), out = WorkingCopy(n), half = n / 2](auto&) {
#pragma omp parallel for
            for (int thread = 0; thread < 2; ++thread) LimitCopy(x + thread * half, out + thread * half, half);
        };
    };
    AddRow("copy", size.name, "limit", static_cast<double>(n), 2 * bytes, copyHalves, 2);
    const auto readHalves = [=](auto&) {
        return [x = NormalData(n), half = n / 2](auto&) {
#pragma omp parallel for
            for (int thread = 0; thread < 2; ++thread) benchmark::DoNotOptimize(LimitRead(x + thread * half, half));
        };
    };
    AddRow("read", size.name, "limit", static_cast<double>(n), bytes, readHalves, 2);
}

}  // namespace

const float* NormalData(std::size_t n) {
    static Array array;
    return array.Get(n, [](float* data, std::size_t size) {
        std::mt19937 engine(1);
        std::normal_distribution<float> normal;
        std::generate_n(data, size, [&] { return normal(engine); });
    });
}

const float* ReluData(std::size_t n) {
    static Array array;
    return array.Get(n, [](float* data, std::size_t size) {
        std::transform(NormalData(size), NormalData(size) + size, data, [](float x) { return x > 0 ? x : 0.0f; });
    });
}

float* WorkingCopy(std::size_t n) {
    static Array array;
    float* data = array.Get(n, [](float*, std::size_t) {});
    std::copy_n(NormalData(n), n, data);
    return data;
}

void RequireSame(bool same, const char* what) {
    if (same) return;
    std::fprintf(stderr, "%s: the rival's result differs\n", what);
    std::exit(1);
}

}  // namespace bench

int main(int argc, char** argv) {
    for (const bench::Size size : {bench::kSmall, bench::kMedium, bench::kLarge}) {
        bench::AddLimitRows(size);
        bench::AddArqRows(size);
        if (size.n < bench::kLarge.n) bench::AddIfmrRows(size);  // the plain search takes ten seconds there
        bench::AddPercentileRows(size);
        bench::AddHalfRows(size);
        bench::AddHfmgRows(size);
        if (size.n < bench::kLarge.n) bench::AddShiftRows(size);
        bench::AddUlqRows(size);
        bench::AddDeployedRows(size);
        bench::AddSoftmaxRows(size);
        bench::AddMaskRows(size);
        bench::AddDmqRows(size);
    }
    bench::AddNuqRows(bench::kSmall, 16);
    bench::AddNuqRows(bench::kLayer, 512);
    for (const std::size_t numLayers : bench::kNumLayers) {
        bench::AddRecordRows(numLayers);
#ifdef KEST_BENCH_PROTOBUF
        if (numLayers <= 10000) bench::AddProtobufRows(numLayers);  // it takes ten seconds a row beyond
#endif
    }
#ifdef __clang__
    benchmark::AddCustomContext("compiler", __VERSION__);
#else
    benchmark::AddCustomContext("compiler", "GCC " __VERSION__);
#endif
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
}
