#ifndef KEST_RECORD_PROTO_SIMULATOR_RECORD_PROTO_H_
#define KEST_RECORD_PROTO_SIMULATOR_RECORD_PROTO_H_

#include <kest/kernel_frame/export.h>
#include <kest/record/proto_simulator/record_data.h>

#include <map>
#include <string>
#include <utility>

/// \file
/// The record file's text and its parser.
///
/// A file is a sequence of fields: a name, then either a block, `name { fields }`, or a scalar, `name: token `. Space,
/// tab, line feed and carriage return separate; a token ends at, and needs, the separator after it. Braces between
/// double quotes do not count. There are no comments and no escapes.
///
///     file:    record { } and prune_record { }, any number; the content of a prune_record is not interpreted
///     record:  key: string, value { }
///     value:   scale_d: float, offset_d: int, scale_w: float*, offset_w: int*, shift_bit: unsigned long*,
///              cluster: int*, skip_fusion: bool, dst_type: string, tensor_balance_factor: float*
///              (* repeated, one item a line)
///
/// Fields come in any order; the last occurrence of a scalar decides, and so does the last key or value of a record (a
/// second value block replaces the first). A scalar field may be written as a block and prune_record as a scalar, and
/// what stands between a name and its colon is skipped. Numbers are read as an input stream in the classic locale reads
/// them, whatever locale the process has set: 3.7 is the int 3, a number out of range becomes the nearest limit, -1 the
/// largest unsigned long, no number 0; inf and nan are no numbers. A bool is true for "true" alone. A string is what
/// stands between the first and the last double quote of its token, after a single one, or all of the token.
///
/// A block parser (Proto and the classes with a schema) reads each occurrence of a field into the field's scratch node
/// and merges that into its target. The order of fields and virtual functions is part of the binary interface.

namespace kest_tf {

/// A parser: of a block, by its schema, or in the leaf classes of one value.
class KEST_EXPORT Proto {
public:
    Proto(std::string name, unsigned long level);  ///< `level` is the depth of the field in the file.
    Proto(const Proto&) = delete;
    Proto& operator=(const Proto&) = delete;

    /// Prepares the parsers and scratch nodes of the schema, in order of their names; returns the first failure.
    /// Block parsers first build their schema: RECORD_DATA_ERROR if that cannot be allocated, and for an entry without
    /// parser or scratch node. To be called once.
    virtual int Init();
    virtual ~Proto();
    /// Parses the fields of `text`, the content of a block, into `target`; `text` stays as it is.
    ///
    /// STATUS_OK; RECORD_UNKNOWN_FIELD for a name that the schema does not hold and for a block written with a colon,
    /// `value: {` (prune_record too); RECORD_DATA_ERROR for a field whose colon, closing brace or separator is missing,
    /// and for a schema entry without parser or scratch node; else what a parser or `target` reports. What came before
    /// the failing field stays in `target`.
    virtual int Parse(std::string& text, Data& target);

    std::string name;                                        ///< the field's name in the file
    unsigned long level;                                     ///< depth in the file
    std::map<std::string, std::pair<Proto*, Data*>> schema;  ///< owns parsers and scratch nodes
};

/// Leaf parsers: read one value from the text (see above) and hand it to the target's AddData. Always STATUS_OK.
class KEST_EXPORT BoolProto : public Proto {
public:
    BoolProto(std::string name, unsigned long level);  ///< as of Proto
    ~BoolProto() override;
    int Parse(std::string& text, Data& target) override;
};

/// A leaf parser of a float.
class KEST_EXPORT FloatProto : public Proto {
public:
    FloatProto(std::string name, unsigned long level);  ///< as of Proto
    ~FloatProto() override;
    int Parse(std::string& text, Data& target) override;
};

/// A leaf parser of an int.
class KEST_EXPORT IntProto : public Proto {
public:
    IntProto(std::string name, unsigned long level);  ///< as of Proto
    ~IntProto() override;
    int Parse(std::string& text, Data& target) override;
};

/// A leaf parser of an unsigned 64-bit integer.
class KEST_EXPORT UnsignedIntProto : public Proto {
public:
    UnsignedIntProto(std::string name, unsigned long level);  ///< as of Proto
    ~UnsignedIntProto() override;
    int Parse(std::string& text, Data& target) override;
};

/// A leaf parser of a text.
class KEST_EXPORT StringProto : public Proto {
public:
    StringProto(std::string name, unsigned long level);  ///< as of Proto
    ~StringProto() override;
    int Parse(std::string& text, Data& target) override;
};

/// Passes the text on as it is.
class KEST_EXPORT PruneRecord : public Proto {
public:
    PruneRecord(std::string name, unsigned long level);  ///< as of Proto
    ~PruneRecord() override;
    int Parse(std::string& text, Data& target) override;
};

/// The parser of a value block.
class KEST_EXPORT ValueProto : public Proto {
public:
    ValueProto(std::string name, unsigned long level);  ///< as of Proto
    ~ValueProto() override;
    int Init() override;
};

/// The parser of a record.
class KEST_EXPORT RecordProto : public Proto {
public:
    RecordProto(std::string name, unsigned long level);  ///< as of Proto
    ~RecordProto() override;
    int Init() override;
};

/// The parser of a file.
class KEST_EXPORT InnerProto : public Proto {
public:
    InnerProto(std::string name, unsigned long level);  ///< as of Proto
    ~InnerProto() override;
    int Init() override;
};

/// Appends the entries of the file at `path` to `root`, which is not cleared.
///
/// STATUS_OK, also for an empty file; RECORD_PATH_ERROR if the path cannot be resolved; RECORD_OPEN_ERROR if what it
/// leads to cannot be opened or read (a directory, no permission, a device without end): `root` unchanged; the
/// statuses of Proto::Parse: entries before the failing one stay in `root`. Prints nothing. Reads the whole file into
/// memory, and needs up to 256 bytes for each of its bytes, 2 to 20 where the records have values. Calls on different
/// roots may run at once.
KEST_EXPORT int ParseRecordFile(std::string path, InnerData& root);

}  // namespace kest_tf

#endif  // KEST_RECORD_PROTO_SIMULATOR_RECORD_PROTO_H_
