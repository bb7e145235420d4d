#include <tests/record/record_test_util.h>

#include <array>
#include <locale>
#include <set>

namespace {

using namespace kest_tf;  // NOLINT: the subject of the whole file

/// What a parsed record is written as: its value block is there even if no text named it.
std::string Record(const std::string& key, const std::string& fields = "") {
    return "record {\n  key: \"" + key + "\"\n  value {\n" + fields + "  }\n}\n";
}

struct Row {
    const char* why;
    std::string text;
    int status;
    std::string dump;  // of the root, after a failure too
};

void CheckRows(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.why);
        Root root;
        EXPECT_EQ(row.status, Parse(row.text, root));
        EXPECT_EQ(row.dump, root.Dump());
    }
}

TEST(RecordParser, Grammar) {
    CheckRows({
        {"empty", "", STATUS_OK, ""},
        {"separators only", " \t\r\n", STATUS_OK, ""},
        {"last brace ends the file", "record {\n  key: \"a\"\n}", STATUS_OK, Record("a")},
        {"no blanks at : and {", "record{key:\"a\" value{scale_d:1 }}", STATUS_OK, Record("a", "    scale_d: 1\n")},
        {"CR LF", "record {\r\n  key: \"a\"\r\n}\r\n", STATUS_OK, Record("a")},
        {"tabs, blank before the colon", "\trecord\t{ key :\t\"a\" }", STATUS_OK, Record("a")},
        {"what precedes the colon is skipped", "record { key { : \"a\" }", RECORD_DATA_ERROR, ""},
        {"what precedes the colon is skipped", "record { key is : \"a\" }", STATUS_OK, Record("a")},
        {"any order in, fixed order out",
         "record { value { cluster: 7 tensor_balance_factor: 2 dst_type: \"INT8\" skip_fusion: false shift_bit: 3 "
         "offset_w: 5 scale_w: 0.5 offset_d: -1 scale_d: 0.25 } key: \"a\" }",
         STATUS_OK,
         Record("a",
                "    scale_d: 0.25\n    offset_d: -1\n    scale_w: 0.5\n    offset_w: 5\n    shift_bit: 3\n"
                "    cluster: 7\n    skip_fusion: false\n    dst_type: \"INT8\"\n    tensor_balance_factor: 2\n")},
        {"scalars keep the last, lists collect, runs may be broken",
         "record { key: a value { scale_d: 1 scale_d: 2 scale_w: 1 scale_w: 2 offset_w: 9 scale_w: 3 } key: b }",
         STATUS_OK, Record("b", "    scale_d: 2\n    scale_w: 1\n    scale_w: 2\n    scale_w: 3\n    offset_w: 9\n")},
        {"a second value block replaces the first",
         "record { key: a value { scale_d: 1 scale_w: 1 } value { scale_w: 2 } }", STATUS_OK,
         Record("a", "    scale_w: 2\n")},
        {"one key twice", "record { key: a } record { key: a }", STATUS_OK, Record("a") + Record("a")},
        {"braces in quotes do not count", "record { key: \"}a{\" }", STATUS_OK, Record("}a{")},
        {"prune text to the letter, behind the records", "prune_record {\n  x { \"}\" } \n}record { key: a }",
         STATUS_OK, Record("a") + "prune_record {\n  x { \"}\" } \n}\n"},
        {"first to last quote", "record { key: x\"a\"b\"y }", RECORD_DATA_ERROR, ""},  // odd: the block never closes
        {"first to last quote", "record { key: x\"a\"\"b\"y }", STATUS_OK, Record("a\"\"b")},
        {"one quote: what follows it", "record { key: x\"a\n key: y\"b }", STATUS_OK, Record("b")},
        {"empty key: the record stays", "record { key: \"\" }", STATUS_OK, "record {\n  value {\n  }\n}\n"},
        {"true alone is true",
         "record { value { skip_fusion: true } } record { value { skip_fusion: True } } record { value { skip_fusion: "
         "1 } }",
         STATUS_OK,
         "record {\n  value {\n    skip_fusion: true\n  }\n}\nrecord {\n  value {\n    skip_fusion: false\n  }\n}\n"
         "record {\n  value {\n    skip_fusion: false\n  }\n}\n"},
        {"no text from an earlier record",
         "record { key: a value { dst_type: \"INT8\" } } record { key: b value { offset_d: 1 } } "
         "record { key: c } record { value { offset_d: 2 } }",
         STATUS_OK,
         Record("a", "    dst_type: \"INT8\"\n") + Record("b", "    offset_d: 1\n") + Record("c") +
             "record {\n  value {\n    offset_d: 2\n  }\n}\n"},
        {"NUL is a character", std::string("record { key: \"a\0b\" }", 21), STATUS_OK, Record(std::string("a\0b", 3))},
        {"a scalar in braces", "record { key: a value { offset_d { 7 } } }", STATUS_OK,
         Record("a", "    offset_d: 7\n")},
        {"a block as a token", "record: value{} prune_record: x ", STATUS_OK,
         "record {\n  value {\n  }\n}\nprune_record {x}\n"},
    });
}

