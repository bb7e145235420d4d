#ifndef KEST_TESTS_TEST_UTIL_H_
#define KEST_TESTS_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

/// The bits of a floating-point number; an integer as it is.
template <typename T>
auto Bits(T x) {
    std::conditional_t<std::is_integral_v<T>, T, std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>> bits;
    std::memcpy(&bits, &x, sizeof bits);
    return bits;
}

/// Bit equality; the first difference is printed.
template <typename T>
void ExpectSameBits(const std::vector<T>& expected, const std::vector<T>& actual) {
    ASSERT_EQ(expected.size(), actual.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
        ASSERT_EQ(Bits(expected[i]), Bits(actual[i])) << "at " << i << ": " << expected[i] << ", " << actual[i];
}

/// What `call` prints to standard output, source lines masked: "[ERROR][Name][] text".
template <typename Call>
std::string LogOf(Call call) {
    testing::internal::CaptureStdout();
    call();
    std::string log = testing::internal::GetCapturedStdout();
    for (std::size_t at = log.find("]["); at != std::string::npos; at = log.find("][", at + 2)) {
        const std::size_t end = log.find_first_not_of("0123456789", at + 2);
        if (end != std::string::npos && end > at + 2 && log[end] == ']') log.erase(at + 2, end - at - 2);
    }
    return log;
}

/// Every kind of value that breaks a fast path: ordinary, tiny, huge, halves of a grid step, zeros, denormal.
template <typename T>
std::vector<T> MixedValues(std::size_t n, unsigned int seed, T spread = 1) {
    std::mt19937 random(seed);
    std::normal_distribution<double> normal(0, 1);
    std::vector<T> values(n);
    for (T& value : values) {
        const double x = normal(random);
        const double kinds[] = {0, -0.0, std::round(x * 16) / 32, std::ldexp(x, -static_cast<int>(random() % 140))};
        const unsigned int kind = random() % 12;
        value = static_cast<T>(kind < 4 ? kinds[kind] : x) * spread;
    }
    return values;
}

#endif  // KEST_TESTS_TEST_UTIL_H_
