#include <dlfcn.h>
#include <tests/record/record_test_util.h>

namespace {

using namespace kest_tf;  // NOLINT: the subject of the whole file

template <typename Leaf>
struct Node : Leaf {
    explicit Node(FieldType type) : Leaf("x", type, 2) {}
};

/// One merge of `source` into `target`: what all leaves do alike.
template <typename Leaf, typename T>
void CheckLeaf(FieldType type, T value) {
    Node<Leaf> source(type), target(type);
    StringData text("t", FIELD_STRING, 0);
    FloatData number("n", FIELD_FLOAT, 0);
    Data* stranger = type == FIELD_STRING ? static_cast<Data*>(&number) : &text;
    EXPECT_EQ(RECORD_DATA_ERROR, target.AddData("x", nullptr));
    EXPECT_FALSE(target.HasValue());
    EXPECT_EQ(RECORD_DATA_ERROR, target.AddData("x", stranger));
    EXPECT_TRUE(target.HasValue()) << "the flag is set before the class is looked at";
    target.ClearData();
    EXPECT_FALSE(target.HasValue());
    source.AddData("any name", value);
    EXPECT_TRUE(source.HasValue());
    EXPECT_EQ(STATUS_OK, target.AddData("x", static_cast<Data*>(&source)));
    EXPECT_EQ(source.Dump(), target.Dump());
    EXPECT_FALSE(target.Dump().empty());
}

TEST(RecordData, Leaves) {
    CheckLeaf<BoolData>(FIELD_BOOL, true);
    CheckLeaf<FloatData>(FIELD_FLOAT, 0.1f);
    CheckLeaf<IntData>(FIELD_INT, -7);
    CheckLeaf<StringData>(FIELD_STRING, std::string("INT8"));
    CheckLeaf<FloatListData>(FIELD_FLOAT_LIST, 0.1f);
    CheckLeaf<IntListData>(FIELD_INT_LIST, -7);
    CheckLeaf<UnsignedIntListData>(FIELD_UINT64_LIST, ~0ul);
}

TEST(RecordData, ListsExtendAndScalarsStay) {
    IntListData list("l", FIELD_INT_LIST, 0), empty("e", FIELD_INT_LIST, 0);
    list.AddData("l", static_cast<Data*>(&empty));
    EXPECT_TRUE(list.HasValue()) << "an empty source still sets the flag";
    int one = 1, two = 2;
    list.AddData("l", one);
    list.AddData("l", two);
    list.AddData("l", static_cast<Data*>(&list));
    EXPECT_EQ((std::vector<int>{1, 2, 1, 2}), list.items);
    EXPECT_EQ(4u, list.GetSize());
    EXPECT_EQ(2, list.GetData(3));
    EXPECT_EQ(0, list.GetData(4));
    float wrong = 1;
    list.AddData("l", wrong);  // another type: the base does nothing
    EXPECT_EQ(4u, list.GetSize());
    list.ClearData();
    EXPECT_EQ(0u, list.GetSize());
    ListData<int> base("b", FIELD_INT_LIST, 0);
    base.AddData("b", one);
    EXPECT_EQ(STATUS_OK, list.AddData("l", static_cast<Data*>(&base))) << "any list of the element type merges";

    StringData text("s", FIELD_STRING, 0);
    std::string word = "word";
    text.AddData("s", word);
    text.ClearData();
    EXPECT_FALSE(text.HasValue());
    EXPECT_EQ("word", text.scalar);
}

TEST(RecordData, NewRecord) {
    Root root;
    RecordData* record = root.AddRecord();
    EXPECT_TRUE(root.hasValue);
    EXPECT_FALSE(record->HasValue());
    std::string names;
    for (const auto& field : record->Value()->children) {
        names += field.first + " ";
        EXPECT_EQ(field.first, field.second->name);
        EXPECT_EQ(2u, field.second->level);
    }
    EXPECT_EQ("scale_d offset_d scale_w offset_w shift_bit cluster skip_fusion dst_type tensor_balance_factor ", names);
    EXPECT_EQ(1u, record->Value()->level);
    record->SetKey("conv1");
    EXPECT_TRUE(record->HasValue());
    EXPECT_FALSE(record->Value()->HasValue());
}

TEST(RecordData, ValueBlock) {
    ValueData value("value", FIELD_MESSAGE, 1), copy("other", FIELD_MESSAGE, 1);
    ASSERT_EQ(STATUS_OK, value.Init());
    value.SetScaleD(0.5f);
    value.AddOffsetW(3);
    value.AddScaleW(0.25f);
    value.ClearScaleW();
    Child<StringData>(value, "dst_type")->scalar = "left over";  // its flag is clear
    ASSERT_EQ(STATUS_OK, copy.Copy(value));
    EXPECT_EQ(value.Dump(), "  value {\n    scale_d: 0.5\n    offset_w: 3\n    dst_type: \"left over\"\n  }\n");
    EXPECT_FALSE(Child<StringData>(copy, "dst_type")->hasValue);
    EXPECT_TRUE(Child<FloatData>(copy, "scale_d")->hasValue);
    copy.name = "value";
    EXPECT_EQ(value.Dump(), copy.Dump());

    FloatData scale("s", FIELD_FLOAT, 2);
    ValueData fresh("value", FIELD_MESSAGE, 1);
    ASSERT_EQ(STATUS_OK, fresh.Init());
    EXPECT_EQ(RECORD_DATA_ERROR, fresh.AddData("scale_d", nullptr));
    EXPECT_EQ(RECORD_DATA_ERROR, fresh.AddData("no_field", &scale));
    EXPECT_EQ(RECORD_DATA_ERROR, fresh.AddData("offset_d", &scale));
    EXPECT_FALSE(fresh.hasValue);
    EXPECT_EQ(STATUS_OK, fresh.AddData("scale_d", &scale));
    EXPECT_TRUE(fresh.hasValue);

    // Without its children, or with one of another class, a block is passed over or refused.
    ValueData bare("value", FIELD_MESSAGE, 1), partial("value", FIELD_MESSAGE, 1);
    bare.SetScaleD(1);
    bare.SetOffsetD(1);
    bare.AddScaleW(1);
    bare.AddOffsetW(1);
    bare.ClearScaleW();
    bare.ClearOffsetW();
    KestTfOp::AddScaleOffsetCluster(bare, &scale.scalar, nullptr, nullptr, 1, 0);
    EXPECT_FALSE(bare.HasValue());
    std::swap(value.children[1].second, value.children[2].second);
    EXPECT_EQ(RECORD_DATA_ERROR, partial.Copy(value));
    EXPECT_EQ(1u, partial.children.size()) << "the field before the failing one";
}

TEST(RecordData, RecordTakesCopies) {
    Root root;
    RecordData* record = root.AddRecord();
    StringData key("key", FIELD_STRING, 1);
    std::string name = "conv1";
    key.AddData("key", name);
    ValueData value("value", FIELD_MESSAGE, 1);
    ASSERT_EQ(STATUS_OK, value.Init());
    value.AddScaleW(0.5f);
    EXPECT_EQ(STATUS_OK, record->AddData("key", &key));
    EXPECT_EQ(STATUS_OK, record->AddData("value", &value));
    EXPECT_EQ(STATUS_OK, record->AddData("value", &value)) << "replaces, does not extend";
    key.scalar = "later";
    EXPECT_EQ("record {\n  key: \"conv1\"\n  value {\n    scale_w: 0.5\n  }\n}\n", record->Dump());
    EXPECT_EQ(RECORD_DATA_ERROR, record->AddData("key", nullptr));
    EXPECT_EQ(RECORD_DATA_ERROR, record->AddData("key", &value));
    EXPECT_EQ(RECORD_DATA_ERROR, record->AddData("value", &key));
    EXPECT_EQ(RECORD_DATA_ERROR, record->AddData("dst_type", &key));

    EXPECT_EQ(STATUS_OK, root.AddData("record", record));
    EXPECT_EQ(root.records[0]->Dump(), root.records[1]->Dump());
    delete std::exchange(record->children[1].second, nullptr);
    EXPECT_EQ(nullptr, record->Value());
    EXPECT_EQ("record {\n  key: \"conv1\"\n}\n", record->Dump()) << "a null child is passed over";
    RecordData partial("record", FIELD_RECORD, 0);
    EXPECT_EQ(RECORD_DATA_ERROR, partial.Copy(*record));
    EXPECT_EQ(1u, partial.children.size()) << "the key stays";
    EXPECT_EQ(RECORD_DATA_ERROR, root.AddData("record", record));
    EXPECT_EQ(2u, root.records.size());
}

TEST(RecordData, RootEntries) {
    Root root;
    RecordDataPrune prune("prune_record", FIELD_RECORD, 0);
    std::string text = " raw ";
    prune.AddData("prune_record", text);
    EXPECT_FALSE(prune.hasValue);
    EXPECT_EQ(STATUS_OK, root.AddData("prune_record", &prune));
    EXPECT_TRUE(root.pruneRecords[0]->hasValue);
    EXPECT_EQ("prune_record { raw }\n", root.Dump());
    EXPECT_EQ(RECORD_DATA_ERROR, root.AddData("record", &prune));
    EXPECT_EQ(RECORD_DATA_ERROR, prune.Copy(root));
    EXPECT_EQ(STATUS_OK, prune.Init());
    EXPECT_EQ("", prune.content);

    EXPECT_EQ("", LogOf([&] { EXPECT_EQ(RECORD_DATA_ERROR, root.AddData("records", nullptr)); }));
    EXPECT_EQ("Error raised from proto_simulator\n",
              LogOf([&] { EXPECT_EQ(RECORD_UNKNOWN_FIELD, root.AddData("records", &prune)); }));
    root.AddRecord();
    root.ClearData();
    EXPECT_FALSE(root.HasValue());
    root.AddRecord();
    EXPECT_EQ(1u, root.records.size());
    EXPECT_TRUE(root.pruneRecords.empty());
}

/// Callers compiled elsewhere call virtual functions by slot and reach fields by offset.
TEST(RecordData, BinaryLayout) {
    const auto slotsOf = [](const char* vtable) {  // the first two words are no slots
        return static_cast<void* const*>(dlsym(RTLD_DEFAULT, vtable)) + 2;
    };
    const auto expectSlots = [&](const char* vtable, const std::vector<std::string>& functions) {
        for (std::size_t i = 0; i < functions.size(); ++i)
            EXPECT_EQ(dlsym(RTLD_DEFAULT, ("_ZN7kest_tf" + functions[i]).c_str()), slotsOf(vtable)[i]) << functions[i];
    };
    const std::string text = "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE", add = "4Data7AddDataE" + text;
    expectSlots("_ZTVN7kest_tf4DataE",
                {"4DataD1Ev", "4DataD0Ev", "4Data4InitEv", "4Data4CopyERS0_", add + "Rf", add + "Ri", add + "Rm",
                 add + "RS6_", add + "Rb", add + "PS0_", "4Data9ClearDataEv", "4Data4DumpB5cxx11Ev"});
    expectSlots("_ZTVN7kest_tf5ProtoE",
                {"5Proto4InitEv", "5ProtoD1Ev", "5ProtoD0Ev", "5Proto5ParseER" + text + "RNS_4DataE"});
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "_ZN7kest_tf8ListDataIfE7GetSizeEv"), slotsOf("_ZTVN7kest_tf8ListDataIfEE")[12]);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "_ZN7kest_tf8ListDataIfE7GetDataEm"), slotsOf("_ZTVN7kest_tf8ListDataIfEE")[13]);

    StringData node("s", FIELD_STRING, 0);
    const auto offset = [&](const void* field) {
        return static_cast<const char*>(field) - reinterpret_cast<const char*>(&node);
    };
    EXPECT_EQ(8, offset(&node.name));
    EXPECT_EQ(40, offset(&node.type));
    EXPECT_EQ(48, offset(&node.level));
    EXPECT_EQ(56, offset(&node.hasValue));
    EXPECT_EQ(64, offset(&node.children));
    EXPECT_EQ(88, offset(&node.scalar));
    EXPECT_EQ(136u, sizeof(InnerData));
    EXPECT_EQ(40u, sizeof(KestTfOp::Initializer));
}

}  // namespace
