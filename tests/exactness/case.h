#ifndef KEST_TESTS_EXACTNESS_CASE_H_
#define KEST_TESTS_EXACTNESS_CASE_H_

#include <kest/activation_calib/hfmg.h>
#include <kest/activation_calib/ifmr.h>
#include <kest/kernel_frame/views.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace exactness {

using Device = util::ThreadPoolDevice;

/// The arguments of one call, drawn from a seed, and a hash of all that the call returns or could have written. Made of
/// integers and exact or correctly rounded operations, so that every machine draws the same.
class Case {
public:
    explicit Case(std::uint64_t seed) : Case(seed, nullptr, nullptr) {}
    /// For a fuzzer: draws bytes while there are some, and widths without bound; arrays have nothing around them.
    Case(const std::uint8_t* bytes, std::size_t size) : Case(0, bytes, bytes + size) {}
    Case(const Case&) = delete;
    Case& operator=(const Case&) = delete;
    ~Case() {
        for (void* array : owned_) std::free(array);
    }

    int k;  ///< a number of channels
    int n;  ///< a number of elements: about the widest vectors, or some blocks; for most cases a multiple of k
    /// Makes n at times one from which several threads work. Returns n.
    int Large(int parallelFrom) {
        n = Below(Pick({34, 34, 34, 34, 300, 300, 300, OneIn(16) ? 9000 : 1000}));
        if (parallelFrom > 0 && OneIn(128)) n = parallelFrom + Below(5000);
        n = (n + k - 1) / k * k;
        return n += OneIn(16) ? Below(k) : 0;
    }

    int Below(int limit) { return static_cast<int>((Next() >> 32) * static_cast<std::uint64_t>(limit) >> 32); }
    bool OneIn(int times) { return Below(times) == 0; }
    bool Flag() { return OneIn(2); }
    template <typename T>
    T Pick(std::initializer_list<T> choices) {
        return choices.begin()[Below(static_cast<int>(choices.size()))];
    }
    /// x, but at times another small number.
    int Odd(int x) { return OneIn(32) ? Below(5) : x; }
    /// A width, `low` or more.
    int Bits(int low = 0) {
        if (isFuzzed_ && OneIn(8)) return std::max(low, Int());
        return OneIn(8) ? low + Below(36) : 2 + Below(8);
    }
    int Int() {
        const int x = static_cast<int>(static_cast<std::uint32_t>(Next())) >> Below(32);
        return OneIn(16) ? Pick({INT32_MIN, INT32_MAX, 0, 1 << 15, -(1 << 15), 1 << 24}) : x;
    }
    template <typename T = float>
    T Real() {
        return *Values<T>(1);
    }
    /// The scale of a grid, seldom one to be refused.
    float Scale() {
        const int significand = 1 + Below(1 << 20);
        const float x = std::ldexp(static_cast<float>(significand), -20 - Below(12));
        return OneIn(32) ? Real() : OneIn(4) ? std::ldexp(1.0f, Below(16) - 12) : x;
    }

