#include <kest/op_kernels/tensor_dump.h>

#include <kest/kernel_frame/log.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <utility>

namespace KestCommon {
namespace {

struct Closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Closer>;

/// Nothing for n = 0, where the elements may be null.
template <typename T>
void Write(const T* elements, std::size_t n, const File& file) {
    if (n > 0) std::fwrite(elements, sizeof(T), n, file.get());
}

/// DumpData of any number of elements.
template <typename T>
void Dump(const T* data, std::size_t length, const DumpParam& param) {
    File file(std::fopen(param.fileName.c_str(), "wbe"));
    if (file == nullptr) {
        util::Log("ERROR", "DumpData", __LINE__, "KestCommon::dump_data write outShape fail to open file.\n");
        return;
    }
    Write(param.shape.data(), std::min<std::size_t>(param.shapeLength, param.shape.size()), file);
    file.reset();
    file.reset(std::fopen(param.fileName.c_str(), "abe"));
    if (file == nullptr) {
        util::Log("ERROR", "DumpData", __LINE__, "KestCommon::dump_data write outData fail to open file.\n");
        return;
    }
    Write(data, length, file);
}

constexpr float TypeCode(float) {
    return 0;
}
constexpr float TypeCode(double) {
    return 1;
}
constexpr float TypeCode(int) {
    return 2;
}
constexpr float TypeCode(unsigned short) {
    return 3;
}

template <typename T>
void DumpWithType(const T* data, std::size_t length, DumpParam param) {
    param.shapeLength = static_cast<unsigned int>(std::min<std::size_t>(param.shapeLength, param.shape.size())) + 1;
    param.shape.insert(param.shape.begin(), TypeCode(T()));
    Dump(data, length, param);
}

std::size_t CountOf(int length) {
    return static_cast<std::size_t>(std::max(length, 0));
}

}  // namespace

std::string ConcatName(const std::string& dumpDir, const std::string& tensorName, const unsigned int& batchNum) {
    return dumpDir + "/" + tensorName + "_batch" + std::to_string(batchNum) + ".bin";
}

void DumpDataWithType(const float* data, int length, DumpParam param) {
    DumpWithType(data, CountOf(length), std::move(param));
}
void DumpDataWithType(const double* data, int length, DumpParam param) {
    DumpWithType(data, CountOf(length), std::move(param));
}
void DumpDataWithType(const int* data, int length, DumpParam param) {
    DumpWithType(data, CountOf(length), std::move(param));
}
void DumpDataWithType(const unsigned short* data, int length, DumpParam param) {
    DumpWithType(data, CountOf(length), std::move(param));
}

template <typename T>
void DumpData(const T* data, int length, DumpParam param) {
    Dump(data, CountOf(length), param);
}

template KEST_EXPORT void DumpData(const float*, int, DumpParam);
template KEST_EXPORT void DumpData(const double*, int, DumpParam);
template KEST_EXPORT void DumpData(const int*, int, DumpParam);
template KEST_EXPORT void DumpData(const unsigned short*, int, DumpParam);

}  // namespace KestCommon

namespace kest_tf {

using util::ThreadPoolDevice;

#define DEFINE(T)                                                                                                 \
    int DumpFunctor<ThreadPoolDevice, T>::operator()(const T* data, unsigned int length, DumpParam param) const { \
        const std::string name = KestCommon::ConcatName(param.dumpDir, param.tensorName, param.batchNum);         \
        KestCommon::DumpWithType(data, length, {name, std::move(param.shape), param.shapeLength});                \
        return STATUS_OK;                                                                                         \
    }                                                                                                             \
    int CopyDataFunctor<ThreadPoolDevice, T>::operator()(const T* in, unsigned int length, T* out) const {        \
        std::copy_n(in, length, out);                                                                             \
        return STATUS_OK;                                                                                         \
    }
DEFINE(float)
DEFINE(double)
DEFINE(int)
DEFINE(unsigned short)
#undef DEFINE

}  // namespace kest_tf
