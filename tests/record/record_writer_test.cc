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
    const std::pair<float, const char*> rows[] = {{0.5f, "0.5"},
                                                  {1.0f, "1"},
                                                  {-128.0f, "-128"},
                                                  {0.1f, "0.100000001"},
                                                  {0.0025f, "0.00249999994"},
                                                  {1e-4f, "9.99999975e-05"},
                                                  {123456789.0f, "123456792"},
                                                  {1e9f, "1e+09"},
                                                  {-0.0f, "-0"},
                                                  {0.0f, "0"},
                                                  {kInf, "inf"},
                                                  {-kInf, "-inf"},
                                                  {kNan, "nan"},
                                                  {-kNan, "nan"},
                                                  {100.0f, "100"},
                                                  {-1e8f, "-100000000"},
                                                  {FLT_MAX, "3.40282347e+38"},
                                                  {1e-45f, "1.40129846e-45"},
                                                  {1234567.5f, "1234567.5"}};
    for (const auto& [value, text] : rows) EXPECT_EQ(text, Nine(value));

    std::mt19937 random(2);
    for (int i = 0; i < 200000; ++i) {
        // Mostly where the notation is fixed, 2^-14 to 2^30; halves of the ninth digit among the short ones.
        const float x = i % 4 == 0   ? std::ldexp(float(random() % 16777216), static_cast<int>(random() % 250) - 170)
                        : i % 4 == 1 ? float(random() % 4096) / float(1 << (random() % 24))
                                     : std::ldexp(float(random() % 16777216), static_cast<int>(random() % 44) - 37);
        std::array<char, 32> expected;
        std::snprintf(expected.data(), expected.size(), "%.9g", static_cast<double>(x));
        ASSERT_EQ(expected.data(), Nine(x));
    }
}

TEST(RecordWriter, WholeEntry) {
    Root root;
    RecordData* record = root.AddRecord();
    EXPECT_EQ("", root.Dump()) << "nothing has a value";
    Child<StringData>(*record, "key")->scalar = "conv1";
    EXPECT_EQ("", root.Dump()) << "a text without its flag does not bring its record back";
    record->SetKey("conv1");
    const ValueData& value = *record->Value();
    value.SetScaleD(0.0392156877f);
    value.SetOffsetD(-128);
    const std::array<float, 2> scaleW = {0.0025f, 0.1f};
    const std::array<int, 2> offsetW = {0, -2147483647 - 1};
    KestTfOp::AddScaleOffsetCluster(value, scaleW.data(), offsetW.data(), offsetW.data() + 1, 2, 1);
    unsigned long shift = ~0ul;
    value.children[4].second->AddData("shift_bit", shift);
    bool skip = false;
    value.children[6].second->AddData("skip_fusion", skip);
    std::string type = "INT8";
    value.children[7].second->AddData("dst_type", type);
    float factor = 1;
    value.children[8].second->AddData("tensor_balance_factor", factor);
    const std::string text =
        "record {\n  key: \"conv1\"\n  value {\n    scale_d: 0.0392156877\n    offset_d: -128\n"
        "    scale_w: 0.00249999994\n    scale_w: 0.100000001\n    offset_w: 0\n    offset_w: -2147483648\n"
        "    shift_bit: 18446744073709551615\n    cluster: -2147483648\n    skip_fusion: false\n"
        "    dst_type: \"INT8\"\n    tensor_balance_factor: 1\n  }\n}\n";
    EXPECT_EQ(text, root.Dump());

    for (const auto& field : value.children) {
        ASSERT_EQ(text.find(field.second->Dump()) == std::string::npos, false) << field.first;
        field.second->ClearData();
    }
    EXPECT_EQ("", value.children[2].second->Dump());
    type.clear();
    value.children[7].second->AddData("dst_type", type);
    EXPECT_EQ("record {\n  key: \"conv1\"\n  value {\n  }\n}\n", root.Dump())
        << "flagged, but an empty text has no line";
    value.children[7].second->ClearData();
    EXPECT_EQ("record {\n  key: \"conv1\"\n}\n", root.Dump());
    Child<IntData>(value, "offset_d")->hasValue = true;
    const_cast<ValueData&>(value).type = FIELD_STRING;
    EXPECT_EQ("", value.children.empty() ? "" : const_cast<ValueData&>(value).Dump()) << "no block kind, no block";

    ListData<float> plain("x", FIELD_FLOAT_LIST, 1);
    for (float x : {0.1f, -FLT_MAX}) plain.AddData("x", x);
    EXPECT_EQ("  x: 0.100000\n  x: -340282346638528859811704183484516925440.000000\n", plain.Dump());
}

/// Random trees survive text and back, twice over.
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
        for (unsigned n = random() % 6; n > 0; --n) {
            RecordData* record = root.AddRecord();
            record->SetKey(word());
            for (const auto& field : record->Value()->children) {
                const bool isScalar = field.second->type == FIELD_FLOAT || field.second->type == FIELD_INT;
                for (unsigned items = random() % (isScalar ? 2 : 5); items > 0; --items) {
                    float f = std::ldexp(float(random()) - 2e9f, static_cast<int>(random() % 180) - 130);
                    int i = static_cast<int>(random());
                    unsigned long u = (static_cast<unsigned long>(random()) << 32) + random();
                    bool b = random() % 2 == 0;
                    std::string text = word();
                    field.second->AddData(field.first, f);  // one of them is of the field's type
                    field.second->AddData(field.first, i);
                    field.second->AddData(field.first, u);
                    field.second->AddData(field.first, b);
                    field.second->AddData(field.first, text);
                }
            }
        }
        RecordDataPrune prune("prune_record", FIELD_RECORD, 0);
        prune.content = "\n " + std::to_string(random()) + " {}\t";
        root.AddData("prune_record", &prune);
        ASSERT_EQ(STATUS_OK, Parse(root.Dump(), copy));
        ASSERT_EQ(root.Dump(), copy.Dump());
        for (std::size_t i = 0; i < root.records.size(); ++i) {
            const auto* from = Child<FloatListData>(*root.records[i]->Value(), "scale_w");
            ExpectSameBits(from->items, Child<FloatListData>(*copy.records[i]->Value(), "scale_w")->items);
        }
    }
}

/// Neither the C++ nor the C locale of the process reaches the file.
TEST(RecordWriter, CommaLocale) {
    struct Comma : std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
        std::string do_truename() const override { return "ja"; }
    };
    const std::string text =
        "record {\n  key: \"a\"\n  value {\n    scale_d: 1234567.5\n    offset_d: 1234567\n    scale_w: 1e-30\n"
        "    shift_bit: 12345678901234567\n    skip_fusion: true\n  }\n}\n";
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Comma));
    const std::string beforeC = std::setlocale(LC_ALL, nullptr);
    for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8"}) {
        if (std::setlocale(LC_ALL, name) != nullptr) break;
    }
    Root root, streamed;
    EXPECT_EQ(STATUS_OK, Parse(text, root));
    EXPECT_EQ(text, root.Dump());
    EXPECT_EQ(STATUS_OK, Parse("record { key: a value { scale_d: +1234567.5 offset_d: +1234567 scale_w: 1e-30x } }",
                               streamed));  // what only a stream reads
    EXPECT_EQ(text.substr(0, text.find("    shift")) + "  }\n}\n", streamed.Dump());
    ListData<float> plain("x", FIELD_FLOAT_LIST, 0);
    float x = 1234.5f;
    plain.AddData("x", x);
    EXPECT_EQ("x: 1234.500000\n", plain.Dump());
    std::setlocale(LC_ALL, beforeC.c_str());
    std::locale::global(before);
}

}  // namespace