    /// `count` elements of 0xA5, with more on either side than a stray vector would hit, from an unaligned address on.
    template <typename T>
    T* Out(int count, bool fill = true) {
        if (isFuzzed_) return Owned<T>(count > 0 ? count : 0);
        constexpr std::size_t kGuard = 16;
        alignas(64) static unsigned char arena[96 << 20];
        const std::size_t total = 2 * kGuard + static_cast<std::size_t>(count > 0 ? count : 0);
        used_ = (used_ + 63) / 64 * 64 + static_cast<std::size_t>(Below(16)) * sizeof(T);
        if (used_ + total * sizeof(T) > sizeof arena) __builtin_trap();
        T* const first = reinterpret_cast<T*>(&arena[used_]);
        used_ += total * sizeof(T);
        std::memset(static_cast<void*>(first), 0xA5, (fill ? total : kGuard) * sizeof(T));
        std::memset(static_cast<void*>(first + total - kGuard), 0xA5, kGuard * sizeof(T));
        arrays_.push_back({first, total, [](Case& c, const void* data, std::size_t size) {
                               for (std::size_t i = 0; i < size; ++i) c.Result(static_cast<const T*>(data)[i]);
                           }});
        return first + kGuard;
    }
    /// Values of one kind: floating-point ones, some of them special, at times NaN and infinite unless they are to be
    /// finite; or integers of about the same size, some of any.
    template <typename T>
    T* Values(int count, bool finite = false) {
        T* const values = Out<T>(count, false);
        const int shape = Below(12);
        const int rarity = Pick({1 << 30, 1 << 30, 2, 8, 64, 512});  // of special values
        const int exponent = Below(8) > 0 ? Below(16) - 8 : Flag() ? Below(1000) : -Below(1000);
        const int numKinds = kNumSpecial - (finite || Below(8) > 0 ? Flag() ? 8 : 2 : 0);  // the last are the largest
        const double power = std::ldexp(1.0, sizeof(T) == 8 ? exponent : exponent / 8);
        for (int i = 0; i < count; ++i) {
            if constexpr (std::is_floating_point_v<T>) {
                values[i] = OneIn(rarity) ? Special<T>(numKinds) : Ordinary<T>(shape, exponent, power);
            } else {
                values[i] = static_cast<T>(OneIn(8) ? Int() : Below(8 << shape * 2) - (4 << shape * 2));
            }
        }
        if (count == n) last_ = values;
        return values;
    }
    /// n values, at times null.
    template <typename T>
    T* Data() {
        return OneIn(64) ? nullptr : Values<T>(n);
    }
    /// The n values drawn last, or an array of as many.
    template <typename T>
    T* InPlaceOrOut() {
        return Flag() ? static_cast<T*>(last_) : Out<T>(n);
    }
    template <typename T>
    std::vector<T> Vector(int count, bool finite = false) {
        const T* const values = Values<T>(count, finite);
        return std::vector<T>(values, values + count);
    }
    util::FloatData Scales(int count) {
        const util::FloatData scales{static_cast<unsigned int>(count), Out<float>(count)};
        for (int i = 0; i < count; ++i) scales.data[i] = Scale();
        return scales;
    }
    util::IntData Offsets(int count) {
        const util::IntData offsets{static_cast<unsigned int>(count), Out<int>(count)};
        for (int i = 0; i < count; ++i) offsets.data[i] = OneIn(32) ? Int() : Below(256) - 128;
        return offsets;
    }

    /// Takes a number or numbers as results; pointers, views and parameters are none. The sign and payload of a NaN are
    /// not promised: machines differ in those of one that they make.
    template <typename T>
    void Result(const T& x) {
        if constexpr (std::is_arithmetic_v<T>) {
            const T value = x != x ? std::numeric_limits<T>::quiet_NaN() : x;
            std::uint64_t bits = 0;
            std::memcpy(&bits, &value, sizeof value);  // little-endian, like every machine that this runs on
            hash_ = (hash_ ^ bits) * 0x9E3779B97F4A7C15;
            hash_ ^= hash_ >> 32;
        }
    }
    template <typename T>
    void Result(const std::vector<T>& list) {
        Result(list.size());
        for (const auto& item : list) Result(item);
    }
    void Result(const std::string& text) { Result(std::vector<char>(text.begin(), text.end())); }
    template <typename T>
    void Result(const KestCommon::DataBin<T>& bin) {
        Result(bin.count), Result(bin.lowerBound), Result(bin.upperBound);
    }
    template <typename T>
    void Result(const KestCommon::MaxMinValue<T>& bounds) {
        Result(bounds.maxValue), Result(bounds.minValue);
    }
    void Result(const std::pair<unsigned int, unsigned int>& pair) { Result(pair.first), Result(pair.second); }

