#include <kest/prune_balance/selective_mask.h>

#include <tests/test_util.h>

namespace {

using namespace SelectiveMaskGenKernel;
using Device = util::ThreadPoolDevice;
using Indices = std::vector<unsigned int>;

template <typename T>
Indices Chosen(unsigned int n, Indices indices, const std::vector<T>& values) {
    GetNOutOfM<T>(n, indices, values.data());
    return indices;
}

template <typename T>
void SelectionRows() {
    const T nan = kNan, inf = kInf, tiny = std::numeric_limits<T>::denorm_min();
    EXPECT_EQ((Indices{0, 3, 4}), Chosen<T>(3, {4, 2, 0, 3}, {-1, 9, 0, 1, 1}));  // equal: the lower index, not place
    EXPECT_EQ((Indices{4, 0, 1, 2, 3, 5}), Chosen<T>(6, {5, 4, 3, 2, 1, 0}, {-0.0, 0, 0, -0.0, -tiny, 0}));
    EXPECT_EQ((Indices{1, 3, 0, 4, 2}), Chosen<T>(0xFFFFFFFF, {0, 1, 2, 3, 4}, {inf, nan, 7, -nan, -inf}));
}

TEST(SelectiveMask, ComputeProduct) {
    Indices shape{2, 3, 5, 65536, 65537};
    EXPECT_EQ(15u, ComputeProduct(shape, 1, 3));
    EXPECT_EQ(65536u, ComputeProduct(shape, 3, 5));  // 2^32 + 2^16
    EXPECT_EQ(1u, ComputeProduct(shape, 9, 3));
}

/// {status, mask, workspace}; -77 where nothing is written.
template <typename T>
std::vector<T> Mask(const SelectivePruneParam& param, const std::vector<T>& data, const std::vector<T>& select,
                    std::size_t numGathered) {
    std::vector<T> result(1 + data.size() + numGathered + 1, -77);
    result[0] =
        ComputeMask<Device, T>{}(data.data(), select.data(), result.data() + 1 + data.size(), param, result.data() + 1);
    EXPECT_EQ(-77, result.back());
    result.pop_back();
    return result;
}

template <typename T>
void MaskRows() {
    const T x = -77, below = std::nextafter(T{1}, T{0});
    ExpectSameBits<T>({0, 0, 1, 1, 0, 1, -5, 3, 2}, Mask<T>({1, 4, 2, {1, 4}}, {1, -5, 3, 2}, {1, 1, 1, 1}, 4));
    ExpectSameBits<T>({0, 0, 1, T(kInf), T(kNan)}, Mask<T>({0, 2, 1, {2}}, {T(kInf), T(kNan)}, {1, 1}, 2));
    // Two blocks of two groups, the last slot a filler; 5 and 50 compete with it, and -0 wins against it.
    ExpectSameBits<T>({0, 1,  0, 0, 1, 1,    1, 1, 0, 0,  1, 1, 1,             //
                       2, -3, 1, 4, 5, -0.0, 0, 0, 2, -7, 1, 8, 50, 0, 0, 0},  //
                      Mask<T>({1, 2, 1, {2, 3, 2}}, {2, -3, 1, 4, 5, -0.0, 2, -7, 1, 8, 50, 0}, {1, 1, 1}, 16));
    const std::vector<T> select{T(0.7), 1, below, -2, T(-0.5), T(kInf), 0, T(1e20)};  // 1 and more in magnitude
    ExpectSameBits<T>({0, x, 1, x, 0, x, 1, x, 1, 1, -1, 2, -4},
                      Mask<T>({0, 4, 3, {8}}, {9, 1, 9, -1, 9, 2, 9, -4}, select, 4));
    ExpectSameBits<T>({0, x, x}, Mask<T>({0, 4, 2, {2}}, {1, 2}, {T{kNan}, 0}, 0));
    ExpectSameBits<T>({0, 1, 1, 5, 6}, Mask<T>({0, 2, 9, {2}}, {5, 6}, {1, 1}, 2));
    ExpectSameBits<T>({0, x, x, x, x}, Mask<T>({0, 0, 1, {2}}, {5, 6}, {1, 1}, 2));
    std::vector<T> copied(3, x);
    EXPECT_EQ(0, (IdentityMask<Device, T>{}(2, select.data(), copied.data())));
    ExpectSameBits<T>({T(0.7), 1, x}, copied);
    const std::string log = "[ERROR][operator()][] selective_mask_gen op: input tensor shape is 0.";
    for (const Indices& shape : {Indices{}, Indices{2, 0}, Indices{65536, 65536}, Indices{2}}) {
        EXPECT_EQ(log, LogOf([&] { copied = Mask<T>({1, 2, 1, shape}, {5, 6}, {1, 1}, 2); }));
        ExpectSameBits<T>({EMPTY_INPUT_ERROR, x, x, x, x}, copied);
    }
}

TEST(SelectiveMask, WorkedRows) {
    SelectionRows<float>();
    SelectionRows<double>();
    MaskRows<float>();
    MaskRows<double>();
}

}  // namespace
