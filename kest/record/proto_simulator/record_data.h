#ifndef KEST_RECORD_PROTO_SIMULATOR_RECORD_DATA_H_
#define KEST_RECORD_PROTO_SIMULATOR_RECORD_DATA_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>

#include <string>
#include <utility>
#include <vector>

/// \file
/// A record file in memory: a tree of named nodes.
///
///     InnerData                        the file
///       RecordData "record" ...        one layer each: StringData "key" and ValueData "value" with nine fields
///       RecordDataPrune ...            pruning blocks, kept as raw text
///
/// A node owns the nodes below it and cannot be copied but through Copy and AddData. The order of the fields and of the
/// virtual functions is part of the binary interface. A tree has no lock: one thread at a time.
///
/// Statuses: STATUS_OK; RECORD_DATA_ERROR for a null source, a child that is missing, null or of another class, and a
/// node that cannot be allocated; RECORD_UNKNOWN_FIELD where stated. A failure rolls nothing back: the caller discards
/// the tree. Strings and vectors may throw std::bad_alloc.

/// The record file's tree, parser and writer, and tensor dumps.
namespace kest_tf {

/// The kind of a node. Kinds up to FIELD_RECORD are written as a brace block.
enum FieldType : unsigned int {
    FIELD_MESSAGE = 1,      ///< a file, or the value of a record
    FIELD_RECORD = 2,       ///< an entry of a file
    FIELD_STRING = 3,       ///< a text
    FIELD_FLOAT = 4,        ///< a float
    FIELD_FLOAT_LIST = 5,   ///< a repeated float
    FIELD_INT = 6,          ///< an int
    FIELD_INT_LIST = 7,     ///< a repeated int
    FIELD_UINT64_LIST = 8,  ///< a repeated unsigned 64-bit integer
    FIELD_BOOL = 9          ///< a bool
};

/// A node of the tree. What a class does not override does nothing and succeeds.
class KEST_EXPORT Data {
public:
    /// A node without children and without a value. `level` is its depth in the file: 0 for an entry, 1 for a key or
    /// value, 2 for the fields of a value.
    Data(std::string name, FieldType type, unsigned long level);
    Data(const Data&) = delete;
    Data& operator=(const Data&) = delete;
    virtual ~Data();

    /// Prepares a new node. Here: Init of each child in order; returns the first failure.
    virtual int Init();
    /// Fills a new node with copies of what `source` holds.
    virtual int Copy(Data& source);

    ///@{
    /// Stores or appends v and sets `hasValue`, in the classes that hold values of this type.
    virtual void AddData(std::string name, float& v);
    virtual void AddData(std::string name, int& v);
    virtual void AddData(std::string name, unsigned long& v);
    virtual void AddData(std::string name, std::string& v);
    virtual void AddData(std::string name, bool& v);
    ///@}
    /// Takes over the content of `source`, which stays the caller's: a leaf merges it (a scalar is replaced, a list
    /// extended), a block hands it to its child `name` or puts a copy in that child's place.
    virtual int AddData(std::string name, Data* source);

    /// Clears `hasValue` here and below. Scalars keep what they hold; a list empties its items and visits no children.
    virtual void ClearData();
    /// The node as record-file text (record_writer.h); empty when there is nothing to write.
    virtual std::string Dump();

    /// True if the flag of this node or of any node among its children is set. An entry of a root is no child.
    bool HasValue() const;

    std::string name;                                     ///< the field's name in the file
    FieldType type;                                       ///< the kind of the node
    unsigned long level;                                  ///< depth in the file
    bool hasValue;                                        ///< whether a value has been stored
    std::vector<std::pair<std::string, Data*>> children;  ///< owned; a name is looked up first match first
};

/// One bool. AddData sets `hasValue` even when the source then turns out to be of another class; so in all leaves.
class KEST_EXPORT BoolData : public Data {
public:
    BoolData(std::string name, FieldType type, unsigned long level);  ///< as of Data
    ~BoolData() override;
    using Data::AddData;
    void AddData(std::string name, bool& v) override;
    int AddData(std::string name, Data* source) override;
    std::string Dump() override;

    bool scalar;  ///< the value
};

/// One float.
class KEST_EXPORT FloatData : public Data {
public:
    FloatData(std::string name, FieldType type, unsigned long level);  ///< as of Data
    ~FloatData() override;
    using Data::AddData;
    void AddData(std::string name, float& v) override;
    int AddData(std::string name, Data* source) override;
    std::string Dump() override;

    float scalar;  ///< the value
};

/// One int.
class KEST_EXPORT IntData : public Data {
public:
    IntData(std::string name, FieldType type, unsigned long level);  ///< as of Data
    ~IntData() override;
    using Data::AddData;
    void AddData(std::string name, int& v) override;
    int AddData(std::string name, Data* source) override;
    std::string Dump() override;

    int scalar;  ///< the value
};

/// One text.
class KEST_EXPORT StringData : public Data {
public:
    StringData(std::string name, FieldType type, unsigned long level);  ///< as of Data
    ~StringData() override;
    using Data::AddData;
    void AddData(std::string name, std::string& v) override;
    int AddData(std::string name, Data* source) override;
    std::string Dump() override;