    /// The hash of the results and of all arrays, the kernel's inputs and what surrounds them included.
    std::uint64_t Hash() {
        for (const Array& array : arrays_) array.addTo(*this, array.first, array.count);
        return hash_;
    }

private:
    static constexpr int kNumSpecial = 23;
    Case(std::uint64_t seed, const std::uint8_t* bytes, const std::uint8_t* end)
        : state_(seed), bytes_(bytes), end_(end), isFuzzed_(bytes != end) {
        k = 1 + Below(Pick({1, 1, 9, 9, 9, 40, 40, OneIn(16) ? 3000 : 300}));
        Large(0);
    }
    struct Array {
        const void* first;
        std::size_t count;
        void (*addTo)(Case&, const void*, std::size_t);
    };
    std::uint64_t Next() {  // splitmix64 (Steele, Lea and Flood 2014)
        std::uint64_t z = state_ += 0x9E3779B97F4A7C15;
        z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
        z = (z ^ z >> 27) * 0x94D049BB133111EB;
        z ^= z >> 31;
        return bytes_ == end_ ? z : std::uint64_t{*bytes_++} << 56 | z >> 8;
    }
    /// From malloc, so that a sanitizer sees an element too far; at any alignment of T.
    template <typename T>
    T* Owned(int count) {
        const int before = Below(4);
        owned_.push_back(std::calloc(static_cast<std::size_t>(before + count), sizeof(T)));
        return static_cast<T*>(owned_.back()) + before;
    }
    template <typename T>
    T Special(int numKinds) {
        using L = std::numeric_limits<T>;
        constexpr double kMin = L::min(), kDenormal = L::denorm_min(), kMax = L::max();
        constexpr double kInfinity = L::infinity(), kNan = L::quiet_NaN(), kBelowTwo31 = 0x1.fffffep30;
        constexpr double kSpecial[kNumSpecial] = {
            0,       0,      0.5,    0.49999997f, 1,           1e-6f,        FLT_EPSILON, DBL_EPSILON,
            FLT_MIN, 65504,  kMin,   65520,       0x1p23,      FLT_TRUE_MIN, kDenormal,   FLT_MAX,
            kMax,    0x1p24, 0x1p31, 0x1p63,      kBelowTwo31, kInfinity,    kNan};
        const auto value = static_cast<T>(kSpecial[Below(numKinds)]);
        return Flag() ? value : -value;
    }
    template <typename T>
    T Ordinary(int shape, int exponent, double power) {
        using Bits = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
        // Three uniform parts make a bell; then what is left of the digits of a double.
        const std::uint64_t random = Next();
        const auto part = [random](int shift) { return static_cast<double>(random >> shift & 0x1FFFFF) * 0x1p-21; };
        double x = part(0) + part(21) + part(42) - 1.5;
        if (sizeof(T) == 8) x += static_cast<double>(random * 0xD1342543DE82EF95 >> 24) * 0x1p-62;
        if (shape == 0) x = x > 0 ? x : 0;              // rectified
        if (shape == 1) x = std::floor(x * 300) * 0.5;  // halves of the step of a grid
        if (shape == 2) x = std::floor(x * 3);          // few different ones
        if (shape == 3) x = exponent;                   // one
        if (shape == 4) x = std::floor(x * 300) + 0.5;  // beside ties
        T value = static_cast<T>(shape == 4 ? x : x * power);
        Bits bits = static_cast<Bits>(random);  // of any number
        if (shape == 4) std::memcpy(&bits, &value, sizeof bits), bits += (random >> 62) - 1;
        if (shape == 4 || shape == 5) std::memcpy(&value, &bits, sizeof bits);
        return value - value == 0 ? value : T{0};
    }

    std::uint64_t state_;
    std::uint64_t hash_ = 0;
    std::size_t used_ = 0;
    void* last_ = nullptr;
    std::vector<Array> arrays_;
    const std::uint8_t* bytes_;
    const std::uint8_t* end_;
    bool isFuzzed_;
    std::vector<void*> owned_;
};

/// Calls a kernel; what it returns is a result, and so are the arguments that it can change. Braces evaluate the
/// arguments in their order, with any compiler: Call{c, kernel, c.Values<float>(c.n), c.Bits()};
struct Call {
    template <typename Function, typename... Args>
    Call(Case& c, Function function, Args&&... args) {
        if constexpr (std::is_void_v<decltype(function(args...))>) {
            function(args...);
        } else {
            c.Result(function(args...));
        }
        (c.Result(args), ...);
    }
};

/// What one case calls, by the name of the kernel.
std::map<std::string, void (*)(Case&)>& Kernels();

/// CASE_OF(<type>, Name, <kernel>, <argument>...), T being the type: the kernel is called so. CASE for T = float, CASES
/// for float and double; COMMON for both of a template of KestCommon, OP and OPS for functors of KestTfOp.
#define CASE_OF(type, name, ...)                                                                        \
    [[maybe_unused]] const auto k##name##_##type = Kernels().emplace(#name "<" #type ">", [](Case& c) { \
        using T [[maybe_unused]] = type;                                                                \
        Call{c, __VA_ARGS__};                                                                           \
    })
#define CASE(name, ...) CASE_OF(float, name, __VA_ARGS__)
#define CASES(name, ...)     \
    CASE(name, __VA_ARGS__); \
    CASE_OF(double, name, __VA_ARGS__)
#define COMMON(name, ...) CASES(name, KestCommon::name<T>, __VA_ARGS__)
#define OP(name, ...) CASE(Op##name, KestTfOp::name<Device, T>(), __VA_ARGS__)
#define OPS(name, ...) CASES(Op##name, KestTfOp::name<Device, T>(), __VA_ARGS__)

}  // namespace exactness

#endif  // KEST_TESTS_EXACTNESS_CASE_H_
