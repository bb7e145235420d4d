#include <kest/op_kernels/deployed_ops_loops.h>

#include <kest/kernel_frame/rounding.h>

namespace KestTfOp {
namespace {

/// A multiplier of 1 is no step at all. The quotient by 2^shift is the product with its inverse: powers of two,
/// subnormal and zero ones included, lose nothing that the quotient keeps.
template <bool kMultiplies>
KEST_INLINE float DequantiseOne(float x, float multiplier, float inverse, float rescale) {
    const float accumulated = kMultiplies ? multiplier * x : x;
    float shifted = util::Floor(accumulated * inverse);
    shifted = shifted > 32767.0f ? 32767.0f : shifted;
    shifted = shifted < -32768.0f ? -32768.0f : shifted;
    const float rescaled = (inverse == 1.0f ? accumulated : shifted) * rescale;
    return kMultiplies ? rescaled / multiplier : rescaled;
}

template <bool kMultiplies>
KEST_INLINE void DequantiseAlongAxis(const float* x, float* out, std::size_t begin, std::size_t end, float multiplier,
                                     util::Axis channels, const float* inverse, const float* rescale) {
    const auto one = [=](std::size_t first, std::size_t n, std::size_t c) __attribute__((always_inline)) {
        const float by = inverse[c];
        const float factor = rescale[c];
        KEST_IVDEP
        for (std::size_t i = first; i < first + n; ++i)
            out[i] = DequantiseOne<kMultiplies>(x[i], multiplier, by, factor);
    };
    const auto each = [=](std::size_t first, std::size_t n, const float* const* columns)
        __attribute__((always_inline)) {
        KEST_IVDEP
        for (std::size_t i = 0; i < n; ++i)
            out[first + i] = DequantiseOne<kMultiplies>(x[first + i], multiplier, columns[0][i], columns[1][i]);
    };
    const float* const tables[] = {inverse, rescale};
    util::ForEachFactor(channels, tables, begin, end, one, each);
}

}  // namespace

template <typename Isa>
void DeployedOpsLoops<Isa>::Quantise(const float* x, float* out, std::size_t begin, std::size_t end, float scale,
                                     float offset, float lower, float upper) {
    KEST_IVDEP
    for (std::size_t i = begin; i < end; ++i) {
        // The sum in double, rounded to float, is the sum in float: 53 bits are enough for that.
        float code = util::RoundHalfAway(x[i] * scale) + offset;
        code = code < lower ? lower : (code > upper ? upper : code);
        out[i] = code - offset;
    }
}

template <typename Isa>
void DeployedOpsLoops<Isa>::Dequantise(const float* x, float* out, std::size_t begin, std::size_t end, float multiplier,
                                       util::Axis channels, const float* inverse, const float* rescale) {
    if (multiplier == 1.0f) {
        DequantiseAlongAxis<false>(x, out, begin, end, multiplier, channels, inverse, rescale);
    } else {
        DequantiseAlongAxis<true>(x, out, begin, end, multiplier, channels, inverse, rescale);
    }
}

template <typename Isa>
void DeployedOpsLoops<Isa>::AntiQuantiseWeights(const int8_t* __restrict weights, float* __restrict out,
                                                std::size_t begin, std::size_t end, util::Axis channels,
                                                const float* offsets) {
    const auto one = [=](std::size_t first, std::size_t n, std::size_t c) __attribute__((always_inline)) {
        const float offset = offsets[c];
        for (std::size_t i = first; i < first + n; ++i) out[i] = static_cast<float>(weights[i]) - offset;
    };
    const auto each = [=](std::size_t first, std::size_t n, const float* const* columns)
        __attribute__((always_inline)) {
        for (std::size_t i = 0; i < n; ++i) out[first + i] = static_cast<float>(weights[first + i]) - columns[0][i];
    };
    const float* const tables[] = {offsets};
    util::ForEachFactor(channels, tables, begin, end, one, each);
}

template struct DeployedOpsLoops<util::KEST_LOOPS_ISA>;

}  // namespace KestTfOp
