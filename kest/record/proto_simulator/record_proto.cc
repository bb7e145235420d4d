#include <kest/record/proto_simulator/file_io.h>
#include <kest/record/proto_simulator/record_proto.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <locale>
#include <memory>
#include <new>
#include <sstream>
#include <string_view>
#include <system_error>
#include <typeinfo>

namespace kest_tf {

namespace {

bool IsSeparator(char c) {
    return c == ' ' || c == '\n' || c == '\t' || c == '\r';
}
bool EndsName(char c) {
    return c == ':' || c == '{' || IsSeparator(c);
}
bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

/// Matches the braces of one text. It looks for quotes and braces at the speed of memchr, and for each of them over
/// every byte once, however many blocks the text has.
class BraceMatcher {
public:
    explicit BraceMatcher(std::string_view text) : quote_{text, '"'}, open_{text, '{'}, close_{text, '}'} {}

    /// The "}" that closes the "{" at `open`, npos if there is none. `open` ascends from call to call.
    size_t Match(size_t open) {
        size_t position = open + 1;
        for (size_t depth = 1; depth > 0;) {
            const size_t next = std::min({quote_.From(position), open_.From(position), close_.From(position)});
            if (next == std::string_view::npos) return next;
            position = next + 1;
            if (next == close_.at) {
                --depth;
            } else if (next == open_.at) {
                ++depth;
            } else {
                const size_t closingQuote = quote_.From(position);
                if (closingQuote == std::string_view::npos) return closingQuote;
                position = closingQuote + 1;
            }
        }
        return position - 1;
    }

private:
    struct Finder {
        std::string_view text;
        char wanted;
        size_t at = 0;  // the last one found; no block opens before 0, so none is passed over

        size_t From(size_t position) {
            if (at < position) at = text.find(wanted, position);
            return at;
        }
    };
    Finder quote_;
    Finder open_;
    Finder close_;
};

/// Takes a text apart into its fields.
class FieldReader {
public:
    explicit FieldReader(std::string_view text) : text_(text), braces_(text) {}

    /// Moves to the next name; stays there until its value is read. False at the end of the text.
    bool FindName() {
        cursor_ = SkipSeparators(cursor_);
        nameEnd_ = cursor_;
        while (nameEnd_ < text_.size() && !EndsName(text_[nameEnd_])) ++nameEnd_;
        return cursor_ < text_.size();
    }
    std::string Name() const { return std::string(text_.substr(cursor_, nameEnd_ - cursor_)); }

    /// FindName, if the next name is `name`; the quick way to see that a field repeats.
    bool FindName(const std::string& name) {
        cursor_ = SkipSeparators(cursor_);
        if (text_.size() - cursor_ <= name.size()) return false;
        nameEnd_ = cursor_ + name.size();
        return std::memcmp(&text_[cursor_], name.data(), name.size()) == 0 && EndsName(text_[nameEnd_]);
    }

    /// Reads the value that follows the name.
    int ReadValue(bool isBlock) {
        const size_t form = SkipSeparators(nameEnd_);
        if (form < text_.size() && text_[form] == '{') {
            const size_t close = braces_.Match(form);
            if (close == std::string_view::npos) return RECORD_DATA_ERROR;
            value = text_.substr(form + 1, close - form - 1);
            cursor_ = close + 1;
            return STATUS_OK;
        }
        const size_t colon = form < text_.size() && text_[form] == ':' ? form : text_.find(':', form);
        if (colon == std::string_view::npos) return RECORD_DATA_ERROR;
        const size_t token = SkipSeparators(colon + 1);
        if (isBlock && token < text_.size() && text_[token] == '{') return RECORD_UNKNOWN_FIELD;
        size_t tokenEnd = token;
        while (tokenEnd < text_.size() && !IsSeparator(text_[tokenEnd])) ++tokenEnd;
        if (tokenEnd == text_.size()) return RECORD_DATA_ERROR;
        value = text_.substr(token, tokenEnd - token);
        cursor_ = tokenEnd;
        return STATUS_OK;
    }

