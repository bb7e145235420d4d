#include <kest/op_kernels/fast_softmax.h>

#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/parallel.h>
#include <kest/op_kernels/fast_softmax_loops.h>

#include <algorithm>
#include <cfloat>
#include <cstddef>

namespace KestTfOp {
namespace {

constexpr std::size_t kWorthwhile = 1 << 15;  // elements below which a pass stays on one thread, some 15 microseconds

/// Rows of `width` elements.
struct Rows {
    int count;
    std::size_t width;
};

/// The whole rows of the tensor, at most `limit`.
Rows RowsOf(const SoftmaxParam& param, std::size_t limit) {
    if (param.axis < 0 || static_cast<std::size_t>(param.axis) >= param.dims.size()) return {0, 1};
    const int width = param.dims[param.axis];
    if (width < 1 || param.length < width) return {0, 1};
    const int count = param.length / width;
    return {static_cast<int>(std::min<std::size_t>(count, limit)), static_cast<std::size_t>(width)};
}

SoftmaxPolynomial PolynomialOf(const SoftmaxParam& param) {
    return {param.coeffSquare, param.coeffCube, param.threshold};
}

/// Calls work(loops, first, last) for the rows of each thread.
template <typename T, typename Work>
void ForEachBlock(Rows rows, Work work) {
    util::ParallelFor(rows.count, rows.count * rows.width >= kWorthwhile, [&](util::Block block) {
        util::DispatchIsa([&](auto isa) {
            work(FastSoftmaxLoops<decltype(isa), T>(), static_cast<std::size_t>(block.begin),
                 static_cast<std::size_t>(block.end));
        });
    });
}

template <typename T>
int Softmax(const T* in, T* out, const SoftmaxParam& param) {
    constexpr std::size_t kGroup = 8;         // rows whose sums advance together,
    constexpr std::size_t kCached = 1 << 17;  // as long as all of them stay in the cache: bytes
    const SoftmaxPolynomial polynomial = PolynomialOf(param);
    const Rows rows = RowsOf(param, param.length < 0 ? 0 : param.length);
    const std::size_t width = rows.width;
    const std::size_t group = std::clamp<std::size_t>(kCached / (width * sizeof(T)), 1, kGroup);
    ForEachBlock<T>(rows, [&](auto loops, std::size_t first, std::size_t last) {
        for (std::size_t row = first; row < last; row += group) {
            const std::size_t n = std::min(group, last - row);
            const T* x = in + row * width;
            T* y = out + row * width;
            T sums[kGroup] = {};
            for (std::size_t r = 0; r < n; ++r) {
                const T max = loops.FindMax(x + r * width, width, -FLT_MAX);
                loops.Exp(x + r * width, y + r * width, width, max, polynomial);
            }
            loops.AddRows(y, n, width, sums);
            for (std::size_t r = 0; r < n; ++r) loops.Divide(y + r * width, width, sums[r]);
        }
    });
    return STATUS_OK;
}

}  // namespace

template <typename T>
void FindMaxAlongAxis(const T* in, std::vector<T>& rowMax, SoftmaxParam& param) {
    const Rows rows = RowsOf(param, rowMax.size());
    ForEachBlock<T>(rows, [&](auto loops, std::size_t first, std::size_t last) {
        for (std::size_t row = first; row < last; ++row)
            rowMax[row] = loops.FindMax(in + row * rows.width, rows.width, rowMax[row]);
    });
}

template <typename T>
void ApproximateExp(const T* in, std::vector<T>& rowMax, T* out, SoftmaxParam& param) {
    const SoftmaxPolynomial polynomial = PolynomialOf(param);
    const Rows rows = RowsOf(param, rowMax.size());
    ForEachBlock<T>(rows, [&](auto loops, std::size_t first, std::size_t last) {
        for (std::size_t row = first; row < last; ++row)
            loops.Exp(in + row * rows.width, out + row * rows.width, rows.width, rowMax[row], polynomial);
    });
}

template <typename T>
void ApproximateSoftmax(T* out, std::vector<T>& rowMax, SoftmaxParam& param) {
    const Rows rows = RowsOf(param, rowMax.size());
    ForEachBlock<T>(rows, [&](auto loops, std::size_t first, std::size_t last) {
        loops.AddRows(out + first * rows.width, last - first, rows.width, rowMax.data() + first);
        for (std::size_t row = first; row < last; ++row) loops.Divide(out + row * rows.width, rows.width, rowMax[row]);
    });
}

#define INSTANTIATE(T)                                                                      \
    template KEST_EXPORT void FindMaxAlongAxis(const T*, std::vector<T>&, SoftmaxParam&);   \
    template KEST_EXPORT void ApproximateExp(const T*, std::vector<T>&, T*, SoftmaxParam&); \
    template KEST_EXPORT void ApproximateSoftmax(T*, std::vector<T>&, SoftmaxParam&)
INSTANTIATE(float);
INSTANTIATE(double);
#undef INSTANTIATE

int FastSoftmaxFunctor<util::ThreadPoolDevice, float>::operator()(const float* in, float* out,
                                                                  SoftmaxParam& param) const {
    return Softmax(in, out, param);
}
int FastSoftmaxFunctor<util::ThreadPoolDevice, double>::operator()(const double* in, double* out,
                                                                   SoftmaxParam& param) const {
    return Softmax(in, out, param);
}

}  // namespace KestTfOp
