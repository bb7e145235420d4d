#include <tests/record/record_test_util.h>

#include <array>

namespace {

using namespace KestTfOp;  // NOLINT: the subject of the whole file

TEST(RecordUpdate, EachOperation) {
    TempDir directory;
    const std::string file = directory / "record.txt";
    // On a layer of its own, which is new.
    WriteText(file, "prune_record { x } record { value { scale_d: 1 } }");
    char layer = 'a';
    for (const auto& update : kUpdates) EXPECT_EQ(STATUS_OK, update(std::string(1, layer++), file));
    EXPECT_EQ(STATUS_OK, kUpdates[1]("", file));  // an unset key matches nothing, not even the empty name
    EXPECT_EQ(R"(record { value { scale_d: 1 } } )"
              R"(record { key: "a" value { scale_d: 0.5 offset_d: -1 dst_type: "INT8" } } )"
              R"(record { key: "b" value { scale_d: 0.5 offset_d: -1 } } )"
              R"(record { key: "c" value { scale_w: 0.5 offset_w: -1 } } )"
              R"(record { key: "d" value { scale_w: 2 offset_w: 7 cluster: -1 cluster: 7 } } )"
              R"(record { key: "e" value { shift_bit: 18446744073709551615 shift_bit: 7 } } )"
              R"(record { key: "f" value { tensor_balance_factor: 0.5 tensor_balance_factor: 2 } } )"
              R"(record { key: "g" value { } } record { value { scale_d: 0.5 offset_d: -1 } } prune_record { x })",
              Flat(ReadText(file)));

    // On a record that has it all: each replaces what it owns, in the first record of that key.
    const std::string old =
        "record { key: \"x\" value { "
        "scale_d: 1 offset_d: 2 scale_w: 3 scale_w: 3 offset_w: 4 offset_w: 4 shift_bit: 5 "
        "cluster: 6 skip_fusion: true dst_type: \"FP16\" tensor_balance_factor: 8 } } ";
    const std::vector<std::pair<const char*, const char*>> edits[] = {
        {{"scale_d: 1 offset_d: 2", "scale_d: 0.5 offset_d: -1"}},
        {{"scale_d: 1 offset_d: 2", "scale_d: 0.5 offset_d: -1"}},
        {{"scale_w: 3 scale_w: 3 offset_w: 4 offset_w: 4", "scale_w: 0.5 offset_w: -1"}},
        {{"scale_w: 3 scale_w: 3 offset_w: 4 offset_w: 4", "scale_w: 2 offset_w: 7"}, {"r: 6", "r: -1 cluster: 7"}},
        {{"shift_bit: 5", "shift_bit: 18446744073709551615 shift_bit: 7"}},
        {{"factor: 8", "factor: 0.5 tensor_balance_factor: 2"}},
        {{"shift_bit: 5 ", ""}}};
    for (std::size_t i = 0; i < std::size(kUpdates); ++i) {
        SCOPED_TRACE(i);
        std::string edited = old;
        for (const auto& [from, to] : edits[i]) ConvertLayerName(edited, from, to);
        WriteText(file, old + old);
        EXPECT_EQ("", LogOf([&] { EXPECT_EQ(STATUS_OK, kUpdates[i]("x", file)); }));
        EXPECT_EQ(edited + Flat(old), Flat(ReadText(file)));

        WriteText(file, "x: 1 ");
        EXPECT_EQ(RECORD_UNKNOWN_FIELD, kUpdates[i]("x", file));
        EXPECT_EQ("x: 1 ", ReadText(file));
    }
}

TEST(RecordUpdate, WritesNothingThatCannotBeReadBack) {
    TempDir directory;
    const std::string file = directory / "record.txt";
    const struct {
        const char* text;
        const char* layer;
        const char* type;
        int status;
    } rows[] = {{"", "a b", "INT8", RECORD_DATA_ERROR},
                {"", "a\"b", "INT8", RECORD_DATA_ERROR},
                {"", "a", "a b", RECORD_DATA_ERROR},
                {"", "a", "\"}\"{\"", RECORD_DATA_ERROR},
                {"", "\"{\"", "INT8", RECORD_DATA_ERROR},
                {"", "a\"b\"c", "{}}", STATUS_OK},
                {"record { key: x\"a\"b\"y }", "a", "INT8", RECORD_DATA_ERROR},
                {"record { value { dst_type { a b } } }", "a", "INT8", RECORD_DATA_ERROR},
                {"prune_record: }{ ", "a", "INT8", RECORD_DATA_ERROR},
                {"prune_record: \" ", "a", "INT8", RECORD_DATA_ERROR},
                {"prune_record { \"}\" { a b } }", "a", "INT8", STATUS_OK}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text + (" " + std::string(row.layer)) + row.type);
        WriteText(file, row.text);
        EXPECT_EQ(row.status, WriteDataToRecordFile(kFloats, kInts, row.layer, file, row.type));
        const std::string text = ReadText(file);
        Root root;
        EXPECT_TRUE(row.status == STATUS_OK ? Parse(text, root) == STATUS_OK : text == row.text) << text;
    }
}

TEST(RecordUpdate, ValueCheck) {
    for (float x : {0.0f, 1e-39f, std::nextafter(FLT_MIN, 0.0f), kInf})
        EXPECT_FALSE(ValueCheck(x) || ValueCheck(-x)) << x;
    for (float x : {FLT_MIN, 1.0f, FLT_MAX, kNan}) EXPECT_TRUE(ValueCheck(x) && ValueCheck(-x)) << x;
}

TEST(RecordUpdate, ComputeDeqScale) {
    const float scaleW[] = {0.5f, 3.0f, 1e-10f, 2.0f};
    std::vector<float> deqScale(4, 7);
    sem_wait(&Initializer::GetInstance().semaphore);
    EXPECT_EQ(STATUS_OK, ComputeDeqScale(deqScale.data(), scaleW, 0.1f, 2));
    ExpectSameBits({0.05f, 0.1f * 3.0f, 7, 7}, deqScale);
    EXPECT_EQ(0, SemaphoreCount());
    EXPECT_EQ(DEQ_SCALE_ERROR, ComputeDeqScale(deqScale.data(), scaleW, 1e-30f, 4));
    ExpectSameBits({0.5e-30f, 3e-30f, 1e-30f * 1e-10f, 7}, deqScale);
    EXPECT_EQ(1, SemaphoreCount()) << "posted on failure alone";
}

TEST(RecordUpdate, ConvertLayerName) {
    const std::array<const char*, 4> rows[] = {{"a/b/c", "/", "_", "a_b_c"}, {"aa", "a", "aa", "aaaa"},
                                               {"/a//", "/", "", "a"},       {"aaa", "aa", "b", "ba"},
                                               {"abc", "x", "y", "abc"},     {"abc", "", "y", "abc"}};
    for (const auto& [name, from, to, result] : rows) {
        std::string converted = name;
        ConvertLayerName(converted, from, to);
        EXPECT_EQ(result, converted);
    }
}

}  // namespace
