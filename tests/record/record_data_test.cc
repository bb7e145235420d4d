#include <dlfcn.h>
#include <tests/record/record_test_util.h>

namespace {

using namespace kest_tf;  // NOLINT: the subject of the whole file

/// What all leaves do alike in a merge.
template <typename Leaf, typename T>
void CheckLeaf(FieldType type, T value) {
    Leaf source("x", type, 2), target("x", type, 2);
    ValueData stranger("v", FIELD_MESSAGE, 0);
    EXPECT_EQ(RECORD_DATA_ERROR, target.AddData("x", nullptr));
    EXPECT_FALSE(target.HasValue());
    EXPECT_EQ(RECORD_DATA_ERROR, target.AddData("x", &stranger));
    EXPECT_TRUE(target.HasValue()) << "the flag is set before the class is looked at";
    EXPECT_EQ(STATUS_OK, target.Copy(stranger)) << "which a leaf does not override";
    target.ClearData();
    EXPECT_FALSE(target.HasValue());
    source.AddData("any name", value);
    EXPECT_EQ(STATUS_OK, target.AddData("x", static_cast<Data*>(&source)));
    EXPECT_NE("", source.Dump());
    EXPECT_EQ(source.Dump(), target.Dump());
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

TEST(RecordData, ListsExtendAndTextsStay) {
    IntListData list("l", FIELD_INT_LIST, 0), empty("e", FIELD_INT_LIST, 0);
    ListData<int> other("o", FIELD_INT_LIST, 0);
    list.AddData("l", static_cast<Data*>(&empty));
    EXPECT_TRUE(list.HasValue()) << "an empty source still sets the flag";
    for (int i : {1, 2}) list.AddData("l", i);
    for (int i : {3}) other.AddData("o", i);
    EXPECT_EQ(STATUS_OK, list.AddData("l", static_cast<Data*>(&list)));
    EXPECT_EQ(STATUS_OK, list.AddData("l", static_cast<Data*>(&other))) << "any list of the element type";
    for (float wrong : {1.0f}) list.AddData("l", wrong);
    EXPECT_EQ((std::vector<int>{1, 2, 1, 2, 3}), list.items);
    EXPECT_EQ(5u, list.GetSize());
    EXPECT_EQ(3, list.GetData(4));
    EXPECT_EQ(0, list.GetData(5));
    list.ClearData();
    EXPECT_EQ(0u, list.GetSize());
    StringData text("s", FIELD_STRING, 0);
    for (std::string word : {"word"}) text.AddData("s", word);
    text.ClearData();
    EXPECT_TRUE(!text.HasValue() && text.scalar == "word");
}

TEST(RecordData, Blocks) {
    Root root;
    RecordData* record = root.AddRecord();
    EXPECT_FALSE(record->HasValue());
    const ValueData& value = *record->Value();
    record->SetKey("conv1");
    EXPECT_TRUE(record->HasValue() && !value.HasValue());
    value.SetScaleD(0.5f);
    value.AddOffsetW(3);
    value.AddScaleW(0.25f);
    value.ClearScaleW();
    EXPECT_EQ(RECORD_DATA_ERROR, record->Value()->AddData("scale_d", nullptr));
    EXPECT_EQ(RECORD_DATA_ERROR, record->Value()->AddData("no_field", record));
    EXPECT_EQ(RECORD_DATA_ERROR, record->Value()->AddData("offset_d", value.children[0].second));
    EXPECT_FALSE(value.hasValue) << "only a merge that succeeds sets the block's own flag";
    EXPECT_EQ(STATUS_OK, record->Value()->AddData("scale_w", value.children[2].second));
    EXPECT_TRUE(value.hasValue);

    // Copies replace and stay apart from their source.
    static_cast<StringData*>(value.children[7].second)->scalar = "left over";  // its flag is clear
    EXPECT_EQ(STATUS_OK, root.AddData("record", record));
    EXPECT_EQ(STATUS_OK, root.records[1]->AddData("value", record->Value()));
    EXPECT_EQ(record->Dump(), root.records[1]->Dump());
    EXPECT_FALSE(root.records[1]->Value()->children[7].second->hasValue);
    EXPECT_EQ(STATUS_OK, record->AddData("key", root.records[1]->children[0].second));
    for (Data* wrong : std::initializer_list<Data*>{nullptr, record}) {
        EXPECT_EQ(RECORD_DATA_ERROR, record->AddData("key", wrong));
        EXPECT_EQ(RECORD_DATA_ERROR, record->AddData("value", wrong));
    }
    EXPECT_EQ(RECORD_DATA_ERROR, record->AddData("dst_type", record->children[0].second));

    // A child of another class or none: refused where there is a status, otherwise passed over.
    std::swap(record->Value()->children[1].second, record->Value()->children[2].second);
    ValueData partial("value", FIELD_MESSAGE, 1);
    EXPECT_EQ(RECORD_DATA_ERROR, partial.Copy(*record->Value()));
    EXPECT_EQ(1u, partial.children.size()) << "the field before the failing one";
    EXPECT_EQ(RECORD_DATA_ERROR, root.AddData("record", record));
    delete std::exchange(record->children[1].second, nullptr);
    EXPECT_EQ(nullptr, record->Value());
    RecordData half("record", FIELD_RECORD, 0);
    EXPECT_EQ(RECORD_DATA_ERROR, half.Copy(*record));
    EXPECT_EQ(1u, half.children.size()) << "the key stays";
    EXPECT_EQ(RECORD_DATA_ERROR, record->AddData("value", record));
    EXPECT_EQ(STATUS_OK, record->Data::Init());
    record->children.emplace_back("more", new StringData("more", FIELD_STRING, 1));
    EXPECT_EQ(STATUS_OK, record->AddData("more", record)) << "passed over";
    EXPECT_TRUE(record->hasValue);
    EXPECT_EQ("record { key: \"conv1\" }", Flat(record->Dump()));
    record->ClearData();
    EXPECT_FALSE(record->HasValue());
    ValueData none("value", FIELD_MESSAGE, 1);
    RecordData("record", FIELD_RECORD, 0).SetKey("x");
    none.SetScaleD(1);
    none.AddOffsetW(1);
    none.ClearScaleW();
    partial.SetOffsetD(1);
    partial.AddScaleW(1);
    partial.ClearOffsetW();
    KestTfOp::AddScaleOffsetCluster(partial, nullptr, nullptr, nullptr, 0, 0);
    EXPECT_EQ("value { scale_d: 0.5 }", Flat(partial.Dump()));
}

/// A block that is not as Init and Copy build them makes way for a copy, or gives one if the fields are there.
TEST(RecordData, OddBlocks) {
    using Children = std::vector<std::pair<std::string, Data*>>;
    const std::pair<bool, void (*)(Children & record, Children & fields)> rows[] = {
        {true, [](auto&, auto& fields) { fields[0].second->children.emplace_back("x", nullptr); }},
        {false, [](auto&, auto& fields) { delete fields[8].second, fields.pop_back(); }},
        {false, [](auto&, auto& fields) { fields[2].first = "x"; }},
        {false, [](auto&, auto& fields) { delete std::exchange(fields[0].second, nullptr); }},
        {false, [](auto&, auto& fields) { std::swap(fields[0].second, fields[1].second); }},
        {false, [](auto& record, auto&) { delete std::exchange(record[1].second, new BoolData("b", FIELD_BOOL, 1)); }}};
    for (const auto& [givesCopy, change] : rows) {
        Root root;
        RecordData *const odd = root.AddRecord(), *const record = root.AddRecord();
        odd->Value()->SetOffsetD(1);
        record->Value()->SetOffsetD(2);
        change(odd->children, odd->Value()->children);
        EXPECT_EQ(givesCopy ? STATUS_OK : RECORD_DATA_ERROR, record->AddData("value", odd->children[1].second));
        EXPECT_EQ(STATUS_OK, odd->AddData("value", record->Value()));
        EXPECT_EQ(STATUS_OK, odd->AddData("value", odd->Value())) << "its own";
        for (RecordData* each : root.records) {
            EXPECT_EQ(givesCopy ? "record { value { offset_d: 1 } }" : "record { value { offset_d: 2 } }",
                      Flat(each->Dump()));
            EXPECT_TRUE(each->Value()->children[0].second->children.empty());
        }
    }
}

TEST(RecordData, RootEntries) {
    Root root;
    RecordDataPrune prune("prune_record", FIELD_RECORD, 0);
    for (std::string text : {" raw "}) prune.AddData("prune_record", text);
    EXPECT_FALSE(prune.hasValue);
    EXPECT_EQ(STATUS_OK, root.AddData("prune_record", &prune));
    EXPECT_TRUE(root.pruneRecords[0]->hasValue);
    EXPECT_EQ("prune_record { raw }\n", root.Dump());
    EXPECT_EQ(RECORD_DATA_ERROR, root.AddData("record", &prune));
    EXPECT_EQ(RECORD_DATA_ERROR, prune.Copy(root));
    EXPECT_EQ(STATUS_OK, static_cast<Data&>(prune).AddData("x", &root)) << "which it does not override";
    EXPECT_EQ("", LogOf([&] { EXPECT_EQ(RECORD_DATA_ERROR, root.AddData("records", nullptr)); }));
    EXPECT_EQ("Error raised from proto_simulator\n",
              LogOf([&] { EXPECT_EQ(RECORD_UNKNOWN_FIELD, root.AddData("records", &prune)); }));
    root.records.push_back(nullptr);
    root.pruneRecords.push_back(nullptr);
    EXPECT_EQ("prune_record { raw }\n", root.Dump());
    root.AddRecord();
    root.ClearData();
    EXPECT_FALSE(root.HasValue());
    root.AddRecord();
    EXPECT_TRUE(root.records.size() == 1 && root.pruneRecords.empty() && root.HasValue());
}

/// Callers compiled elsewhere call virtual functions by slot and reach fields by offset.
TEST(RecordData, BinaryLayout) {
    const auto expectSlots = [](const char* type, std::size_t first, const std::vector<std::string>& functions) {
        void* const* vtable =
            static_cast<void* const*>(dlsym(RTLD_DEFAULT, (std::string("_ZTVN7kest_tf") + type).c_str()));
        for (std::size_t i = 0; i < functions.size(); ++i)  // the first two words are no slots
            EXPECT_EQ(dlsym(RTLD_DEFAULT, ("_ZN7kest_tf" + functions[i]).c_str()), vtable[2 + first + i])
                << functions[i];
    };
    const std::string text = "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE", add = "4Data7AddDataE" + text;
    expectSlots("4DataE", 0,
                {"4DataD1Ev", "4DataD0Ev", "4Data4InitEv", "4Data4CopyERS0_", add + "Rf", add + "Ri", add + "Rm",
                 add + "RS6_", add + "Rb", add + "PS0_", "4Data9ClearDataEv", "4Data4DumpB5cxx11Ev"});
    expectSlots("8ListDataIfEE", 12, {"8ListDataIfE7GetSizeEv", "8ListDataIfE7GetDataEm"});
    expectSlots("5ProtoE", 0, {"5Proto4InitEv", "5ProtoD1Ev", "5ProtoD0Ev", "5Proto5ParseER" + text + "RNS_4DataE"});
    StringData node("s", FIELD_STRING, 0);
    const auto offset = [&](auto& field) { return reinterpret_cast<char*>(&field) - reinterpret_cast<char*>(&node); };
    const std::vector<long> offsets = {offset(node.name),     offset(node.type),     offset(node.level),
                                       offset(node.hasValue), offset(node.children), offset(node.scalar)};
    EXPECT_EQ((std::vector<long>{8, 40, 48, 56, 64, 88}), offsets);
    EXPECT_TRUE(sizeof(InnerData) == 136 && sizeof(KestTfOp::Initializer) == 40);
}

}  // namespace