TEST(RecordParser, Malformed) {
    const std::string good = Record("a");
    const int unknown = RECORD_UNKNOWN_FIELD, data = RECORD_DATA_ERROR;
    CheckRows({
        {"comment", good + "# x\n", unknown, good},
        {"unknown name behind the entries", good + "x ", unknown, good},
        {"unknown name at the very end", good + "x", unknown, good},
        {"upper case", "Record { }", unknown, ""},
        {"vertical tab does not separate", "\vrecord { }", unknown, ""},
        {"no name", ": 1 ", unknown, ""},
        {"no name", "{ }", unknown, ""},
        {"closing brace too many", good + "}\n", unknown, good},
        {"blank in a key", "record { key: \"a b\" }", unknown, ""},
        {"field of no schema", good + "record { key: b value { op_data_type: 'FLOAT16' } }", unknown, good},
        {"field of another block", "record { scale_d: 1 }", unknown, ""},
        {"block with a colon", "record { key: a value: { scale_d: 1 } }", unknown, ""},
        {"block with a colon, glued", "record { key: a value:{scale_d:1 } }", unknown, ""},
        {"block with a colon, cut off", "record { key: a value: {", data, ""},  // the record's brace is missing first
        {"block with a colon, up to the brace", "record { value: {}}", unknown, ""},
        {"block with a colon at the very end", "record:{", unknown, ""},
        {"prune block with a colon", "prune_record: {} ", unknown, ""},
        {"no closing brace", good + "record { key: b ", data, good},
        {"closing brace in an open quote", "record { key: \"a }", data, ""},
        {"value touches the brace", "record { key: a value { scale_d: 1} }", data, ""},
        {"list item touches the brace", "record { key: a value { scale_w: 1 scale_w: 2} }", data, ""},
        {"no value", "record { key: }", data, ""},
        {"no colon", "record { key }", data, ""},
        {"name at the very end", good + "record", data, good},
        {"name touches the brace", "record { key: a value{scale_w}}", data, ""},
        {"name touches the brace, in a run", "record { key: a value{scale_w:1 scale_w}}", data, ""},
        {"known name that goes on", "record { value { scale_w: 1 scale_wx: 2 } }", unknown, ""},
    });
}

TEST(RecordParser, EveryPrefix) {
    const std::vector<std::string> entries = {Record("a/b", "    scale_d: 1\n    dst_type: \"INT8\"\n"),
                                              "prune_record {\"}\" {}}\n",
                                              Record("c", "    shift_bit: 3\n    shift_bit: 4\n")};
    const std::string text = entries[0] + entries[1] + entries[2];
    std::size_t numWhole = 0;
    for (std::size_t length = 0, begin = 0; length <= text.size(); ++length) {
        SCOPED_TRACE(text.substr(0, length));
        if (numWhole < 3 && length >= begin + entries[numWhole].size() - 1) begin += entries[numWhole++].size();
        const bool isWhole = length == 0 || length + 1 == begin || length == begin;
        Root root;
        const int status = Parse(text.substr(0, length), root);
        const std::set<int> allowed = isWhole ? std::set{STATUS_OK} : std::set{RECORD_DATA_ERROR, RECORD_UNKNOWN_FIELD};
        EXPECT_EQ(1u, allowed.count(status)) << status;
        EXPECT_EQ(numWhole, root.records.size() + root.pruneRecords.size());
    }
}

TEST(RecordParser, NestingIsNotRecursion) {
    Root root;
    const std::string open(1000000, '{'), close(1000000, '}');
    EXPECT_EQ(STATUS_OK, Parse("prune_record " + open + close, root));
    EXPECT_EQ(999999u * 2, root.pruneRecords[0]->content.size());
    EXPECT_EQ(RECORD_UNKNOWN_FIELD, Parse("record " + open + close, root));
    EXPECT_EQ(RECORD_DATA_ERROR, Parse("record " + open, root));
}

