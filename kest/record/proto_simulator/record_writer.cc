#include <kest/record/proto_simulator/file_io.h>
#include <kest/record/proto_simulator/record_writer.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <type_traits>
#include <typeinfo>

namespace kest_tf {

namespace {

// The longest number is a float in fixed notation: sign, 39 digits, point and six decimals.
constexpr size_t kMaxNumberLength = 48;

std::string Indent(const Data& node) {
    return std::string(2 * node.level, ' ');
}

// The Write functions write a number at `out`, which has room for kMaxNumberLength, and return its end.

template <typename Int>
char* WriteInteger(char* out, Int value) {
    return std::to_chars(out, out + kMaxNumberLength, value).ptr;
}

/// As printf does in the classic locale, but for the sign of NaN.
template <std::chars_format kFormat, int kPrecision>
char* WriteFloat(char* out, float value) {
    if (std::isnan(value)) return std::copy_n("nan", 3, out);
    return std::to_chars(out, out + kMaxNumberLength, static_cast<double>(value), kFormat, kPrecision).ptr;
}

/// WriteFloat<general, 9>, several times as fast where the notation is fixed.
///
/// n is the integer of nine digits nearest to |value| * 10^k. Float and power are exact as doubles and their product
/// is below 2^30, so it is off by at most 2^-24: n is certain unless the fraction comes that close to one half.
char* WriteNineDigits(char* out, float value) {
    constexpr double kPowers[] = {1e-4, 1e-3, 1e-2, 1e-1, 1e0, 1e1,  1e2,  1e3, 1e4,
                                  1e5,  1e6,  1e7,  1e8,  1e9, 1e10, 1e11, 1e12};
    constexpr double kUncertain = 1.0 / (1 << 22);
    const double magnitude = std::fabs(static_cast<double>(value));
    if (!(magnitude >= 1e-4 && magnitude < 1e9)) return WriteFloat<std::chars_format::general, 9>(out, value);

    // Of the first digit. A float here is either a power of ten or at least 1.4e-8 of it away: it is on the same side
    // of the doubles in the place of 10^-1 to 10^-4, and n never rounds up to ten digits.
    int exponent = -4;
    while (magnitude >= kPowers[exponent + 5]) ++exponent;
    const double scaled = magnitude * kPowers[12 - exponent];
    unsigned n = static_cast<unsigned>(scaled);
    const double fraction = scaled - n;
    if (fraction > 0.5) ++n;
    if (std::fabs(fraction - 0.5) < kUncertain) return WriteFloat<std::chars_format::general, 9>(out, value);

    char digits[9];
    std::to_chars(digits, digits + 9, n);
    const char* end = digits + 9;
    while (end[-1] == '0') --end;
    if (value < 0) *out++ = '-';
    if (exponent < 0) {
        out = std::copy_n("0.000", 1 - exponent, out);
        return std::copy(static_cast<const char*>(digits), end, out);
    }
    const char* point = digits + exponent + 1;
    out = std::copy(static_cast<const char*>(digits), point, out);
    if (end <= point) return out;
    *out++ = '.';
    return std::copy(point, end, out);
}

/// Appends one line for each item, if the node has a value.
template <typename T>
void AppendItems(const Data& node, const T* items, size_t count, char* (*write)(char*, T), std::string& text) {
    if (!node.HasValue()) return;
    std::string line = Indent(node) + node.name + ": ";
    const size_t start = line.size();
    line.resize(start + kMaxNumberLength + 1);
    for (size_t i = 0; i < count; ++i) {
        char* end = write(&line[start], items[i]);
        *end++ = '\n';
        text.append(line.data(), end);
    }
}

void AppendBlock(const Data& block, std::string& text);

/// Appends node.Dump(); what makes up the bulk of a file, without a string of its own.
void AppendDump(Data& node, std::string& text) {
    const std::type_info& type = typeid(node);
    if (type == typeid(FloatListData)) {
        const auto& items = static_cast<FloatListData&>(node).items;
        AppendItems(node, items.data(), items.size(), WriteNineDigits, text);
    } else if (type == typeid(IntListData)) {
        const auto& items = static_cast<IntListData&>(node).items;
        AppendItems(node, items.data(), items.size(), WriteInteger<int>, text);
    } else if (type == typeid(RecordData) || type == typeid(ValueData)) {
        AppendBlock(node, text);
    } else {
        text += node.Dump();
    }
}

void AppendBlock(const Data& block, std::string& text) {
    if (block.type > FIELD_RECORD || !block.HasValue()) return;
    text += Indent(block) + block.name + " {\n";
    for (const auto& child : block.children) {
        if (child.second != nullptr) AppendDump(*child.second, text);
    }
    text += Indent(block) + "}\n";
}

template <typename T>
std::string DumpItems(const Data& node, const T* items, size_t count, char* (*write)(char*, T)) {
    std::string text;
    AppendItems(node, items, count, write, text);
    return text;
}

}  // namespace

std::string Data::Dump() {
    std::string text;
    AppendBlock(*this, text);
    return text;
}

std::string BoolData::Dump() {
    if (!HasValue()) return {};
    return Indent(*this) + name + (scalar ? ": true\n" : ": false\n");
}

std::string FloatData::Dump() {
    return DumpItems(*this, &scalar, 1, WriteNineDigits);
}
std::string IntData::Dump() {
    return DumpItems(*this, &scalar, 1, WriteInteger);
}

std::string StringData::Dump() {
    if (scalar.empty()) return {};
    return Indent(*this) + name + ": \"" + scalar + "\"\n";
}

template <typename T>
std::string ListData<T>::Dump() {
    if constexpr (std::is_floating_point<T>::value) {
        return DumpItems(*this, items.data(), items.size(), WriteFloat<std::chars_format::fixed, 6>);
    } else {
        return DumpItems(*this, items.data(), items.size(), WriteInteger<T>);
    }
}

template std::string ListData<float>::Dump();
template std::string ListData<int>::Dump();
template std::string ListData<unsigned long>::Dump();

std::string FloatListData::Dump() {
    return DumpItems(*this, items.data(), items.size(), WriteNineDigits);
}

std::string RecordDataPrune::Dump() {
    return "prune_record {" + content + "}\n";
}

std::string InnerData::Dump() {
    std::string text;
    for (RecordData* record : records) {
        if (record != nullptr) AppendDump(*record, text);
    }
    for (RecordDataPrune* prune : pruneRecords) {
        if (prune != nullptr) text += prune->Dump();
    }
    return text;
}

int WriteToRecordFile(InnerData& root, const std::string& path) {
    return ReplaceFile(path, root.Dump());
}

}  // namespace kest_tf
