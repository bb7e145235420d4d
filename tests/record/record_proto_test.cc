#include <tests/record/record_test_util.h>

#include <array>

namespace {

using namespace kest_tf;  // NOLINT: the subject of the whole file

struct Row {
    const char* why;
    std::string text;
    std::string flat;  // of the root, after a failure too
};

void CheckRows(int status, const std::vector<Row>& rows) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.why);
        Root root;
        EXPECT_EQ(status, Parse(row.text, root));
        EXPECT_EQ(row.flat, Flat(root.Dump()));
    }
}

// A parsed record always has its value block, whether or not a text named it.
const std::string kA = R"(record { key: "a" value { } })";

TEST(RecordParser, Grammar) {
    const std::string all = R"(value { scale_d: 0.25 offset_d: -1 scale_w: 0.5 offset_w: 5 shift_bit: 3 cluster: 7 )"
                            R"(skip_fusion: false dst_type: "INT8" tensor_balance_factor: 2 })";
    CheckRows(
        STATUS_OK,
        {{"empty", "", ""},
         {"no blanks at : and {", "record{key:\"a\" value{scale_d:1 }}", R"(record { key: "a" value { scale_d: 1 } })"},
         {"CR LF, last brace ends the file", "record {\r\n  key: \"a\"\r\n}", kA},
         {"tabs, blank before the colon", "\trecord\t{ key :\t\"a\" }", kA},
         {"what precedes the colon is skipped", "record { key is : a }", kA},
         {"any order in, fixed order out", R"(record { value { cluster: 7 tensor_balance_factor: 2 dst_type: "INT8"
           skip_fusion: false shift_bit: 3 offset_w: 5 scale_w: 0.5 offset_d: -1 scale_d: 0.25 } key: "a" })",
          "record { key: \"a\" " + all + " }"},
         {"scalars keep the last, lists collect, broken runs too",
          "record { key: a value { scale_d: 1 scale_d: 2 scale_w: 1 scale_w: 2 offset_w: 9 scale_w: 3 } key: b }",
          R"(record { key: "b" value { scale_d: 2 scale_w: 1 scale_w: 2 scale_w: 3 offset_w: 9 } })"},
         {"a second value block replaces the first", "record { value { scale_d: 1 } value { scale_w: 2 } }",
          "record { value { scale_w: 2 } }"},
         {"braces in quotes do not count", "record { key: \"}a{\" }", R"(record { key: "}a{" value { } })"},
         {"first to last quote", "record { key: x\"a\"\"b\"y }", R"(record { key: "a""b" value { } })"},
         {"one quote: what follows it", "record { key: x\"b\n key: y\"a }", kA},
         {"an empty key has no line", "record { key: \"\" }", "record { value { } }"},
         {"true alone is true", "record { value { skip_fusion: true } } record { value { skip_fusion: True } }",
          "record { value { skip_fusion: true } } record { value { skip_fusion: false } }"},
         {"no text from an earlier record",
          "record { key: b value { dst_type: x } } record { key: a } record { value { offset_d: 2 } }",
          R"(record { key: "b" value { dst_type: "x" } } )" + kA + " record { value { offset_d: 2 } }"},
         {"NUL is a character", {"record { key: \0 }", 17}, {"record { key: \"\0\" value { } }", 29}},
         {"a scalar in braces", "record { value { offset_d { 7 } } }", "record { value { offset_d: 7 } }"},
         {"a block as a token", "record: value{} prune_record: x ", "record { value { } } prune_record {x}"}});
    Root root;
    EXPECT_EQ(STATUS_OK, Parse("prune_record {\n  x { \"}\" }\t}record { key: a }", root));
    EXPECT_EQ("record {\n  key: \"a\"\n  value {\n  }\n}\nprune_record {\n  x { \"}\" }\t}\n", root.Dump());
}

TEST(RecordParser, Malformed) {
    CheckRows(RECORD_UNKNOWN_FIELD,
              {{"comment", kA + "# x\n", kA},
               {"unknown name at the very end", kA + "x", kA},
               {"vertical tab does not separate", "\vrecord { }", ""},
               {"no name", ": 1 ", ""},
               {"closing brace too many", kA + "}\n", kA},
               {"field of no schema", kA + "record { key: b value { op_data_type: 'FLOAT16' } }", kA},
               {"longer than a known name", "record { value { scale_w: 1 scale_wx: 2 } }", ""},
               {"block with a colon", "record { key: a value: { scale_d: 1 } }", ""},
               {"block with a colon at the very end", "record:{", ""},
               {"prune block with a colon", "prune_record: {} ", ""}});
    CheckRows(RECORD_DATA_ERROR,
              {{"block that ends with the text", kA + "record { value { scale_d: 1 }", kA},
               {"closing brace in an open quote", "record { key: x\"a\"b\"y }", ""},
               {"value touches the brace", "record { key: a value { scale_d: 1} }", ""},
               {"list item touches the brace", "record { key: a value { scale_w: 1 scale_w: 2} }", ""},
               {"no value", "record { key: }", ""},
               {"no colon", "record { key }", ""},
               {"nothing behind the colon", "record:", ""},
               {"name touches the brace", "record { key: a value{scale_w}}", ""},
               {"name touches the brace, in a run", "record { key: a value{scale_w:1 scale_w}}", ""}});
}

