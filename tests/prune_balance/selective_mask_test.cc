#include <kest/prune_balance/selective_mask.h>

#include <tests/test_util.h>

namespace {

using namespace SelectiveMaskGenKernel;
using Device = util::ThreadPoolDevice;
using Indices = std::vector<unsigned int>;
using Floats = std::vector<float>;

Indices Chosen(unsigned int n, Indices indices, const Floats& values) {
    GetNOutOfM<float>(n, indices, values.data());
    return indices;
}

TEST(SelectiveMask, GetNOutOfM) {
    EXPECT_EQ((Indices{0, 3, 4}), Chosen(3, {4, 2, 0, 3}, {-1, 9, 0, 1, 1}));  // equal: the lower index, not place
    EXPECT_EQ((Indices{4, 0, 1, 2, 3, 5}), Chosen(6, {5, 4, 3, 2, 1, 0}, {-0.0f, 0, 0, -0.0f, -FLT_TRUE_MIN, 0}));
    EXPECT_EQ((Indices{1, 3, 0, 4, 2}), Chosen(0xFFFFFFFF, {0, 1, 2, 3, 4}, {kInf, kNan, 7, -kNan, -kInf}));
}

TEST(SelectiveMask, ComputeProduct) {
    Indices shape{2, 3, 5, 65536, 65537};
    EXPECT_EQ(15u, ComputeProduct(shape, 1, 3));
    EXPECT_EQ(65536u, ComputeProduct(shape, 3, 5));  // 2^32 + 2^16
    EXPECT_EQ(1u, ComputeProduct(shape, 9, 3));
}

/// {status, mask, workspace}; -77 where nothing is written.
Floats Mask(const SelectivePruneParam& param, const Floats& data, const Floats& select, std::size_t numGathered) {
    Floats result(1 + data.size() + numGathered, -77);
    const ComputeMask<Device, float> compute;
    float* const mask = result.data() + 1;
    result[0] = static_cast<float>(compute(data.data(), select.data(), mask + data.size(), param, mask));
    return result;
}

TEST(SelectiveMask, WorkedRows) {
    const float x = -77;
    ExpectSameBits({0, 0, 1, 1, 0, 1, -5, 3, 2}, Mask({1, 4, 2, {1, 4}}, {1, -5, 3, 2}, {1, 1, 1, 1}, 4));
    ExpectSameBits({0, 0, 1, kInf, kNan}, Mask({0, 2, 1, {2}}, {kInf, kNan}, {1, 1}, 2));
    // Two blocks of two groups, the last slot a filler; 5 and 50 compete with it, and -0 wins against it.
    ExpectSameBits({0, 1,  0, 0, 1, 1,     1, 1, 0, 0,  1, 1, 1,             //
                    2, -3, 1, 4, 5, -0.0f, 0, 0, 2, -7, 1, 8, 50, 0, 0, 0},  //
                   Mask({1, 2, 1, {2, 3, 2}}, {2, -3, 1, 4, 5, -0.0f, 2, -7, 1, 8, 50, 0}, {1, 1, 1}, 16));
    const Floats select{0.7f, 1, std::nextafter(1.0f, 0.0f), -2, -0.5f, kInf, 0, 1e20f};  // 1 and more in magnitude
    ExpectSameBits({0, x, 1, x, 0, x, 1, x, 1, 1, -1, 2, -4},
                   Mask({0, 4, 3, {8}}, {9, 1, 9, -1, 9, 2, 9, -4}, select, 4));
    ExpectSameBits({0, x, x}, Mask({0, 4, 2, {2}}, {1, 2}, {kNan, 0}, 0));
    ExpectSameBits({0, 1, 1, 5, 6}, Mask({0, 2, 9, {2}}, {5, 6}, {1, 1}, 2));
    ExpectSameBits({0, x, x, x, x}, Mask({0, 0, 1, {2}}, {5, 6}, {1, 1}, 2));
    Floats sorted{0, x, 1, 1, 1, 1, 2, 3};  // a group of more than 64, of which a filler is kept, too
    sorted.resize(1 + 4 + 65);
    ExpectSameBits(sorted, Mask({0, 65, 4, {4}}, {9, 1, 2, 3}, {0, 1, 1, 1}, 65));
    Floats copied(3, x);
    EXPECT_EQ(0, (IdentityMask<Device, float>{}(2, select.data(), copied.data())));
    ExpectSameBits({0.7f, 1, x}, copied);
    const std::string log = "[ERROR][operator()][] selective_mask_gen op: input tensor shape is 0.";
    for (const Indices& shape : {Indices{}, Indices{2, 0}, Indices{65536, 65536}, Indices{2}}) {
        EXPECT_EQ(log, LogOf([&] { copied = Mask({1, 2, 1, shape}, {5, 6}, {1, 1}, 2); }));
        ExpectSameBits({EMPTY_INPUT_ERROR, x, x, x, x}, copied);
    }
}

}  // namespace
