#include <kest/prune_balance/mask_out.h>

#include <kest/kernel_frame/axis.h>
#include <kest/kernel_frame/isa.h>
#include <kest/kernel_frame/multiply.h>
#include <kest/kernel_frame/parallel.h>
#include <kest/kernel_frame/transpose.h>

#include <algorithm>
#include <cstddef>
#include <numeric>
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

/// The entry of each element of the period that both axes share, with some room behind it. Empty if the period is long,
/// or if the tensor has too few of them to pay for it.
template <typename T>
std::vector<T> SpreadOverPeriod(const T* mask, util::Axis slow, util::Axis fast, std::size_t length,
                                std::size_t& period) {
    constexpr std::size_t kMaxPeriod = 65536;
    constexpr std::size_t kMinPeriods = 16;
    const std::size_t fastPeriod = fast.count * fast.stride;
    const std::size_t slowPeriod = slow.count == 1 ? fastPeriod : slow.count * slow.stride;
    if (std::max(slowPeriod, fastPeriod) > kMaxPeriod) return {};
    period = std::lcm(slowPeriod, fastPeriod);
    if (period > std::min(kMaxPeriod, length / kMinPeriods)) return {};
    std::vector<T> entries(period + util::kLongRun);
    for (std::size_t i = 0, n; i < period; i += n) {
        n = std::min(slow.stride, period - i);
        const std::size_t row = i / slow.stride % slow.count;
        util::LayOut(fast, mask + row * fast.count, i % fastPeriod, n, entries.data() + i);
    }
    return entries;
}

template <typename T>
int Apply(const MaskParam& param, const T* mask, const T* data, T* out) {
    if (param.length < 1) return STATUS_OK;
    // The mask as a matrix [slow][fast], by how often its entry changes from element to element.
    util::Axis slow{util::AtLeastOne(param.rowNum), util::AtLeastOne(param.rowStride)};
    util::Axis fast{util::AtLeastOne(param.colNum), util::AtLeastOne(param.colStride)};
    const auto length = static_cast<std::size_t>(param.length);
    std::vector<T> transposed;
    if (slow.stride < fast.stride) {
        transposed.resize(slow.count * fast.count);
        util::Transpose(mask, fast.count, slow.count, fast.count, transposed.data(), slow.count);
        mask = transposed.data();
        std::swap(slow, fast);
    }
    if (slow.count == 1 || slow.stride == fast.count * fast.stride) {  // adjacent axes are one
        fast.count *= slow.count;
        slow = {1, length};
    }
    std::size_t period = 0;
    std::vector<T> spread;
    if (slow.stride < util::kLongRun || (fast.stride > 1 && fast.stride < util::kLongRun))
        spread = SpreadOverPeriod(mask, slow, fast, length, period);
    if (!spread.empty()) {
        mask = spread.data();
        fast = {period, 1};
        slow = {1, length};
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

#define DEFINE(T)                                                                                                \
    int GenerateMask<ThreadPoolDevice, T>::operator()(const T* rowMask, const T* colMask, MaskGenParam<T> param) \
        const {                                                                                                  \
        return Generate(rowMask, colMask, param);                                                                \
    }                                                                                                            \
    int IdentityMask<ThreadPoolDevice, T>::operator()(MaskGenParam<T> param) const {                             \
        return HandOut(param);                                                                                   \
    }                                                                                                            \
    int MaskOut<ThreadPoolDevice, T>::operator()(MaskParam param, const T* mask, const T* data, T* out) const {  \
        return Apply(param, mask, data, out);                                                                    \
    }
DEFINE(float)
DEFINE(double)
#undef DEFINE

}  // namespace KestTfOp
