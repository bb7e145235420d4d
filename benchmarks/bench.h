#ifndef KEST_BENCHMARKS_BENCH_H_
#define KEST_BENCHMARKS_BENCH_H_

#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <vector>

// A row is named what/size/threads/who. `who` is kest, limit, or the rival that does the same: scripts/bench divides
// rows that differ in `who` alone. Rows that belong together are registered, and so run, one after the other.

namespace bench {

struct Size {
    const char* name;
    std::size_t n;  // elements
};
constexpr Size kSmall{"4Ki", std::size_t{1} << 12};   // first-level cache
constexpr Size kMedium{"1Mi", std::size_t{1} << 20};  // last-level cache
constexpr Size kLarge{"64Mi", std::size_t{1} << 26};  // memory
constexpr Size kLayer{"576Ki", 589824};               // a layer's weights
constexpr std::size_t kNumLayers[] = {1000, 10000, 100000};

void AddArqRows(Size size);
void AddDeployedRows(Size size);
void AddDmqRows(Size size);
void AddHalfRows(Size size);
void AddHfmgRows(Size size);
void AddIfmrRows(Size size);
void AddMaskRows(Size size);
void AddNuqRows(Size size, std::size_t numChannels);
void AddPercentileRows(Size size);
void AddShiftRows(Size size);
void AddSoftmaxRows(Size size);
void AddUlqRows(Size size);
void AddRecordRows(std::size_t numLayers);
void AddProtobufRows(std::size_t numLayers);

/// A vector whose data is 64-byte aligned.
template <typename T>
struct AlignedAllocator {
    using value_type = T;
    static constexpr std::align_val_t kAlignment{64};
    AlignedAllocator() = default;
    template <typename U>
    AlignedAllocator(const AlignedAllocator<U>&) {}
    T* allocate(std::size_t n) { return static_cast<T*>(operator new(n * sizeof(T), kAlignment)); }
    void deallocate(T* data, std::size_t) { operator delete(data, kAlignment); }
    bool operator==(const AlignedAllocator&) const { return true; }
    bool operator!=(const AlignedAllocator&) const { return false; }
};
template <typename T>
using AlignedVector = std::vector<T, AlignedAllocator<T>>;

/// Arrays of n floats, 64-byte aligned and touched, alive until the next call for a larger one. The values have a
/// standard deviation of 1.
const float* NormalData(std::size_t n);
const float* ReluData(std::size_t n);  // half of them 0
float* WorkingCopy(std::size_t n);     // of NormalData, made anew by each call

/// The record file of `numLayers` layers, each with scale_d, offset_d and kNumFactors scale_w and offset_w; `name` is
/// the file's name in this run's own directory.
constexpr int kNumFactors = 64;
std::string RecordPath(const std::string& name);
std::string RecordFile(std::size_t numLayers);
std::string LayerName(std::size_t layer);

/// Ends the program unless `same`: a rival has to compute what kest computes.
void RequireSame(bool same, const char* what);

/// By how many bytes `work` exceeds the memory in use before it, at its peak; 0 if the system does not tell.
double PeakMemory(const std::function<void()>& work);

/// Adds a row. Each run calls `setUp(state)`, untimed, for the body; the body is called with the state and timed.
/// An iteration works on `numItems` items and has to move `numBytes` bytes (0: not bound by memory).
template <typename SetUp>
void AddRow(const std::string& what, const std::string& size, const char* who, double numItems, double numBytes,
            SetUp setUp, int numThreads = 1) {
    const std::string name = what + "/" + size + "/" + std::to_string(numThreads) + "/" + who;
    const auto run = [=](benchmark::State& state) {
        omp_set_num_threads(numThreads);
        auto body = setUp(state);
        for (auto _ : state) {
            body(state);
            benchmark::ClobberMemory();
        }
        const auto iterations = static_cast<double>(state.iterations());
        state.SetItemsProcessed(static_cast<int64_t>(numItems * iterations));
        if (numBytes > 0) state.SetBytesProcessed(static_cast<int64_t>(numBytes * iterations));
    };
    benchmark::RegisterBenchmark(name.c_str(), run)->UseRealTime();
}

/// Adds the rows of a plain loop and of kest, at the largest size with both threads too where `onBoth`. They are called
/// as run(out, n), write at most n floats, the same bits, and move `itemBytes` an element.
template <typename Plain, typename Kest>
void AddAgainstPlain(const std::string& what, Size size, double itemBytes, bool onBoth, Plain plain, Kest kest) {
    const int n = static_cast<int>(size.n);
    const auto add = [=](const char* who, auto run, int numThreads) {
        const auto setUp = [=](auto&) {
            float* out = WorkingCopy(size.n);
            kest(out, n);  // the arrays of its inputs are made now, untimed
            if (size.n < kLarge.n) {
                const std::vector<float> expected(out, out + n);
                out = WorkingCopy(size.n);
                run(out, n);
                RequireSame(std::memcmp(out, expected.data(), size.n * sizeof(float)) == 0, what.c_str());
            }
            return [=](auto&) { run(out, n); };
        };
        AddRow(what, size.name, who, double(n), itemBytes * n, setUp, numThreads);
    };
    add("plain", plain, 1);
    add("kest", kest, 1);
    if (onBoth && size.n == kLarge.n) add("kest", kest, 2);
}

}  // namespace bench

#endif  // KEST_BENCHMARKS_BENCH_H_