    std::string value;

private:
    size_t SkipSeparators(size_t position) const {
        while (position < text_.size() && IsSeparator(text_[position])) ++position;
        return position;
    }

    const std::string_view text_;
    BraceMatcher braces_;
    size_t cursor_ = 0;
    size_t nameEnd_ = 0;
};

/// Scratch nodes serve one occurrence after the other: a text left from one would reach the next.
void ClearText(Data& node) {
    if (node.type == FIELD_STRING) {
        if (auto* text = dynamic_cast<StringData*>(&node)) text->scalar.clear();
    }
    for (auto& child : node.children) {
        if (child.second != nullptr) ClearText(*child.second);
    }
}

/// Whether the items of a repeated field may be read into the scratch node run by run and merged together: the node and
/// its parser are the library's own, and a value block extends its lists.
bool TakesRuns(const Data& target, const Proto& parser, const Data& scratch) {
    const std::type_info& node = typeid(scratch);
    const std::type_info& reader = typeid(parser);
    return typeid(target) == typeid(ValueData) &&
           (node == typeid(FloatListData) || node == typeid(IntListData) || node == typeid(UnsignedIntListData)) &&
           (reader == typeid(FloatProto) || reader == typeid(IntProto) || reader == typeid(UnsignedIntProto));
}

template <typename T>
T ReadFromStream(const std::string& text) {
    std::istringstream stream(text);
    stream.imbue(std::locale::classic());
    stream.exceptions(std::ios::badbit);  // a failed allocation must not read as 0
    T value = 0;
    stream >> value;
    return value;
}

template <typename T>
T ReadInteger(const std::string& text) {
    // Fails where a stream reads otherwise: a leading "+" or space, a "-" before an unsigned number, out of range.
    T value = 0;
    const std::from_chars_result result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() ? value : ReadFromStream<T>(text);
}

/// Reads a plain decimal number that makes up all of `text`; false, `value` untouched, if there is anything special.
///
/// The number is m * 10^e with m below 10^15 and e from -22 to 22, so m and 10^|e| are exact as doubles and one
/// operation gives the double nearest to the number. Its nearest float is that of the number, unless the double lies
/// exactly between two floats.
bool ReadPlainFloat(const std::string& text, float& value) {
    constexpr double kPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                  1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    constexpr int kMaxExponent = 22;
    constexpr int kMaxDigits = 15;
    const char* next = text.data();
    const char* const end = next + text.size();
    const auto skip = [&](char c) { return next != end && *next == c ? (++next, true) : false; };
    int64_t mantissa = 0;
    const auto readDigits = [&](int64_t& number, int limit) {
        int count = 0;
        for (; count < limit && next != end && IsDigit(*next); ++next, ++count) number = 10 * number + (*next - '0');
        return count;
    };

    const bool isNegative = skip('-');
    int numDigits = readDigits(mantissa, kMaxDigits);
    int exponent = 0;
    if (skip('.')) {
        exponent = -readDigits(mantissa, kMaxDigits - numDigits);
        numDigits -= exponent;
    }
    if (numDigits == 0) return false;
    if (skip('e')) {
        const bool isReciprocal = skip('-');
        if (!isReciprocal) skip('+');
        int64_t power = 0;
        if (readDigits(power, 2) == 0) return false;
        exponent += static_cast<int>(isReciprocal ? -power : power);
    }
    if (next != end || std::abs(exponent) > kMaxExponent) return false;

    double number = static_cast<double>(mantissa);
    number = exponent < 0 ? number / kPowers[-exponent] : number * kPowers[exponent];
    uint64_t bits = 0;
    std::memcpy(&bits, &number, sizeof(bits));
    if ((bits & 0x1FFFFFFF) == 0x10000000) return false;  // the 29 bits that a float lacks: half of its last one
    value = static_cast<float>(isNegative ? -number : number);
    return true;
}

float ReadFloat(const std::string& text) {
    float value = 0.0f;
    return ReadPlainFloat(text, value) ? value : ReadFromStream<float>(text);
}

/// Adds the field `name` to the schema of `block`. A name that it already holds stays as it is.
template <typename Parser, typename Node>
int AddField(Proto& block, const char* name, unsigned long parserLevel, FieldType type, unsigned long nodeLevel) {
    std::unique_ptr<Proto> parser(new (std::nothrow) Parser(name, parserLevel));
    std::unique_ptr<Data> scratch(new (std::nothrow) Node(name, type, nodeLevel));
    if (parser == nullptr || scratch == nullptr) return RECORD_DATA_ERROR;
    if (block.schema.emplace(name, std::make_pair(parser.get(), scratch.get())).second) {
        parser.release();
        scratch.release();
    }
    return STATUS_OK;
}

}  // namespace

Proto::Proto(std::string blockName, unsigned long blockLevel) : name(std::move(blockName)), level(blockLevel) {}

Proto::~Proto() {
    for (auto& field : schema) {
        delete field.second.first;
        delete field.second.second;
    }
}

int Proto::Init() {
    for (auto& field : schema) {
        auto& [parser, scratch] = field.second;
        if (parser == nullptr || scratch == nullptr) return RECORD_DATA_ERROR;
        int status = parser->Init();
        if (status == STATUS_OK) status = scratch->Init();
        if (status != STATUS_OK) return status;
    }
    return STATUS_OK;
}

int Proto::Parse(std::string& text, Data& target) {
    FieldReader reader(text);
    while (reader.FindName()) {
        const auto field = schema.find(reader.Name());
        if (field == schema.end()) return RECORD_UNKNOWN_FIELD;
        Proto* parser = field->second.first;
        Data* scratch = field->second.second;
        if (parser == nullptr || scratch == nullptr) return RECORD_DATA_ERROR;

        const bool isBlock = scratch->type <= FIELD_RECORD;
        int readStatus = reader.ReadValue(isBlock);
        if (readStatus != STATUS_OK) return readStatus;
        scratch->ClearData();
        ClearText(*scratch);
        int status = parser->Parse(reader.value, *scratch);
        if (status == STATUS_OK && TakesRuns(target, *parser, *scratch)) {
            while (reader.FindName(field->first) && (readStatus = reader.ReadValue(isBlock)) == STATUS_OK) {
                parser->Parse(reader.value, *scratch);  // a number's parser, which never fails
            }
        }
        if (status == STATUS_OK) status = target.AddData(field->first, scratch);
        if (status != STATUS_OK) return status;
        if (readStatus != STATUS_OK) return readStatus;
    }
    return STATUS_OK;
}

BoolProto::BoolProto(std::string fieldName, unsigned long fieldLevel) : Proto(std::move(fieldName), fieldLevel) {}
BoolProto::~BoolProto() = default;
int BoolProto::Parse(std::string& text, Data& target) {
    bool value = text == "true";
    target.AddData(name, value);
    return STATUS_OK;
}

FloatProto::FloatProto(std::string fieldName, unsigned long fieldLevel) : Proto(std::move(fieldName), fieldLevel) {}
FloatProto::~FloatProto() = default;
int FloatProto::Parse(std::string& text, Data& target) {
    float value = ReadFloat(text);
    target.AddData(name, value);
    return STATUS_OK;
}

IntProto::IntProto(std::string fieldName, unsigned long fieldLevel) : Proto(std::move(fieldName), fieldLevel) {}
IntProto::~IntProto() = default;
int IntProto::Parse(std::string& text, Data& target) {
    int value = ReadInteger<int>(text);
    target.AddData(name, value);
    return STATUS_OK;
}

UnsignedIntProto::UnsignedIntProto(std::string fieldName, unsigned long fieldLevel)
    : Proto(std::move(fieldName), fieldLevel) {}
UnsignedIntProto::~UnsignedIntProto() = default;
int UnsignedIntProto::Parse(std::string& text, Data& target) {
    unsigned long value = ReadInteger<unsigned long>(text);
    target.AddData(name, value);
    return STATUS_OK;
}

StringProto::StringProto(std::string fieldName, unsigned long fieldLevel) : Proto(std::move(fieldName), fieldLevel) {}
StringProto::~StringProto() = default;
int StringProto::Parse(std::string& text, Data& target) {
    std::string value = text;
    const size_t first = text.find('"');
    if (first != std::string::npos) {
        const size_t last = text.rfind('"');
        value = text.substr(first + 1, last > first ? last - first - 1 : std::string::npos);
    }
    target.AddData(name, value);
    return STATUS_OK;
}

PruneRecord::PruneRecord(std::string fieldName, unsigned long fieldLevel) : Proto(std::move(fieldName), fieldLevel) {}
PruneRecord::~PruneRecord() = default;
int PruneRecord::Parse(std::string& text, Data& target) {
    target.AddData(name, text);
    return STATUS_OK;
}

ValueProto::ValueProto(std::string blockName, unsigned long blockLevel) : Proto(std::move(blockName), blockLevel) {}
ValueProto::~ValueProto() = default;
int ValueProto::Init() {
    const unsigned long inner = level + 1;
    int status = AddField<FloatProto, FloatData>(*this, "scale_d", inner, FIELD_FLOAT, inner);
    const auto add = [&](auto addField, const char* field, FieldType type) {
        if (status == STATUS_OK) status = addField(*this, field, inner, type, inner);
    };
    add(AddField<IntProto, IntData>, "offset_d", FIELD_INT);
    add(AddField<FloatProto, FloatListData>, "scale_w", FIELD_FLOAT_LIST);
    add(AddField<IntProto, IntListData>, "offset_w", FIELD_INT_LIST);
    add(AddField<UnsignedIntProto, UnsignedIntListData>, "shift_bit", FIELD_UINT64_LIST);
    add(AddField<IntProto, IntListData>, "cluster", FIELD_INT_LIST);
    add(AddField<BoolProto, BoolData>, "skip_fusion", FIELD_BOOL);
    add(AddField<StringProto, StringData>, "dst_type", FIELD_STRING);
    add(AddField<FloatProto, FloatListData>, "tensor_balance_factor", FIELD_FLOAT_LIST);
    return status == STATUS_OK ? Proto::Init() : status;
}

RecordProto::RecordProto(std::string blockName, unsigned long blockLevel) : Proto(std::move(blockName), blockLevel) {}
RecordProto::~RecordProto() = default;
int RecordProto::Init() {
    const unsigned long inner = level + 1;
    int status = AddField<StringProto, StringData>(*this, "key", inner, FIELD_STRING, inner);
    if (status == STATUS_OK) status = AddField<ValueProto, ValueData>(*this, "value", inner, FIELD_MESSAGE, inner);
    return status == STATUS_OK ? Proto::Init() : status;
}

InnerProto::InnerProto(std::string blockName, unsigned long blockLevel) : Proto(std::move(blockName), blockLevel) {}
InnerProto::~InnerProto() = default;
int InnerProto::Init() {
    int status = AddField<RecordProto, RecordData>(*this, "record", 0, FIELD_RECORD, level);
    if (status == STATUS_OK) status = AddField<PruneRecord, RecordDataPrune>(*this, "prune_record", 0, FIELD_RECORD, 0);
    return status == STATUS_OK ? Proto::Init() : status;
}

int ParseRecordFile(std::string path, InnerData& root) {
    InnerProto parser("InnerScaleOffsetRecord", 0);
    int status = parser.Init();
    if (status != STATUS_OK) return status;
    std::string text;
    status = ReadFile(path, text);
    return status == STATUS_OK ? parser.Parse(text, root) : status;
}

}  // namespace kest_tf