/// Every token that a stream reads in its own way, and many at random: equal to the stream in the classic locale.
TEST(RecordParser, NumbersAreThoseOfAStream) {
    std::vector<std::string> tokens = {"",
                                       "1e",
                                       "1e+",
                                       "1e-5",
                                       "1e400",
                                       "-1e400",
                                       "1e-400",
                                       "1.5abc",
                                       "+5",
                                       "0x10",
                                       ".5",
                                       "5.",
                                       ".",
                                       "-",
                                       "-.e1",
                                       "1.5.5",
                                       "1e5e5",
                                       "1e+-5",
                                       "inf",
                                       "nan",
                                       "-inf",
                                       "-0",
                                       "00012",
                                       "1E5",
                                       "3.7",
                                       "2147483647",
                                       "2147483648",
                                       "-2147483649",
                                       "-1",
                                       "--1",
                                       "1,5",
                                       "\v5",
                                       " 5",
                                       "5 6",
                                       "16777217",
                                       "16777219",
                                       "3.40282357e38",
                                       "9.99999975e-05",
                                       "1e22",
                                       "1e-23",
                                       "18446744073709551615",
                                       "18446744073709551616",
                                       "-18446744073709551616",
                                       "123456789012345678901234567890",
                                       "1.00000005960464477539062500",
                                       "1.00000005960464477539062499",
                                       "1.00000005960464477539062501"};
    std::mt19937 random(1);
    const std::string characters = "00123456789012345678900..eE+-x,";
    for (int i = 0; i < 30000; ++i) {
        std::string token(1 + random() % 14, ' ');
        for (char& c : token) c = characters[random() % characters.size()];
        tokens.push_back(token);
        std::array<char, 64> number;
        const double x = std::ldexp(1.0 + (random() % 33554432) / 33554432.0, static_cast<int>(random() % 280) - 150);
        std::snprintf(number.data(), number.size(), "%.*g", static_cast<int>(1 + random() % 17), x);
        tokens.emplace_back(number.data());  // every second 25-bit x lies half-way between two floats
    }
    FloatProto floats("f", 0);
    IntProto ints("i", 0);
    UnsignedIntProto longs("u", 0);
    for (std::string& token : tokens) {
        float f = 0;
        int i = 0;
        unsigned long u = 0;
        const auto extract = [&](auto& value) {
            std::istringstream stream(token);
            stream.imbue(std::locale::classic());
            stream >> value;
        };
        extract(f);
        extract(i);
        extract(u);
        FloatData floatNode("f", FIELD_FLOAT, 0);
        IntData intNode("i", FIELD_INT, 0);
        UnsignedIntListData longNode("u", FIELD_UINT64_LIST, 0);
        EXPECT_EQ(STATUS_OK,
                  floats.Parse(token, floatNode) + ints.Parse(token, intNode) + longs.Parse(token, longNode));
        ASSERT_EQ(Bits(f), Bits(floatNode.scalar)) << token;
        ASSERT_EQ(i, intNode.scalar) << token;
        ASSERT_EQ(u, longNode.items[0]) << token;
    }
}

/// A target of another class than the tree's sees each occurrence by itself.
TEST(RecordParser, MergesEachOccurrence) {
    struct Target : Data {
        Target() : Data("t", FIELD_MESSAGE, 1) {}
        using Data::AddData;
        int AddData(std::string field, Data* source) override {
            seen += field + "=" + source->Dump();
            return field == "cluster" ? 99 : STATUS_OK;
        }
        std::string seen;
    } target;
    ValueProto parser("value", 0);
    ASSERT_EQ(STATUS_OK, parser.Init());
    std::string text = "offset_w: 1 offset_w: 2 cluster: 3 offset_w: 4 ";
    EXPECT_EQ(99, parser.Parse(text, target));
    EXPECT_EQ("offset_w=  offset_w: 1\noffset_w=  offset_w: 2\ncluster=  cluster: 3\n", target.seen);
    auto& field = parser.schema["dst_type"];
    delete std::exchange(field.second, nullptr);
    text = "dst_type: x ";
    EXPECT_EQ(RECORD_DATA_ERROR, parser.Parse(text, target));
}

}  // namespace
