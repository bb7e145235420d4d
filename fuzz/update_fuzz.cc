// Updates of arbitrary files: each leaves a file that parses and in which all but its layer is what it was, or the file
// to the byte.

#include <fuzz/record_fuzz.h>
#include <kest/record/record_update.h>

#include <algorithm>

namespace {

struct Update {
    explicit Update(FuzzedDataProvider& provider)
        : kind(provider.ConsumeIntegralInRange(0, 4)),
          layer(provider.ConsumeIntegralInRange<std::size_t>(0, 8)),
          newLayer(provider.PickValueInArray({"new", "", "{x}", "a b", "a\"b", "a\"}\"b"})),
          dstType(provider.PickValueInArray({"hide", "", "INT8", "}{", "a b", "\""})),
          length(provider.ConsumeIntegralInRange(-1, 8)),
          clusterLength(provider.ConsumeIntegralInRange(-1, 4)),
          floats(AnyValues<float>(provider, std::max(length, 1))),
          ints(AnyValues<int>(provider, std::max({length, clusterLength, 1}))) {}

    int Apply(const std::string& name, const std::string& path) const {
        const float* const f = floats.data();
        const int* const i = ints.data();
        if (kind == 0) return KestTfOp::WriteDataToRecordFile(f, i, name, path, dstType);
        if (kind == 1) return KestTfOp::WriteWeightToRecordFile(f, i, length, name, path);
        if (kind == 2) return KestTfOp::WriteNuqRecordToFile(f, i, i, length, clusterLength, name, path);
        if (kind == 3) return KestTfOp::WriteShiftNToRecordFile(i, length, name, path);
        return KestTfOp::WriteTensorBalanceFactorToRecordFile(f, length, name, path);
    }

    int kind;
    std::size_t layer;  // of the file; a new one beyond its end
    const char* newLayer;
    const char* dstType;
    int length;
    int clusterLength;
    std::vector<float> floats;
    std::vector<int> ints;
};

/// A record without a key is of no layer, one with `key: ""` of the layer with the empty name.
bool IsOf(const std::string& layer, const kest_tf::RecordData& record) {
    return record.children.front().second->HasValue() && KeyOf(record) == layer;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider provider(data, size);
    std::vector<Update> updates;  // from the end of the data; what is left is the file
    for (int i = provider.ConsumeIntegralInRange(1, 4); i > 0; --i) updates.emplace_back(provider);
    WriteScratch(provider.ConsumeRemainingBytesAsString());

    for (const Update& update : updates) {
        const std::string before = ReadScratch();
        Root old, now;
        const int parsed = Parse(before, old);
        const std::string name =
            update.layer < old.records.size() ? KeyOf(*old.records[update.layer]) : update.newLayer;
        const int status = update.Apply(name, ScratchFile());
        const std::string after = ReadScratch();
        Require(parsed == STATUS_OK ? status == STATUS_OK || status == RECORD_DATA_ERROR : status == parsed,
                "an update fails as the parser does, or for what could not be read back");
        Require(status == STATUS_OK || after == before, "a failed update leaves the file alone");
        if (status != STATUS_OK) continue;
        Require(Parse(after, now) == STATUS_OK, "an update leaves a file that can be parsed");
        std::size_t updated = 0;
        while (updated < old.records.size() && !IsOf(name, *old.records[updated])) ++updated;
        if (updated == old.records.size()) old.AddRecord();
        Require(now.records.size() == old.records.size(), "only an unknown layer gets a record");
        Require(KeyOf(*now.records[updated]) == name, "the layer keeps its name");
        const std::string text = now.Dump();
        std::swap(old.records[updated], now.records[updated]);
        Require(old.Dump() == text, "other layers and prune records stay as they are");
    }
    return 0;
}
