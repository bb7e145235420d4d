#include <tests/faults/shim.h>
#include <tests/record/record_test_util.h>

namespace {

std::string Times(std::size_t n, const std::string& text) {
    std::string all;
    all.reserve(n * text.size());
    for (; n > 0; --n) all += text;
    return all;
}

// The multiples are those of docs/record-file.md. Nothing here may take deep recursion or time beyond linear either.
TEST(RecordMemory, IsAMultipleOfTheText) {
    constexpr std::size_t kMany = (1 << 17) + 1;  // one more than a vector of doubled size holds
    constexpr std::size_t kDeep = 1000000, kSchema = 16384;
    const struct {
        const char* why;
        std::string text;
        int status;
        std::size_t multiple;
    } rows[] = {
        {"records of nothing", Times(kMany / 10, "record{}"), STATUS_OK, 256},
        {"the same as they are written", Times(kMany / 10, "record {\n  value {\n  }\n}\n"), STATUS_OK, 80},
        {"one value a record", Times(kMany / 10, "record {\n  value {\n    scale_d: 0.5\n  }\n}\n"), STATUS_OK, 50},
        {"prune records of nothing", Times(kMany, "prune_record{}"), STATUS_OK, 16},
        {"a list", "record{value{" + Times(kMany, "shift_bit{}") + "}}", STATUS_OK, 8},
        {"lists in turn", "record{value{" + Times(kMany, "shift_bit{}cluster{}") + "}}", STATUS_OK, 8},
        {"value blocks", "record{" + Times(kMany, "value{}") + "}", STATUS_OK, 8},
        {"a long key", "record{key:" + Times(kMany, "name/") + " }", STATUS_OK, 8},
        {"a long number", "record{value{scale_w:" + Times(kMany, "1") + " }}", STATUS_OK, 8},
        {"a long name", "record{" + Times(kMany, "value") + "{}}", RECORD_UNKNOWN_FIELD, 8},
        {"nested raw text", "prune_record" + Times(kDeep, "{") + Times(kDeep, "}"), STATUS_OK, 8},
        {"nested records", Times(kDeep, "record{") + Times(kDeep, "}"), RECORD_UNKNOWN_FIELD, 8},
        {"open braces", "record" + Times(kDeep, "{"), RECORD_DATA_ERROR, 8},
        {"quotes", "record{key:" + Times(kMany, "\"\"") + " }", STATUS_OK, 8},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        const std::size_t before = liveBytes;
        peakBytes = before;
        Root root;
        EXPECT_EQ(row.status, Parse(row.text, root));
        EXPECT_LE(peakBytes - before, row.multiple * row.text.size() + kSchema);
        Root copy;  // written and copied as well
        for (kest_tf::RecordData* record : root.records) EXPECT_EQ(STATUS_OK, copy.AddData("record", record));
        for (kest_tf::RecordDataPrune* prune : root.pruneRecords) copy.AddData("prune_record", prune);
        EXPECT_TRUE(root.Dump() == copy.Dump());
    }
}

}  // namespace
