#include <kest/prune_balance/mask_out.h>

#include <kest/kernel_frame/axis.h>
#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/multiply.h>
#include <kest/kernel_frame/parallel.h>

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace KestTfOp {
namespace {

constexpr int kWorthwhile = 1 << 17;  // elements below which a pass stays on one thread

template <typename T>
int Generate(const T* rowMask, const T* colMask, const MaskGenParam<T>& param) {
    if (param.colNum < 1) return EMPTY_INPUT_ERROR;
    util::ParallelFor(param.length, param.length >= kWorthwhile, [&](util::Block block) {
        int row = block.begin / param.colNum;
        int column = block.begin % param.colNum;
        for (int i = block.begin; i < block.end; ++row, column = 0) {
            const int n = std::min(param.colNum - column, block.end - i);
            T* saved = param.savedMask + i;
            if (rowMask[row] != 0) {
                std::transform(colMask + column, colMask + column + n, saved, [](T x) -> T { return x != 0; });
            } else {
                std::fill_n(saved, n, T{0});
            }
            std::copy_n(saved, n, param.outMask + i);
            i += n;
        }
    });
    return STATUS_OK;
}

template <typename T>
int HandOut(const MaskGenParam<T>& param) {
    util::ParallelFor(param.length, param.length >= kWorthwhile, [&](util::Block block) {
        std::copy(param.savedMask + block.begin, param.savedMask + block.end, param.outMask + block.begin);
    });
    return STATUS_OK;
}

template <typename T>
std::vector<T> Transposed(const T* matrix, std::size_t numRows, std::size_t numColumns) {
    std::vector<T> transposed(numRows * numColumns);
    for (std::size_t row = 0; row < numRows; ++row) {
        for (std::size_t column = 0; column < numColumns; ++column)
            transposed[column * numRows + row] = matrix[row * numColumns + column];
    }
    return transposed;
}

template <typename T>
int Apply(const MaskParam& param, const T* mask, const T* data, T* out) {
    if (param.length < 1) return STATUS_OK;
    const auto atLeastOne = [](int n) { return static_cast<std::size_t>(std::max(n, 1)); };
    // The mask as a matrix [slow][fast], by how often its entry changes from element to element.
    util::Axis slow{atLeastOne(param.rowNum), atLeastOne(param.rowStride)};
    util::Axis fast{atLeastOne(param.colNum), atLeastOne(param.colStride)};
    std::vector<T> transposed;
    if (slow.stride < fast.stride) {
        transposed = Transposed(mask, slow.count, fast.count);
        mask = transposed.data();
        std::swap(slow, fast);
    }
    if (slow.stride == fast.count * fast.stride) {  // adjacent axes are one
        fast.count *= slow.count;
        slow = {1, static_cast<std::size_t>(param.length)};
    }
    util::ParallelFor(param.length, param.length >= kWorthwhile, [&](util::Block block) {
        const auto end = static_cast<std::size_t>(block.end);
        auto begin = static_cast<std::size_t>(block.begin);
        std::size_t row = begin / slow.stride % slow.count;
        std::size_t next = begin - begin % slow.stride + slow.stride;
        util::DispatchIsa([&](auto isa) {
            for (; begin < end; begin = next, next += slow.stride) {
                util::MultiplyLoops<decltype(isa), T>::AlongAxis(data, out, begin, std::min(next, end), fast,
                                                                 mask + row * fast.count);
                row = row + 1 < slow.count ? row + 1 : 0;
            }
        });
    });
    return STATUS_OK;
}

}  // namespace

using util::ThreadPoolDevice;

int GenerateMask<ThreadPoolDevice, float>::operator()(const float* rowMask, const float* colMask,
                                                      MaskGenParam<float> param) const {
    return Generate(rowMask, colMask, param);
}
int GenerateMask<ThreadPoolDevice, double>::operator()(const double* rowMask, const double* colMask,
                                                       MaskGenParam<double> param) const {
    return Generate(rowMask, colMask, param);
}

int IdentityMask<ThreadPoolDevice, float>::operator()(MaskGenParam<float> param) const {
    return HandOut(param);
}
int IdentityMask<ThreadPoolDevice, double>::operator()(MaskGenParam<double> param) const {
    return HandOut(param);
}

int MaskOut<ThreadPoolDevice, float>::operator()(MaskParam param, const float* mask, const float* data,
                                                 float* out) const {
    return Apply(param, mask, data, out);
}
int MaskOut<ThreadPoolDevice, double>::operator()(MaskParam param, const double* mask, const double* data,
                                                  double* out) const {
    return Apply(param, mask, data, out);
}

}  // namespace KestTfOp
