#include <kest/prune_balance/mask_out.h>

#include <tests/test_util.h>

namespace {

using namespace KestTfOp;
using Device = util::ThreadPoolDevice;

/// Masked data, the same beside it and in its place; the element behind it stays.
template <typename T>
std::vector<T> Masked(MaskParam param, const std::vector<T>& mask, std::vector<T> data) {
    param.length = static_cast<int>(data.size());
    data.push_back(-77);
    std::vector<T> out(data.size(), -77);
    EXPECT_EQ(0, (MaskOut<Device, T>()(param, mask.data(), data.data(), out.data())));
    EXPECT_EQ(0, (MaskOut<Device, T>()(param, mask.data(), data.data(), data.data())));
    ExpectSameBits(out, data);
    EXPECT_EQ(-77, out.back());
    out.pop_back();
    return out;
}

/// Both masks, outMask first, of length + 1 entries, -77 where nothing is written.
template <typename T>
std::vector<T> Generated(int status, const std::vector<T>& row, const std::vector<T>& col, int colNum, int length) {
    std::vector<T> out(length + 1, -77), saved = out, copy = out;
    EXPECT_EQ(status,
              (GenerateMask<Device, T>()(row.data(), col.data(), {0, colNum, length, out.data(), saved.data()})));
    ExpectSameBits(out, saved);
    EXPECT_EQ(0, (IdentityMask<Device, T>()({0, 0, length, copy.data(), saved.data()})));
    ExpectSameBits(out, copy);
    EXPECT_EQ(-77, out.back());
    out.pop_back();
    return out;
}

template <typename T>
class MaskOutTest : public testing::Test {};
using Types = testing::Types<float, double>;
TYPED_TEST_SUITE(MaskOutTest, Types, );

TYPED_TEST(MaskOutTest, Rows) {
    using T = TypeParam;
    const auto mask = [](int rowStride, int colStride, int rowNum, int colNum, std::size_t n) {
        return Masked<T>({0, rowStride, colStride, rowNum, colNum}, {1, 2, 3, 4, 5, 6, 7, 8}, std::vector<T>(n, 1));
    };
    ExpectSameBits<T>({1, 2, 3, 4, 5, 6, 1, 2, 3, 4, 5, 6}, mask(3, 1, 2, 3, 12));
    ExpectSameBits<T>({1, 4, 2, 5, 3, 6, 1}, mask(1, 2, 2, 3, 7));                      // rows change faster
    ExpectSameBits<T>({1, 2, 1, 2, 3, 4, 3, 4, 1}, mask(4, 1, 2, 2, 9));                // an axis between them
    ExpectSameBits<T>({1, 1, 2, 2, 3, 3, 4, 4}, mask(6, 2, 2, 3, 8));                   // an axis behind them
    ExpectSameBits<T>({1, 1, 4, 4, 2, 2, 5, 5, 3, 3, 6}, mask(2, 4, 2, 3, 11));         // and rows faster
    ExpectSameBits<T>({1, 5, 3, 4, 2, 6, 1}, mask(1, 1, 2, 3, 7));                      // row i mod 2, column i mod 3
    ExpectSameBits<T>({1, 1, 2, 4, 3, 3, 2, 2, 1, 3, 4, 4}, mask(3, 2, 2, 2, 12));      // strides that do not divide
    ExpectSameBits<T>({1, 2, 1}, mask(1 << 30, 1, 4, 2, 3));                            // 4 << 30 is no int
    ExpectSameBits<T>({1, 2, 3, 1}, mask(0, -1, -5, 3, 4));                             // ones instead
    ExpectSameBits<T>({-T{0}, 1.5}, Masked<T>({0, 9, 1, 1, 2}, {0, T{0.5}}, {-1, 3}));  // products
    const T tiny = std::numeric_limits<T>::denorm_min(), nan = T{kNan};
    ExpectSameBits<T>({1, 0, 1, 0, 0, 0}, Generated<T>(0, {1, 0}, {1, 0, 1}, 3, 6));
    ExpectSameBits<T>({1, 1, 0, 1, 1, 0, 0, 0}, Generated<T>(0, {nan, tiny, -T{0}}, {-tiny, nan, -T{0}}, 3, 8));
    for (const int colNum : {0, -1}) ExpectSameBits<T>({-77, -77}, Generated<T>(8, {1}, {1}, colNum, 2));
}

}  // namespace
