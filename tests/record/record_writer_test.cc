#include <tests/record/record_test_util.h>

#include <array>
#include <clocale>
#include <locale>

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
         Words("0.5 1 -128 0.100000001 0.00249999994 9.99999975e-05 123456792 1e+09 -100000000 0 -0 "
               "1234567.5 100 1.40129846e-45 3.40282347e+38 inf -inf nan"))
        EXPECT_EQ(text, Nine(std::strtof(text.c_str(), nullptr)));
    EXPECT_EQ("nan", Nine(-kNan));
    std::mt19937 random(2);
    for (int i = 0; i < 200000; ++i) {  // all exponents; halves of the ninth digit; where the notation is fixed
        const float mantissa = static_cast<float>(random() % 16777216);
        const float x = i % 4 == 0   ? std::ldexp(mantissa, static_cast<int>(random() % 250) - 170)
                        : i % 4 == 1 ? static_cast<float>(random() % 4096) / static_cast<float>(1 << (random() % 24))
                                     : std::ldexp(mantissa, static_cast<int>(random() % 44) - 37);
        std::array<char, 32> expected;
        std::snprintf(expected.data(), expected.size(), "%.9g", static_cast<double>(x));
        ASSERT_EQ(expected.data(), Nine(x));
    }
}

TEST(RecordWriter, WholeEntry) {
    Root root;
    RecordData* record = root.AddRecord();
    static_cast<StringData*>(record->children[0].second)->scalar = "conv1";
    EXPECT_EQ("", root.Dump()) << "a text without its flag does not make a record appear";
    record->SetKey("conv1");
    EXPECT_EQ("record {\n  key: \"conv1\"\n}\n", root.Dump());
    for (const auto& field : record->Value()->children)
        AddEach(*field.second, 0.1f, -2147483647 - 1, ~0ul, false, "INT8");
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

/// Random trees come back from their text, floats to the bit.
TEST(RecordWriter, RoundTrip) {
    std::mt19937 random(3);
    const auto word = [&] {
        std::string text(1 + random() % 40, ' ');
        for (char& c : text)
            c = static_cast<char>(random() % 8 == 0 ? "{}:'/#\\\xff"[random() % 8] : 'a' + random() % 26);
        return text;
    };
    for (int round = 0; round < 200; ++round) {
        Root root, copy;
        std::vector<float> floats, parsed;
        for (unsigned n = random() % 6; n > 0; --n) {
            RecordData* record = root.AddRecord();
            record->SetKey(word());
            for (unsigned items = 1 + random() % 20; items > 0; --items) {
                Data* field = record->Value()->children[random() % 9].second;
                const float f = std::ldexp(static_cast<float>(random()) - 2e9f, static_cast<int>(random() % 180) - 130);
                const unsigned long u = (static_cast<unsigned long>(random()) << 32) + random();
                AddEach(*field, f, static_cast<int>(random()), u, random() % 2 == 0, word());
            }
        }
        RecordDataPrune prune("prune_record", FIELD_RECORD, 0);
        prune.content = "\n " + std::to_string(random()) + " {}\t";
        root.AddData("prune_record", &prune);
        ASSERT_EQ(STATUS_OK, Parse(root.Dump(), copy));
        ASSERT_EQ(root.Dump(), copy.Dump());
        for (Root* tree : {&root, &copy})
            for (const RecordData* record : tree->records)
                for (float f : static_cast<FloatListData*>(record->Value()->children[2].second)->items)
                    (tree == &root ? floats : parsed).push_back(f);
        ExpectSameBits(floats, parsed);
    }
}

/// Neither the C++ nor the C locale of the process reaches the file.
TEST(RecordWriter, CommaLocale) {
    struct Comma : std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Comma));
    const std::string beforeC = std::setlocale(LC_ALL, nullptr);
    if (std::setlocale(LC_ALL, "de_DE.UTF-8") == nullptr) std::setlocale(LC_ALL, "fr_FR.UTF-8");
    const std::string fields = "scale_d: 1234567.5 offset_d: 1234567 scale_w: 1e-30 shift_bit: 12345678901234567 } }";
    for (const char* sign : {"", "+"}) {  // "+" only a stream reads
        Root root;
        std::string text = "record { value { " + fields;
        for (std::size_t at = 0; (at = text.find(": ", at)) != std::string::npos; ++at) text.insert(at + 2, sign);
        EXPECT_EQ(STATUS_OK, Parse(text, root));
        EXPECT_EQ("record { value { " + fields, Flat(root.Dump()));
    }
    ListData<float> plain("x", FIELD_FLOAT_LIST, 0);
    for (float x : {1234.5f}) plain.AddData("x", x);
    EXPECT_EQ("x: 1234.500000\n", plain.Dump());
    std::setlocale(LC_ALL, beforeC.c_str());
    std::locale::global(before);
}

}  // namespace
