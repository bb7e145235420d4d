// Parse, write, parse: the second tree is the first, and written again it is the same text.

#include <fuzz/record_fuzz.h>

namespace {

using namespace kest_tf;  // NOLINT: the subject of the whole file

template <typename T>
void AppendBytes(const T* values, std::size_t count, std::string& bytes) {
    bytes.append(reinterpret_cast<const char*>(values), count * sizeof(T));
}
template <typename... T>
void AppendScalars(const Data& node, std::string& bytes) {
    const auto append = [&](auto* leaf) { return leaf != nullptr ? AppendBytes(&leaf->scalar, 1, bytes) : void(); };
    (append(dynamic_cast<const T*>(&node)), ...);
}
template <typename... T>
void AppendItems(const Data& node, std::string& bytes) {
    const auto append = [&](auto* list) {
        return list != nullptr ? AppendBytes(list->items.data(), list->items.size(), bytes) : void();
    };
    (append(dynamic_cast<const ListData<T>*>(&node)), ...);
}

/// All that a node and those below it hold, but for the flag of an empty string, which is not written.
void AppendContent(const Data& node, std::string& bytes) {
    bytes += node.name + std::to_string(node.type) + std::to_string(node.level);
    const auto* text = dynamic_cast<const StringData*>(&node);
    if (text != nullptr) bytes += text->scalar;
    if (text != nullptr || !node.HasValue()) return;
    bytes += " has a value ";
    AppendScalars<BoolData, FloatData, IntData>(node, bytes);
    AppendItems<float, int, unsigned long>(node, bytes);
    for (const auto& child : node.children) AppendContent(*child.second, bytes);
}

/// The trees of `root`; not those that have a text which is not read back from between the quotes or braces that the
/// writer puts around it.
bool ContentOf(InnerData& root, std::string& bytes) {
    for (RecordData* record : root.records) {
        for (const Data* text : {record->children[0].second, record->Value()->children[7].second}) {
            const std::string& scalar = static_cast<const StringData*>(text)->scalar;
            Root alone;
            const int status = Parse("record {key: \"" + scalar + "\"\n}", alone);
            if (status != STATUS_OK || alone.records.size() != 1 || KeyOf(*alone.records[0]) != scalar) return false;
        }
        AppendContent(*record, bytes);
    }
    for (RecordDataPrune* prune : root.pruneRecords) {
        Root alone;
        if (Parse(prune->Dump(), alone) != STATUS_OK || alone.Dump() != prune->Dump()) return false;
        bytes += "prune " + prune->content;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Root first, second;
    std::string firstContent, secondContent;
    if (Parse({reinterpret_cast<const char*>(data), size}, first) != STATUS_OK) return 0;
    if (!ContentOf(first, firstContent)) return 0;
    const std::string text = first.Dump();
    Require(Parse(text, second) == STATUS_OK, "what the writer writes can be parsed");
    Require(ContentOf(second, secondContent) && firstContent == secondContent, "the second tree is the first");
    Require(second.Dump() == text, "writing is idempotent");
    return 0;
}
