#include <dlfcn.h>
#include <kest/op_kernels/tensor_dump.h>
#include <tests/record/record_test_util.h>

#include <climits>

// The library opens files through this, so that a test can let it fail.
static bool refusesToAppend = false;
extern "C" FILE* fopen(const char* path, const char* mode) {
    static const auto system = reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen"));
    return refusesToAppend && mode[0] == 'a' ? nullptr : system(path, mode);
}

namespace {

using Device = util::ThreadPoolDevice;

template <typename T>
std::string Bytes(const std::vector<T>& values) {
    return {reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T)};
}

/// All three entries; `code` is that of T.
template <typename T>
void ExpectDump(float code, const std::vector<T>& data) {
    TempDir directory;
    const std::string file = directory / "conv1_input_batch4294967295.bin";
    const kest_tf::DumpParam param{directory.Path(), "conv1_input", UINT_MAX, {2, 3, 5}, 2};
    EXPECT_EQ(file, KestCommon::ConcatName(param.dumpDir, param.tensorName, param.batchNum));
    WriteText(file, std::string(100, 'x'));  // goes
    const auto dump = [&] { EXPECT_EQ(0, (kest_tf::DumpFunctor<Device, T>()(data.data(), data.size(), param))); };
    dump();
    EXPECT_EQ(Bytes<float>({code, 2, 3}) + Bytes(data), ReadText(file));
    KestCommon::DumpDataWithType(data.data(), 1, {file, {}, 0});
    EXPECT_EQ(Bytes<float>({code}) + Bytes<T>({data[0]}), ReadText(file));
    KestCommon::DumpDataWithType(data.data(), 1, {file, {}, UINT_MAX});  // and the code's place is one more
    EXPECT_EQ(Bytes<float>({code}) + Bytes<T>({data[0]}), ReadText(file));
    KestCommon::DumpData<T>(data.data(), -1, {file, {7, 8}, 3});
    EXPECT_EQ(Bytes<float>({7, 8}), ReadText(file));
    KestCommon::DumpData<T>(nullptr, 0, {file, {}, 0});
    EXPECT_EQ("", ReadText(file));

    const std::string error = "[ERROR][DumpData][] KestCommon::dump_data write ";
    refusesToAppend = true;
    EXPECT_EQ(error + "outData fail to open file.\n", LogOf(dump));
    refusesToAppend = false;
    EXPECT_EQ(Bytes<float>({code, 2, 3}), ReadText(file));
    std::filesystem::remove_all(directory.Path());
    EXPECT_EQ(error + "outShape fail to open file.\n", LogOf(dump));
    EXPECT_FALSE(std::filesystem::exists(directory.Path()));
}

TEST(TensorDump, EachElementType) {
    ExpectDump<float>(0, {1.5f, -2, kNan, -0.0f});
    ExpectDump<double>(1, {1.5, -2, 5e-324});
    ExpectDump<int>(2, {INT_MIN, -1, 7});
    ExpectDump<unsigned short>(3, {0x3C00, 0xFFFF, 0});
}

}  // namespace
