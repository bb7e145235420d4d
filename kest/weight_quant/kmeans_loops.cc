#include <kest/weight_quant/kmeans_loops.h>

#include <kest/kernel_frame/rounding.h>

#include <type_traits>

namespace KestCommon {
namespace {

/// The smaller of a squared distance so far and that to another centre. The square of a difference of two floats is
/// exact in double precision, so rounding it at once to float is the same.
template <typename T>
KEST_INLINE T Nearer(T distance, T x, T centre) {
    const T square = (x - centre) * (x - centre);
    return square < distance ? square : distance;
}

/// The smallest power of two from which on all values of T are integers.
template <typename T>
constexpr T kWhole = 0x1p52;
template <>
constexpr float kWhole<float> = 0x1p23f;

template <typename T>
struct SeedScores {
    T candidate[kSeedLanes];
    T potential[kSeedLanes] = {};
    T sum[kSeedLanes] = {};
};

template <bool kWholePotentials, typename T>
KEST_INLINE void AddScores(const T* x, const T* distance, std::size_t n, SeedScores<T>& scores) {
    constexpr std::size_t kBytes =
        kSeedLanes * sizeof(T) < KEST_VECTOR_BYTES ? kSeedLanes * sizeof(T) : KEST_VECTOR_BYTES;
    typedef T Vector __attribute__((vector_size(kBytes)));
    constexpr std::size_t kVectors = kSeedLanes * sizeof(T) / sizeof(Vector);
    Vector candidate[kVectors];
    Vector potential[kVectors];
    Vector sum[kVectors];
    __builtin_memcpy(candidate, scores.candidate, sizeof candidate);
    __builtin_memcpy(potential, scores.potential, sizeof potential);
    __builtin_memcpy(sum, scores.sum, sizeof sum);
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t v = 0; v < kVectors; ++v) {
            const Vector square = (x[i] - candidate[v]) * (x[i] - candidate[v]);
            const Vector nearer = square < distance[i] ? square : distance[i] + Vector{};
            potential[v] += nearer;
            if (!kWholePotentials) {
                constexpr std::size_t kLanes = sizeof(Vector) / sizeof(T);
                T truncated[kLanes];
                __builtin_memcpy(truncated, &potential[v], sizeof truncated);
                for (std::size_t lane = 0; lane < kLanes; ++lane) truncated[lane] = util::Trunc(truncated[lane]);
                __builtin_memcpy(&potential[v], truncated, sizeof truncated);
            }
            sum[v] += nearer;
        }
    }
    __builtin_memcpy(scores.potential, potential, sizeof potential);
    __builtin_memcpy(scores.sum, sum, sizeof sum);
}

}  // namespace

template <typename Isa, typename T>
void KmeansLoops<Isa, T>::ScoreSeeds(const T* x, const T* distance, std::size_t n, const T (&candidates)[kSeedLanes],
                                     T (&potentials)[kSeedLanes], T* sums) {
    SeedScores<T> scores;
    for (int lane = 0; lane < kSeedLanes; ++lane) scores.candidate[lane] = candidates[lane];
    for (std::size_t first = 0; first < n; first += kSeedBlock, sums += kSeedLanes) {
        const std::size_t count = n - first < kSeedBlock ? n - first : kSeedBlock;
        bool whole = true;  // from here on a potential is an integer whatever is added
        for (int lane = 0; lane < kSeedLanes; ++lane) whole &= scores.potential[lane] >= kWhole<T>;
        if (whole) {
            AddScores<true>(x + first, distance + first, count, scores);
        } else {
            AddScores<false>(x + first, distance + first, count, scores);
        }
        for (int lane = 0; lane < kSeedLanes; ++lane) sums[lane] = scores.sum[lane];
    }
    for (int lane = 0; lane < kSeedLanes; ++lane) potentials[lane] = scores.potential[lane];
}

template <typename Isa, typename T>
void KmeansLoops<Isa, T>::ShrinkDistances(const T* x, std::size_t n, T centre, T* distance) {
    for (std::size_t i = 0; i < n; ++i) distance[i] = Nearer(distance[i], x[i], centre);
}

template <typename Isa, typename T>
void KmeansLoops<Isa, T>::Assign(const T* x, std::size_t n, const T* centers, unsigned int k, int32_t* nearest) {
    typedef T Vector __attribute__((vector_size(KEST_VECTOR_BYTES)));
    typedef int32_t Index __attribute__((vector_size(KEST_VECTOR_BYTES / sizeof(T) * 4)));
    using Integer = std::conditional_t<sizeof(T) == 4, int32_t, int64_t>;
    constexpr std::size_t kLanes = sizeof(Vector) / sizeof(T);
    constexpr std::size_t kVectors = 4;  // independent chains
    constexpr std::size_t kStep = kVectors * kLanes;
    for (std::size_t first = 0; first < n; first += kStep) {
        const std::size_t count = n - first < kStep ? n - first : kStep;
        Vector values[kVectors] = {};
        if (count == kStep) {
            __builtin_memcpy(values, x + first, sizeof values);
        } else {
            __builtin_memcpy(values, x + first, count * sizeof(T));
        }
        Vector smallest[kVectors];
        decltype(Vector{} < Vector{}) best[kVectors] = {};
        for (std::size_t v = 0; v < kVectors; ++v) {
            const Vector difference = values[v] - centers[0];
            smallest[v] = difference < 0 ? -difference : difference;
        }
        for (unsigned int c = 1; c < k; ++c) {
            const auto index = decltype(Vector{} < Vector{}){} + static_cast<Integer>(c);
            for (std::size_t v = 0; v < kVectors; ++v) {
                const Vector difference = values[v] - centers[c];
                const Vector size = difference < 0 ? -difference : difference;
                const auto closer = size < smallest[v];
                smallest[v] = closer ? size : smallest[v];
                best[v] = closer ? index : best[v];
            }
        }
        Index indices[kVectors];
        for (std::size_t v = 0; v < kVectors; ++v) indices[v] = __builtin_convertvector(best[v], Index);
        if (count == kStep) {
            __builtin_memcpy(nearest + first, indices, sizeof indices);
        } else {
            __builtin_memcpy(nearest + first, indices, count * sizeof(int32_t));
        }
    }
}

template <typename Isa, typename T>
void KmeansLoops<Isa, T>::Weigh(const T* x, std::size_t n, double weight, T* products) {
    for (std::size_t i = 0; i < n; ++i) products[i] = static_cast<T>(x[i] * weight);
}

template <typename Isa, typename T>
void KmeansLoops<Isa, T>::AddRows(const T* rows, std::size_t numRows, T* sums) {
    T sum[kCenterLanes];
    for (int lane = 0; lane < kCenterLanes; ++lane) sum[lane] = sums[lane];
    for (std::size_t row = 0; row < numRows; ++row)
        for (int lane = 0; lane < kCenterLanes; ++lane) sum[lane] += rows[row * kCenterLanes + lane];
    for (int lane = 0; lane < kCenterLanes; ++lane) sums[lane] = sum[lane];
}

template struct KmeansLoops<util::KEST_LOOPS_ISA, float>;
template struct KmeansLoops<util::KEST_LOOPS_ISA, double>;

}  // namespace KestCommon
