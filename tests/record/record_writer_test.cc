#include <tests/record/record_test_util.h>

namespace {

using namespace kest_tf;  // NOLINT: the subject of the whole file

std::string Nine(float x) {
    FloatData node("x", FIELD_FLOAT, 0);
    node.AddData("x", x);
    const std::string line = node.Dump();
    return line.substr(3, line.size() - 4);  // without "x: " and the line feed
}

TEST(RecordWriter, NineDigits) {
    for (const std::string& text :
         Words("0.5 1 -128 0.100000001 0.200000003 0.00249999994 9.99999975e-05 123456792 1e+09 -100000000 0 -0 "
               "1234567.5 100 1.40129846e-45 3.40282347e+38 inf -inf nan 1234567.12 1234567.38"))  // of .125 and .375
        EXPECT_EQ(text, Nine(std::strtof(text.c_str(), nullptr)));
    EXPECT_EQ("nan", Nine(-kNan));
}

/// Neither the C++ nor the C locale of the process reaches the file.
TEST(RecordWriter, WholeEntryInAnyLocale) {
    const CommaLocale comma;
    Root root;
    RecordData* record = root.AddRecord();
    static_cast<StringData*>(record->children[0].second)->scalar = "conv1";
    EXPECT_EQ("", root.Dump()) << "a text without its flag does not make a record appear";
    record->SetKey("conv1");
    EXPECT_EQ("record {\n  key: \"conv1\"\n}\n", root.Dump());
    for (const auto& [name, field] : record->Value()->children) {  // each takes the one of its type
        for (float f : {0.1f}) field->AddData(name, f);
        for (int i : {-2147483647 - 1}) field->AddData(name, i);
        for (unsigned long u : {~0ul}) field->AddData(name, u);
        for (bool b : {false}) field->AddData(name, b);
        for (std::string text : {"INT8"}) field->AddData(name, text);
    }
    record->Value()->AddScaleW(0.0025f);
    EXPECT_EQ(
        "record {\n  key: \"conv1\"\n  value {\n    scale_d: 0.100000001\n    offset_d: -2147483648\n"
        "    scale_w: 0.100000001\n    scale_w: 0.00249999994\n    offset_w: -2147483648\n"
        "    shift_bit: 18446744073709551615\n    cluster: -2147483648\n    skip_fusion: false\n"
        "    dst_type: \"INT8\"\n    tensor_balance_factor: 0.100000001\n  }\n}\n",
        root.Dump());
    record->Value()->ClearData();
    EXPECT_EQ("record {\n  key: \"conv1\"\n}\n", root.Dump());
    std::string none;
    record->Value()->children[7].second->AddData("dst_type", none);
    EXPECT_EQ("record {\n  key: \"conv1\"\n  value {\n  }\n}\n", root.Dump())
        << "flagged, but an empty text has no line";
    record->Value()->type = FIELD_STRING;
    EXPECT_EQ("record {\n  key: \"conv1\"\n}\n", root.Dump()) << "not the kind of a block";
    ListData<float> plain("x", FIELD_FLOAT_LIST, 1);
    for (float x : {0.1f, -FLT_MAX}) plain.AddData("x", x);
    EXPECT_EQ("  x: 0.100000\n  x: -340282346638528859811704183484516925440.000000\n", plain.Dump());
}

}  // namespace
