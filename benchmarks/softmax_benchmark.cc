#include <kest/op_kernels/fast_softmax.h>

#include "bench.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <string>
#include <vector>

namespace bench {
namespace {

constexpr int kWidth = 384;

using KestTfOp::SoftmaxParam;

template <typename T>
void PlainSoftmax(const T* in, T* out, const SoftmaxParam& param) {
    const int width = param.dims[param.axis];
    std::vector<T> rows(param.length / width, -FLT_MAX);
    for (int i = 0; i < param.length; ++i)
        if (in[i] > rows[i / width]) rows[i / width] = in[i];
    for (int i = 0; i < param.length; ++i) {
        const T d = in[i] - rows[i / width];
        if (d <= T{param.threshold}) {
            out[i] = 0;
        } else {
            const double wide{d};
            const double square = std::fma(double{param.coeffSquare}, wide * wide, double{d + 1});
            out[i] = static_cast<T>(std::fma(double{param.coeffCube}, std::pow(wide, 3.0), square));
        }
    }
    std::fill(rows.begin(), rows.end(), T{0});
    for (int i = 0; i < param.length; ++i) rows[i / width] += out[i];
    for (int i = 0; i < param.length; ++i) out[i] /= rows[i / width];
}

template <typename T>
void AddPair(const std::string& what, Size size) {
    const int numRows = static_cast<int>(size.n) / kWidth;
    const int n = numRows * kWidth;
    const auto add = [=](const char* who, auto softmax) {
        const auto setUp = [=](auto&) {
            // Differences of -1.5 and less are rare, those that the polynomial is good for.
            AlignedVector<T> in(n);
            std::transform(NormalData(n), NormalData(n) + n, in.begin(), [](float x) { return T{0.25f} * T{x}; });
            AlignedVector<T> out(n);
            SoftmaxParam param{0.5f, 1 / 6.0f, -1.5f, 1, n, {numRows, kWidth}};
            if (size.n < kLarge.n) {
                std::vector<T> expected(n);
                KestTfOp::FastSoftmaxFunctor<util::ThreadPoolDevice, T>()(in.data(), expected.data(), param);
                softmax(in.data(), out.data(), param);
                // The cube of std::pow may be a unit of the last place beside the nearest one.
                const auto near = [](T a, T b) { return std::fabs(a - b) <= DBL_EPSILON; };
                RequireSame(std::equal(out.begin(), out.end(), expected.begin(), near), what.c_str());
            }
            return [=](auto&) mutable { softmax(in.data(), out.data(), param); };
        };
        AddRow(what, size.name, who, n, 2.0 * sizeof(T) * n, setUp);
    };
    add("plain", PlainSoftmax<T>);
    add("kest", KestTfOp::FastSoftmaxFunctor<util::ThreadPoolDevice, T>());
}

}  // namespace

void AddSoftmaxRows(Size size) {
    AddPair<float>("softmax float", size);
    AddPair<double>("softmax double", size);
}

}  // namespace bench