/// Parsers and nodes that a caller put into a schema.
TEST(RecordParser, ForeignSchema) {
    struct NoTwo : FloatProto {
        NoTwo() : FloatProto("scale_w", 0) {}
        int Parse(std::string& text, Data& node) override {
            return text == "2" ? RECORD_OPEN_ERROR : FloatProto::Parse(text, node);
        }
    };
    ValueProto parser("value", 0);
    ValueData value("value", FIELD_MESSAGE, 0);
    std::string text = "scale_w: 1 scale_w: 2 ", odd = "odd: 1 ";
    EXPECT_TRUE(parser.Init() == STATUS_OK && value.Init() == STATUS_OK);
    delete std::exchange(parser.schema["scale_w"].first, new NoTwo);
    EXPECT_EQ(RECORD_OPEN_ERROR, parser.Parse(text, value));
    EXPECT_EQ("value { scale_w: 1 }", Flat(value.Dump()));
    auto& [reader, scratch] = parser.schema["odd"];
    EXPECT_TRUE(parser.Init() == RECORD_DATA_ERROR && parser.Parse(odd, value) == RECORD_DATA_ERROR);
    reader = new StringProto("odd", 0);
    EXPECT_TRUE(parser.Init() == RECORD_DATA_ERROR && parser.Parse(odd, value) == RECORD_DATA_ERROR);
    scratch = new ValueData("odd", FIELD_STRING, 0);
    scratch->children.emplace_back("none", nullptr);
    EXPECT_EQ(RECORD_DATA_ERROR, parser.Parse(odd, value)) << "the block has no such field";
}

/// What a stream in the classic locale reads from `token`.
template <typename T>
T FromStream(const std::string& token) {
    std::istringstream stream(token);
    stream.imbue(std::locale::classic());
    T value = 0;
    stream >> value;
    return value;
}

TEST(RecordParser, NumbersAreThoseOfAStream) {
    std::vector<std::string> tokens = Words(
        "1e 1e+ 1e-5 1e400 -1e400 1e-400 1.5abc +5 0x10 .5 5. . - -.e1 1.5.5 1e5e5 1e+-5 inf nan -inf -0 00012 1E5 3.7 "
        "2147483648 -2147483649 -1 --1 1,5 16777217 3.40282357e38 1e22 1e-23 18446744073709551615 18446744073709551616 "
        "-18446744073709551616 1.00000005960464477539062500 1.00000005960464477539062501");
    for (const char* blank : {"", "\v5", " 5", "5 6"}) tokens.emplace_back(blank);
    std::mt19937 random(1);
    const std::string characters = "00123456789012345678900..eE+-x,";
    for (int i = 0; i < 30000; ++i) {
        std::string token(1 + random() % 14, ' ');
        for (char& c : token) c = characters[random() % characters.size()];
        tokens.push_back(token);
        std::array<char, 64> number;  // every second x, of 25 bits, lies half-way between two floats
        const double x = std::ldexp(1.0 + (random() % 33554432) / 33554432.0, static_cast<int>(random() % 280) - 150);
        std::snprintf(number.data(), number.size(), "%.*g", static_cast<int>(1 + random() % 17), x);
        tokens.emplace_back(number.data());
    }
    const CommaLocale comma;  // reaches no file
    for (std::string& token : tokens) {
        FloatData f("f", FIELD_FLOAT, 0);
        IntData i("i", FIELD_INT, 0);
        UnsignedIntListData u("u", FIELD_UINT64_LIST, 0);
        FloatProto("f", 0).Parse(token, f);
        IntProto("i", 0).Parse(token, i);
        UnsignedIntProto("u", 0).Parse(token, u);
        ASSERT_EQ(Bits(FromStream<float>(token)), Bits(f.scalar)) << token;
        ASSERT_EQ(FromStream<int>(token), i.scalar) << token;
        ASSERT_EQ(FromStream<unsigned long>(token), u.items.at(0)) << token;
    }
}

}  // namespace
