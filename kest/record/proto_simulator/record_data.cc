#include <kest/record/proto_simulator/record_data.h>
#include <kest/record/proto_simulator/record_data_internal.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <memory>
#include <new>
#include <typeinfo>

namespace kest_tf {

namespace {

/// The slot of the first child called `name`, null if there is none or it is empty.
Data** FindSlot(Data& node, const std::string& name) {
    for (auto& child : node.children) {
        if (child.first == name) return child.second != nullptr ? &child.second : nullptr;
    }
    return nullptr;
}

template <typename T>
std::unique_ptr<T> NewNode(std::string name, FieldType type, unsigned long level) {
    return std::unique_ptr<T>(new (std::nothrow) T(std::move(name), type, level));
}

/// Appends `node` as the child `name`. False, nothing appended, if `node` is null.
bool Append(Data& parent, std::string_view name, std::unique_ptr<Data> node) {
    if (node == nullptr) return false;
    parent.children.emplace_back(name, node.get());
    node.release();
    return true;
}

template <typename T>
auto CopyContent(const T& source, T& copy) -> decltype(source.scalar, void()) {
    copy.scalar = source.scalar;
}
template <typename T>
auto CopyContent(const T& source, T& copy) -> decltype(source.items, void()) {
    copy.items = source.items;
}

/// A new leaf with the name, type, level, content and flag of `source`; null if that is null or cannot be allocated.
template <typename T>
std::unique_ptr<Data> CopyLeaf(const T* source) {
    if (source == nullptr) return nullptr;
    std::unique_ptr<T> copy = NewNode<T>(source->name, source->type, source->level);
    if (copy == nullptr) return nullptr;
    CopyContent(*source, *copy);
    copy->hasValue = source->HasValue();
    return copy;
}

/// One field of the value block: how to make it, how to copy it from another block (null on failure), whether a node is
/// a leaf of its class, and how to make one such leaf the same as another.
struct ValueField {
    std::string_view name;
    FieldType type;
    std::unique_ptr<Data> (*make)(const ValueField& field, unsigned long level);
    std::unique_ptr<Data> (*copy)(const ValueField& field, const Data& block);
    bool (*fits)(const Data& node);
    void (*assign)(const Data& source, Data& copy);
};

template <typename T>
constexpr ValueField Field(std::string_view name, FieldType type) {
    return {name,
            type,
            [](const ValueField& field, unsigned long level) -> std::unique_ptr<Data> {
                return NewNode<T>(std::string(field.name), field.type, level);
            },
            [](const ValueField& field, const Data& block) { return CopyLeaf(FindChild<T>(block, field.name)); },
            [](const Data& node) { return typeid(node) == typeid(T) && node.children.empty(); },
            [](const Data& source, Data& copy) {
                copy.name = source.name;
                copy.type = source.type;
                copy.level = source.level;
                CopyContent(static_cast<const T&>(source), static_cast<T&>(copy));
                copy.hasValue = source.HasValue();
            }};
}

// In the order of the file. The schema in record_proto.cc names the same fields.
constexpr ValueField kValueFields[] = {Field<FloatData>("scale_d", FIELD_FLOAT),
                                       Field<IntData>("offset_d", FIELD_INT),
                                       Field<FloatListData>("scale_w", FIELD_FLOAT_LIST),
                                       Field<IntListData>("offset_w", FIELD_INT_LIST),
                                       Field<UnsignedIntListData>("shift_bit", FIELD_UINT64_LIST),
                                       Field<IntListData>("cluster", FIELD_INT_LIST),
                                       Field<BoolData>("skip_fusion", FIELD_BOOL),
                                       Field<StringData>("dst_type", FIELD_STRING),
                                       Field<FloatListData>("tensor_balance_factor", FIELD_FLOAT_LIST)};

/// Makes of `block`, about to be replaced by a copy of `source`, that copy, without new nodes: most of the time that a
/// parser spends on a record otherwise. Only for two blocks as Init and Copy build them; false otherwise, and `block`
/// is then to be replaced.
bool OverwriteBlock(const ValueData& source, Data& block) {
    const auto isWhole = [](const Data& node) {
        if (typeid(node) != typeid(ValueData) || node.children.size() != std::size(kValueFields)) return false;
        return std::equal(node.children.begin(), node.children.end(), std::begin(kValueFields),
                          [](const auto& child, const ValueField& field) {
                              return child.first == field.name && child.second != nullptr && field.fits(*child.second);
                          });
    };
    if (!isWhole(block) || !isWhole(source)) return false;
    for (size_t i = 0; i < std::size(kValueFields); ++i)
        kValueFields[i].assign(*source.children[i].second, *block.children[i].second);
    block.name = source.name;
    block.type = source.type;
    block.level = source.level;
    block.hasValue = true;
    return true;
}

/// A new block with the name, type and level of `source`, filled by its Copy, in `copy`.
template <typename T>
int CopyBlock(T* source, std::unique_ptr<T>& copy) {
    if (source == nullptr) return RECORD_DATA_ERROR;
    copy = NewNode<T>(source->name, source->type, source->level);
    return copy == nullptr ? RECORD_DATA_ERROR : copy->Copy(*source);
}

template <typename T>
int MergeScalar(T& target, Data* source) {
    if (source == nullptr) return RECORD_DATA_ERROR;
    target.hasValue = true;
    const T* other = As<T>(source);
    if (other == nullptr) return RECORD_DATA_ERROR;
    target.scalar = other->scalar;
    return STATUS_OK;
}

void Replace(Data** slot, std::unique_ptr<Data> node) {
    delete *slot;
    *slot = node.release();
}

}  // namespace

Data::Data(std::string nodeName, FieldType nodeType, unsigned long nodeLevel)
    : name(std::move(nodeName)), type(nodeType), level(nodeLevel), hasValue(false) {}

Data::~Data() {
    for (auto& child : children) delete child.second;
}

int Data::Init() {
    for (auto& child : children) {
        const int status = child.second != nullptr ? child.second->Init() : STATUS_OK;
        if (status != STATUS_OK) return status;
    }
    return STATUS_OK;
}

int Data::Copy(Data&) {
    return STATUS_OK;
}
void Data::AddData(std::string, float&) {}
void Data::AddData(std::string, int&) {}
void Data::AddData(std::string, unsigned long&) {}
void Data::AddData(std::string, std::string&) {}
void Data::AddData(std::string, bool&) {}
int Data::AddData(std::string, Data*) {
    return STATUS_OK;
}

void Data::ClearData() {
    hasValue = false;
    for (auto& child : children) {
        if (child.second != nullptr) child.second->ClearData();
    }
}

bool Data::HasValue() const {
    for (const auto& child : children) {
        if (child.second != nullptr && child.second->HasValue()) return true;
    }
    return hasValue;
}

BoolData::BoolData(std::string nodeName, FieldType nodeType, unsigned long nodeLevel)
    : Data(std::move(nodeName), nodeType, nodeLevel), scalar(false) {}
BoolData::~BoolData() = default;
void BoolData::AddData(std::string, bool& v) {
    scalar = v;
    hasValue = true;
}
int BoolData::AddData(std::string, Data* source) {
    return MergeScalar(*this, source);
}

FloatData::FloatData(std::string nodeName, FieldType nodeType, unsigned long nodeLevel)
    : Data(std::move(nodeName), nodeType, nodeLevel), scalar(0.0f) {}
FloatData::~FloatData() = default;
void FloatData::AddData(std::string, float& v) {
    scalar = v;
    hasValue = true;
}
int FloatData::AddData(std::string, Data* source) {
    return MergeScalar(*this, source);
}

IntData::IntData(std::string nodeName, FieldType nodeType, unsigned long nodeLevel)
    : Data(std::move(nodeName), nodeType, nodeLevel), scalar(0) {}
IntData::~IntData() = default;
void IntData::AddData(std::string, int& v) {
    scalar = v;
    hasValue = true;
}
int IntData::AddData(std::string, Data* source) {
    return MergeScalar(*this, source);
}

StringData::StringData(std::string nodeName, FieldType nodeType, unsigned long nodeLevel)
    : Data(std::move(nodeName), nodeType, nodeLevel) {}
StringData::~StringData() = default;
void StringData::AddData(std::string, std::string& v) {
    scalar = v;
    hasValue = true;
}
int StringData::AddData(std::string, Data* source) {
    return MergeScalar(*this, source);
}

template <typename T>
ListData<T>::ListData(std::string nodeName, FieldType nodeType, unsigned long nodeLevel)
    : Data(std::move(nodeName), nodeType, nodeLevel) {}

template <typename T>
ListData<T>::~ListData() = default;

template <typename T>
void ListData<T>::AddData(std::string, T& v) {
    hasValue = true;
    items.push_back(v);
}

template <typename T>
int ListData<T>::AddData(std::string, Data* source) {
    if (source == nullptr) return RECORD_DATA_ERROR;
    hasValue = true;
    // The lists of a tree are of the same subclass; As would search the class tree for their common base.
    const bool isSameClass = typeid(*source) == typeid(*this);
    const ListData* other = isSameClass ? static_cast<ListData*>(source) : dynamic_cast<ListData*>(source);
    if (other == nullptr) return RECORD_DATA_ERROR;
    const size_t oldSize = items.size();
    const size_t count = other->items.size();
    items.resize(oldSize + count);  // before the source is looked at: it may be this list itself
    std::copy_n(other->items.begin(), count, items.begin() + static_cast<std::ptrdiff_t>(oldSize));
    return STATUS_OK;
}

template <typename T>
void ListData<T>::ClearData() {
    hasValue = false;
    items.clear();
}

template <typename T>
unsigned long ListData<T>::GetSize() {
    return items.size();
}

template <typename T>
T ListData<T>::GetData(unsigned long index) {
    return index < items.size() ? items[index] : T(0);
}

template class ListData<float>;
template class ListData<int>;
template class ListData<unsigned long>;

FloatListData::FloatListData(std::string nodeName, FieldType nodeType, unsigned long nodeLevel)
    : ListData<float>(std::move(nodeName), nodeType, nodeLevel) {}
FloatListData::~FloatListData() = default;

IntListData::IntListData(std::string nodeName, FieldType nodeType, unsigned long nodeLevel)
    : ListData<int>(std::move(nodeName), nodeType, nodeLevel) {}
IntListData::~IntListData() = default;

UnsignedIntListData::UnsignedIntListData(std::string nodeName, FieldType nodeType, unsigned long nodeLevel)
    : ListData<unsigned long>(std::move(nodeName), nodeType, nodeLevel) {}
UnsignedIntListData::~UnsignedIntListData() = default;

ValueData::ValueData(std::string nodeName, FieldType nodeType, unsigned long nodeLevel)
    : Data(std::move(nodeName), nodeType, nodeLevel) {}
ValueData::~ValueData() = default;

int ValueData::Init() {
    children.reserve(children.size() + std::size(kValueFields));
    for (const ValueField& field : kValueFields) {
        if (!Append(*this, field.name, field.make(field, level + 1))) return RECORD_DATA_ERROR;
    }
    return Data::Init();
}

int ValueData::Copy(Data& source) {
    children.reserve(children.size() + std::size(kValueFields));
    for (const ValueField& field : kValueFields) {
        if (!Append(*this, field.name, field.copy(field, source))) return RECORD_DATA_ERROR;
    }
    hasValue = true;
    return STATUS_OK;
}

int ValueData::AddData(std::string fieldName, Data* source) {
    if (source == nullptr) return RECORD_DATA_ERROR;
    Data** field = FindSlot(*this, fieldName);
    if (field == nullptr) return RECORD_DATA_ERROR;
    const int status = (*field)->AddData(std::move(fieldName), source);
    if (status == STATUS_OK) hasValue = true;
    return status;
}

void ValueData::SetScaleD(float v) const {
    if (auto* scaleD = FindChild<FloatData>(*this, "scale_d")) scaleD->AddData("scale_d", v);
}

void ValueData::SetOffsetD(int v) const {
    if (auto* offsetD = FindChild<IntData>(*this, "offset_d")) offsetD->AddData("offset_d", v);
}

void ValueData::AddScaleW(float v) const {
    if (auto* scaleW = FindChild<FloatListData>(*this, "scale_w")) scaleW->AddData("scale_w", v);
}

void ValueData::AddOffsetW(int v) const {
    if (auto* offsetW = FindChild<IntListData>(*this, "offset_w")) offsetW->AddData("offset_w", v);
}

void ValueData::ClearScaleW() const {
    if (auto* scaleW = FindChild<FloatListData>(*this, "scale_w")) scaleW->ClearData();
}

void ValueData::ClearOffsetW() const {
    if (auto* offsetW = FindChild<IntListData>(*this, "offset_w")) offsetW->ClearData();
}

RecordData::RecordData(std::string nodeName, FieldType nodeType, unsigned long nodeLevel)
    : Data(std::move(nodeName), nodeType, nodeLevel) {}
RecordData::~RecordData() = default;

int RecordData::Init() {
    const bool complete = Append(*this, "key", NewNode<StringData>("key", FIELD_STRING, level + 1)) &&
                          Append(*this, "value", NewNode<ValueData>("value", FIELD_MESSAGE, level + 1));
    return complete ? Data::Init() : RECORD_DATA_ERROR;
}

int RecordData::Copy(Data& source) {
    if (!Append(*this, "key", CopyLeaf(FindChild<StringData>(source, "key")))) return RECORD_DATA_ERROR;
    std::unique_ptr<ValueData> value;
    const int status = CopyBlock(FindChild<ValueData>(source, "value"), value);
    if (status != STATUS_OK) return status;
    Append(*this, "value", std::move(value));
    hasValue = true;
    return STATUS_OK;
}

int RecordData::AddData(std::string childName, Data* source) {
    if (source == nullptr) return RECORD_DATA_ERROR;
    Data** slot = FindSlot(*this, childName);
    if (slot == nullptr) return RECORD_DATA_ERROR;
    if (childName == "key") {
        std::unique_ptr<Data> key = CopyLeaf(As<StringData>(source));
        if (key == nullptr) return RECORD_DATA_ERROR;
        Replace(slot, std::move(key));
    } else if (childName == "value") {
        auto* block = As<ValueData>(source);
        if (block == nullptr || !OverwriteBlock(*block, **slot)) {
            std::unique_ptr<ValueData> value;
            const int status = CopyBlock(block, value);
            if (status != STATUS_OK) return status;
            Replace(slot, std::move(value));
        }
    }
    hasValue = true;
    return STATUS_OK;
}

void RecordData::SetKey(std::string text) const {
    if (auto* key = FindChild<StringData>(*this, "key")) key->AddData("key", text);
}

ValueData* RecordData::Value() const {
    return FindChild<ValueData>(*this, "value");
}

RecordDataPrune::RecordDataPrune(std::string nodeName, FieldType nodeType, unsigned long nodeLevel)
    : Data(std::move(nodeName), nodeType, nodeLevel) {}
RecordDataPrune::~RecordDataPrune() = default;

int RecordDataPrune::Init() {
    content.clear();
    return Data::Init();
}

int RecordDataPrune::Copy(Data& source) {
    const auto* other = As<RecordDataPrune>(&source);
    if (other == nullptr) return RECORD_DATA_ERROR;
    content = other->content;
    hasValue = true;
    return STATUS_OK;
}

void RecordDataPrune::AddData(std::string, std::string& v) {
    content = v;
}

InnerData::InnerData(std::string nodeName, FieldType nodeType, unsigned long nodeLevel)
    : Data(std::move(nodeName), nodeType, nodeLevel) {}

InnerData::~InnerData() {
    for (RecordData* record : records) delete record;
    for (RecordDataPrune* prune : pruneRecords) delete prune;
}

int InnerData::AddData(std::string entryName, Data* source) {
    if (source == nullptr) return RECORD_DATA_ERROR;
    if (entryName == "record") {
        std::unique_ptr<RecordData> record;
        const int status = CopyBlock(As<RecordData>(source), record);
        if (status != STATUS_OK) return status;
        records.push_back(record.get());
        record.release();
    } else if (entryName == "prune_record") {
        std::unique_ptr<RecordDataPrune> prune;
        const int status = CopyBlock(As<RecordDataPrune>(source), prune);
        if (status != STATUS_OK) return status;
        pruneRecords.push_back(prune.get());
        prune.release();
    } else {
        std::puts("Error raised from proto_simulator");
        std::fflush(stdout);
        return RECORD_UNKNOWN_FIELD;
    }
    hasValue = true;
    return STATUS_OK;
}

void InnerData::ClearData() {
    for (RecordData* record : records) delete record;
    for (RecordDataPrune* prune : pruneRecords) delete prune;
    records.clear();
    pruneRecords.clear();
    hasValue = false;
}

RecordData* InnerData::AddRecord() {
    std::unique_ptr<RecordData> record = NewNode<RecordData>("record", FIELD_RECORD, 0);
    if (record == nullptr || record->Init() != STATUS_OK) return nullptr;
    records.push_back(record.get());
    hasValue = true;
    return record.release();
}

}  // namespace kest_tf
