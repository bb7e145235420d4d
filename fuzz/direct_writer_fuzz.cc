// The direct writer on arbitrary files, at a path and through an open file: both make the same edit or none, and one of
// a field that the parser knows leaves a file that parses if it did.

#include <fuzz/record_fuzz.h>
#include <kest/kernel_frame/log_sink.h>
#include <kest/record/direct_writer.h>

#include <fcntl.h>

#include <algorithm>
#include <memory>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    util::SetLogSink([](const char*) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider provider(data, size);
    const int kind = provider.ConsumeIntegralInRange(0, 3);
    auto floats = AnyValues<float>(provider, provider.ConsumeIntegralInRange(1, 5));
    auto ints = AnyValues<int>(provider, static_cast<int>(floats.size()));
    const int dataType = kind == 0 ? provider.PickValueInArray({0, 1, 10}) : 0;
    const std::string field = provider.PickValueInArray({"tensor_balance_factor", "scale_w", "cluster", "x {"});
    const std::string layer = provider.ConsumeBool() ? "a" : provider.ConsumeRandomLengthString(16).c_str();
    const std::string before = provider.ConsumeRemainingBytesAsString();

    const std::string& path = ScratchFile();
    const util::FloatData scale{1, floats.data()};
    const util::IntData offset{1, ints.data()};
    WriteScratch(before);
    const int status = kind == 0   ? RecordScaleOffset(path, layer, scale, offset, dataType)
                       : kind == 1 ? RecordScaleOffsetWeight(path, layer, scale, offset)
                       : kind == 2 ? util::RecordRepeatData(path, layer, ints, field)
                                   : util::RecordRepeatData(path, layer, floats, field);
    const std::string after = ReadScratch();

    WriteScratch(before);
    const std::unique_ptr<unsigned char[]> content(new unsigned char[before.size() + 1]);  // ends with its NUL
    std::memcpy(content.get(), before.c_str(), before.size() + 1);
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    const util::QuantizeFactor<int> factor{floats[0], ints[0], ints,
                                           kind == 0   ? "data"
                                           : kind == 1 ? "weight"
                                                       : field,
                                           dataType};
    const util::QuantizeFactor<float> floatFactor{0, 0, floats, field, 0};
    const int openStatus =
        kind < 2    ? util::RecordScaleOffsetData(fd, content.get(), before.size(), layer.c_str(), factor)
        : kind == 2 ? util::RecordRepeatDataKernel(fd, content.get(), before.size(), layer.c_str(), factor)
                    : util::RecordRepeatDataKernel(fd, content.get(), before.size(), layer.c_str(), floatFactor);
    close(fd);

    Require(before.empty() || status == openStatus, "both ways have the same status");
    Require(after == ReadScratch(), "both ways make the same edit");
    Require(status == STATUS_OK || after == before, "a failed edit leaves the file alone");
    if (status != STATUS_OK) return 0;
    if (kind < 2 || field != "tensor_balance_factor") {
        const auto start = std::mismatch(before.begin(), before.end(), after.begin(), after.end()).first;
        const std::string rest(start, before.end());
        Require(after.size() > before.size() && after.compare(after.size() - rest.size(), rest.size(), rest) == 0,
                "lines are added, the rest stays");
    }
    Root old, now;
    const bool isKnown = dataType == 0 && (kind < 2 || field != "x {");
    if (isKnown && Parse(before, old) == STATUS_OK) Require(Parse(after, now) == STATUS_OK, "the file still parses");
    return 0;
}
