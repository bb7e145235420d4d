#include <kest/kernel_frame/numeric_helpers.h>

#include "bench.h"

#include <cstring>
#include <vector>

namespace bench {
namespace {

using Halves = std::vector<unsigned short>;

void KestToHalf(const float* in, unsigned short* out, std::size_t n) {
    util::DataCastToFloat16Functor<util::ThreadPoolDevice, float>()(in, out, static_cast<int>(n));
}

/// The conversions run on their caller's thread: two callers share the array.
template <typename Convert, typename In, typename Out>
void InHalves(Convert convert, const In* in, Out* out, std::size_t n) {
#pragma omp parallel for
    for (int thread = 0; thread < 2; ++thread) convert(in + thread * (n / 2), out + thread * (n / 2), n / 2);
}

void KestToHalfOnTwo(const float* in, unsigned short* out, std::size_t n) {
    InHalves(KestToHalf, in, out, n);
}

void PlainToHalf(const float* in, unsigned short* out, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        unsigned int bits;
        std::memcpy(&bits, &in[i], sizeof bits);
        const unsigned int sign = (bits >> 16) & 0x8000;
        const bool small = (bits & 0x7F800000) < 0x38800000;
        out[i] = static_cast<unsigned short>(small ? sign : sign | (((bits >> 13) & 0x3FFFF) - 0x1C000));
    }
}

void KestToFloat(const unsigned short* in, float* out, std::size_t n) {
    util::DataCastToFloat32Functor<util::ThreadPoolDevice, unsigned short>()(in, out, static_cast<int>(n));
}

void KestToFloatOnTwo(const unsigned short* in, float* out, std::size_t n) {
    InHalves(KestToFloat, in, out, n);
}

void PlainToFloat(const unsigned short* in, float* out, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        const unsigned int sign = (in[i] & 0x8000u) << 16;
        unsigned int exponent = (in[i] >> 10) & 31;
        unsigned int fraction = in[i] & 0x3FF;
        if (exponent == 0 && fraction != 0) {
            exponent = 1;
            for (; (fraction & 0x400) == 0; fraction <<= 1) --exponent;
            fraction &= 0x3FF;
        } else if (exponent == 0) {
            exponent = -112;
        } else if (exponent == 31) {
            exponent = 143;
        }
        const unsigned int bits = sign | (exponent + 112) << 23 | fraction << 13;
        std::memcpy(&out[i], &bits, sizeof bits);
    }
}

Halves HalvesOf(const float* x, std::size_t n) {
    Halves halves(n);
    KestToHalf(x, halves.data(), n);
    return halves;
}

}  // namespace

void AddHalfRows(Size size) {
    const std::size_t n = size.n;
    const double bytes = 6.0 * static_cast<double>(n);
    const auto addToHalf = [=](const char* who, auto convert, int numThreads = 1) {
        const auto setUp = [=](auto&) {
            Halves out(n);
            convert(NormalData(n), out.data(), n);
            RequireSame(out == HalvesOf(NormalData(n), n), "float to half");
            return [=, out = out](auto&) mutable { convert(NormalData(n), out.data(), n); };
        };
        AddRow("float to half", size.name, who, static_cast<double>(n), bytes, setUp, numThreads);
    };
    addToHalf("plain", PlainToHalf);
    addToHalf("kest", KestToHalf);
    if (n == kLarge.n) addToHalf("kest", KestToHalfOnTwo, 2);

    const auto addToFloat = [=](const char* who, auto convert, int numThreads = 1) {
        const auto setUp = [=](auto&) {
            const Halves in = HalvesOf(NormalData(n), n);
            std::vector<float> out(n);
            std::vector<float> expected(n);
            convert(in.data(), out.data(), n);
            KestToFloat(in.data(), expected.data(), n);
            RequireSame(out == expected, "half to float");
            return [=](auto&) mutable { convert(in.data(), out.data(), n); };
        };
        AddRow("half to float", size.name, who, static_cast<double>(n), bytes, setUp, numThreads);
    };
    addToFloat("plain", PlainToFloat);
    addToFloat("kest", KestToFloat);
    if (n == kLarge.n) addToFloat("kest", KestToFloatOnTwo, 2);
}

}  // namespace bench