    std::string scalar;  ///< the value
};

/// A repeated field, T = float, int or unsigned long. AddData appends: a value, or all items of a list of the same T.
template <typename T>
class KEST_EXPORT ListData : public Data {
public:
    ListData(std::string name, FieldType type, unsigned long level);  ///< as of Data
    ~ListData() override;
    using Data::AddData;
    void AddData(std::string name, T& v) override;         ///< appends v
    int AddData(std::string name, Data* source) override;  ///< appends all items of `source`
    void ClearData() override;                             ///< clears `hasValue` and empties the items
    std::string Dump() override;                           ///< one line an item

    virtual unsigned long GetSize();  ///< number of items
    /// The item at `index`, 0 beyond the end.
    virtual T GetData(unsigned long index);

    std::vector<T> items;  ///< the values, in order
};

extern template class ListData<float>;
extern template class ListData<int>;
extern template class ListData<unsigned long>;

/// A list of floats, written with nine digits.
class KEST_EXPORT FloatListData : public ListData<float> {
public:
    FloatListData(std::string name, FieldType type, unsigned long level);  ///< as of Data
    ~FloatListData() override;
    std::string Dump() override;
};

/// A list of ints.
class KEST_EXPORT IntListData : public ListData<int> {
public:
    IntListData(std::string name, FieldType type, unsigned long level);  ///< as of Data
    ~IntListData() override;
};

/// A list of unsigned 64-bit integers.
class KEST_EXPORT UnsignedIntListData : public ListData<unsigned long> {
public:
    UnsignedIntListData(std::string name, FieldType type, unsigned long level);  ///< as of Data
    ~UnsignedIntListData() override;
};

/// The value block of a record: "scale_d", "offset_d", "scale_w", "offset_w", "shift_bit", "cluster", "skip_fusion",
/// "dst_type" and "tensor_balance_factor", in this order, whether or not they have a value.
///
/// The accessors reach the child of their name through its virtual functions, and do nothing where it is missing or
/// of another class.
class KEST_EXPORT ValueData : public Data {
public:
    ValueData(std::string name, FieldType type, unsigned long level);  ///< as of Data
    ~ValueData() override;
    /// Appends the nine fields, empty. To be called once.
    int Init() override;
    /// Appends copies of the nine fields of `source`, their flags included. RECORD_DATA_ERROR at the first one that is
    /// missing or of another class; the copies made so far stay.
    int Copy(Data& source) override;
    using Data::AddData;
    /// Merges `source` into the field `name`.
    int AddData(std::string name, Data* source) override;

    void SetScaleD(float v) const;  ///< stores "scale_d"
    void SetOffsetD(int v) const;   ///< stores "offset_d"
    void AddScaleW(float v) const;  ///< appends to "scale_w"
    void AddOffsetW(int v) const;   ///< appends to "offset_w"
    void ClearScaleW() const;       ///< empties "scale_w"
    void ClearOffsetW() const;      ///< empties "offset_w"
};

/// One layer: "key", its name, and "value", its factors.
class KEST_EXPORT RecordData : public Data {
public:
    RecordData(std::string name, FieldType type, unsigned long level);  ///< as of Data
    ~RecordData() override;
    /// Appends an empty key and a value block with its nine fields. To be called once.
    int Init() override;
    /// Appends copies of key and value. The key stays when the value then fails.
    int Copy(Data& source) override;
    using Data::AddData;
    /// Puts a copy of `source` in the place of the child "key" or "value"; the old child, and pointers to it, are gone.
    /// The name of another child replaces nothing and is STATUS_OK.
    int AddData(std::string name, Data* source) override;

    /// Stores the layer's name; does nothing without a key node.
    void SetKey(std::string key) const;
    /// The value block, or null when it is missing or of another class. Stays the record's.
    ValueData* Value() const;
};

/// A pruning block: its raw text, whitespace included, is carried through unread.
class KEST_EXPORT RecordDataPrune : public Data {
public:
    RecordDataPrune(std::string name, FieldType type, unsigned long level);  ///< as of Data
    ~RecordDataPrune() override;
    /// Empties the content.
    int Init() override;
    int Copy(Data& source) override;
    using Data::AddData;
    /// Replaces the content; `hasValue` stays as it is.
    void AddData(std::string name, std::string& v) override;
    std::string Dump() override;

    std::string content;  ///< the text between the braces
};

/// The root of a record file: its entries in file order. Construct it as
/// InnerData("InnerScaleOffsetRecord", FIELD_MESSAGE, 0).
class KEST_EXPORT InnerData : public Data {
public:
    InnerData(std::string name, FieldType type, unsigned long level);  ///< as of Data
    ~InnerData() override;
    using Data::AddData;
    /// Appends a copy of `source` to the entries called `name`: "record" or "prune_record". Any other name prints
    /// "Error raised from proto_simulator" on standard output and is RECORD_UNKNOWN_FIELD.
    int AddData(std::string name, Data* source) override;
    /// Deletes all entries.
    void ClearData() override;
    std::string Dump() override;

    /// Appends an empty record with all its fields and returns it; the root keeps it. Null if it cannot be allocated.
    RecordData* AddRecord();

    std::vector<RecordData*> records;            ///< owned
    std::vector<RecordDataPrune*> pruneRecords;  ///< owned
};

}  // namespace kest_tf

#endif  // KEST_RECORD_PROTO_SIMULATOR_RECORD_DATA_H_
