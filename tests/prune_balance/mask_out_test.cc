#include <kest/prune_balance/mask_out.h>

#include <tests/test_util.h>

namespace {

using namespace KestTfOp;
using Device = util::ThreadPoolDevice;
using Floats = std::vector<float>;

/// Masked data, the same beside it and in its place.
Floats Masked(MaskParam param, const Floats& mask, Floats data) {
    param.length = static_cast<int>(data.size());
    Floats out(data.size(), -77);
    EXPECT_EQ(0, (MaskOut<Device, float>()(param, mask.data(), data.data(), out.data())));
    EXPECT_EQ(0, (MaskOut<Device, float>()(param, mask.data(), data.data(), data.data())));
    ExpectSameBits(out, data);
    return out;
}

/// Both masks, outMask first, -77 where nothing is written.
Floats Generated(int status, const Floats& row, const Floats& col, int colNum, int length) {
    Floats out(length, -77), saved = out, copy = out;
    const GenerateMask<Device, float> generate;
    EXPECT_EQ(status, generate(row.data(), col.data(), {0, colNum, length, out.data(), saved.data()}));
    ExpectSameBits(out, saved);
    EXPECT_EQ(0, (IdentityMask<Device, float>()({0, 0, length, copy.data(), saved.data()})));
    ExpectSameBits(out, copy);
    return out;
}

TEST(MaskOut, Rows) {
    const auto mask = [](int rowStride, int colStride, int rowNum, int colNum, std::size_t n) {
        return Masked({0, rowStride, colStride, rowNum, colNum}, {1, 2, 3, 4, 5, 6, 7, 8}, Floats(n, 1));
    };
    ExpectSameBits({1, 2, 3, 4, 5, 6, 1, 2, 3, 4, 5, 6}, mask(3, 1, 2, 3, 12));
    ExpectSameBits({1, 4, 2, 5, 3, 6, 1}, mask(1, 2, 2, 3, 7));                  // rows change faster
    ExpectSameBits({1, 2, 1, 2, 3, 4, 3, 4, 1}, mask(4, 1, 2, 2, 9));            // an axis between them
    ExpectSameBits({1, 1, 2, 2, 3, 3, 4, 4}, mask(6, 2, 2, 3, 8));               // an axis behind them
    ExpectSameBits({1, 1, 4, 4, 2, 2, 5, 5, 3, 3, 6}, mask(2, 4, 2, 3, 11));     // and rows faster
    ExpectSameBits({1, 5, 3, 4, 2, 6, 1}, mask(1, 1, 2, 3, 7));                  // row i mod 2, column i mod 3
    ExpectSameBits({1, 1, 2, 4, 3, 3, 2, 2, 1, 3, 4, 4}, mask(3, 2, 2, 2, 12));  // strides that do not divide
    ExpectSameBits({1, 2, 1}, mask(1 << 30, 1, 4, 2, 3));                        // 4 << 30 is no int
    ExpectSameBits({1, 2, 3, 1}, mask(0, -1, -5, 3, 4));                         // ones instead
    ExpectSameBits({-0.0f, 1.5}, Masked({0, 9, 1, 1, 2}, {0, 0.5f}, {-1, 3}));   // products
    ExpectSameBits({1, 0, 1, 0, 0, 0}, Generated(0, {1, 0}, {1, 0, 1}, 3, 6));
    ExpectSameBits({1, 1, 0, 1, 1, 0, 0, 0},
                   Generated(0, {kNan, FLT_TRUE_MIN, -0.0f}, {-FLT_TRUE_MIN, kNan, -0.0f}, 3, 8));
    for (const int colNum : {0, -1}) ExpectSameBits({-77, -77}, Generated(8, {1}, {1}, colNum, 2));
}

}  // namespace
