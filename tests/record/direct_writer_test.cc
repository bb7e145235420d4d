#include <fcntl.h>
#include <kest/record/direct_writer.h>
#include <sys/resource.h>
#include <tests/record/record_test_util.h>

#include <csignal>

namespace {

const std::string kHead = "record {\n  key: \"conv1\"\n  value {\n", kRest = "    offset_d: 1\n  }\n}\n";
const std::string kFactor = "    tensor_balance_factor: ", kNone = "[ERROR]K: Cannot find \"conv1\" in record file.\n";
const std::string kNoRead = "[ERROR]K: Failed to read file.", kNoWrite = "[ERROR]K: Failed to write file.";

/// One edit of conv1, at both levels, and what stands for its names in the log.
struct Edit {
    std::function<int(const std::string& path)> path;
    std::function<int(int fd, unsigned char* content, std::size_t size)> descriptor;
    std::vector<std::pair<std::string, std::string>> masks;
};
Edit Scale(float scale, int offset, const char* name = "data", int dataType = 0) {
    const util::QuantizeFactor<int> factor{scale, offset, {}, name, dataType};
    return {
        [=](auto& path) { return util::RecordScaleOffsetKernel(path, "conv1", factor); },
        [=](auto... file) { return util::RecordScaleOffsetData(file..., "conv1", factor); },
        {{"[RecordScaleOffsetKernel][]", "P:"}, {"[RecordScaleOffsetData][]", "K:"}, {"scale_d and offset_d", "F"}}};
}
template <typename T>
Edit Repeat(std::vector<T> values, const char* name = "tensor_balance_factor") {
    const util::QuantizeFactor<T> factor{0, 0, values, name, 0};
    return {[=](auto& path) { return util::RecordRepeatData(path, "conv1", values, name); },
            [=](auto... file) { return util::RecordRepeatDataKernel(file..., "conv1", factor); },
            {{"[RecordRepeatData][]", "P:"}, {"[RecordRepeatDataKernel][]", "K:"}, {name, "F"}}};
}

constexpr int kByPath = -1;
struct Conditions {
    int flags;              // of the descriptor, or kByPath
    std::string path = "";  // of another file
    std::size_t more = 0;   // zeros at the end of the file, which an open one lacks
    rlim_t maxSize = RLIM_INFINITY;
};

/// Expects a status and a log, names masked. Returns the bytes of the file.
std::string Apply(const Edit& edit, std::string bytes, const Conditions& at, int status, const std::string& log) {
    TempDir directory;
    const std::string file = directory / "file", path = at.path.empty() ? file : at.path;
    WriteText(file, bytes);
    if (at.flags == kByPath) std::filesystem::resize_file(file, bytes.size() + at.more);
    const int fd = open(path.c_str(), at.flags == kByPath ? O_PATH : at.flags);
    std::string printed = LogOf([&] {
        const rlimit limit = {at.maxSize, RLIM_INFINITY}, none = {RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &limit);
        auto* content = reinterpret_cast<unsigned char*>(bytes.data());
        EXPECT_EQ(status, at.flags == kByPath ? edit.path(path) : edit.descriptor(fd, content, bytes.size() + at.more));
        setrlimit(RLIMIT_FSIZE, &none);
    });
    for (const auto& [name, mask] : edit.masks) KestTfOp::ConvertLayerName(printed, name, mask);
    KestTfOp::ConvertLayerName(printed, file, "FILE");
    EXPECT_EQ(log, printed);
    close(fd);
    if (at.more > 0) std::filesystem::resize_file(file, bytes.size());
    return ReadText(file);
}
/// At both levels; `error` is what the kernel prints.
void ExpectEdit(const Edit& edit, const std::string& old, const std::string& edited, const std::string& error = "") {
    const int status = error.empty() ? STATUS_OK : STATUS_RUNTIME_ERROR;
    const std::string outcome =
        error.empty() ? "[INFO]P: Write F to \"conv1\" success.\n" : "[ERROR]P: Write F to \"conv1\" failed.\n";
    EXPECT_EQ(edited, Apply(edit, old, {kByPath}, status, error + outcome));
    EXPECT_EQ(edited, Apply(edit, old, {O_RDWR}, status, error));
}

TEST(DirectWriter, InsertsLines) {
    const auto expectLines = [](const Edit& edit, const std::string& lines) {
        const CommaLocale comma;
        ExpectEdit(edit, "\n" + kHead + kRest, "\n" + kHead + lines + kRest);
    };
    for (const std::string& text : Words("0.1000000015 3000000000 1e+10 9.999999747e-06 -0 -inf nan"))
        expectLines(Scale(std::strtof(text.c_str(), nullptr), -7, "data", 10),
                    "    scale_d: " + text + "\n    offset_d: -7\n    op_data_type: 'FLOAT16'\n");
    expectLines(Scale(0.5f, 7, "dat", -1), "    scale_w: 0.5\n    offset_w: 7\n    op_data_type: 'FLOAT32'\n");
    expectLines(Repeat<int>({3, -4}, "shift_bit"), "    shift_bit: 3\n    shift_bit: -4\n");
    expectLines(Repeat<float>({0.5f, 999999.5f}, "x"), "    x:              0.5\n    x:            1e+06\n");
}

TEST(DirectWriter, FindsTheFirstRecordToTheByte) {
    const std::string other = "record {\n  key: \"conv10\"\n  value {\n  }\n}\n", nul("\0", 1), record = kHead + kRest;
    const std::string lines = "    scale_d: 2\n    offset_d: 3\n", key = "  key: \"conv1\"\n";
    ExpectEdit(Scale(2, 3), other + record + record, other + kHead + lines + kRest + record);
    ExpectEdit(Scale(2, 3), kHead, kHead + lines);  // nothing to move
    ExpectEdit(Scale(2, 3), kHead + lines + nul + record, kHead + lines + lines + nul + record);
    for (const std::string& old : {other, key + "   value {\n", key + "  value {\r\n", key + "  value {", nul + record})
        for (const Edit& edit : {Scale(2, 3), Repeat<int>({1})}) ExpectEdit(edit, old, old, kNone);
    ExpectEdit(Repeat<int>({1}), "", "", kNone);
    Apply(Scale(2, 3), "", {kByPath}, STATUS_FILE_ERROR, "[ERROR]P: file(FILE) size is zero.\n");
}

TEST(DirectWriter, NewBalanceFactorsReplaceAllOldOnes) {
    const std::string one = kFactor + "1\n", scale = "    scale_d: 0.5\n", type = "    dst_type: \"}x:1\"\n";
    const std::tuple<std::string, std::vector<int>, std::string> rows[] = {
        {one + one, {7}, ""},                                       // shorter
        {one + scale, {1234567}, scale},                            // longer
        {one + scale + one + type + one, {7, 8, 9}, scale + type},  // equal; further down
        {one + scale + "  tensor_balance_factor : 2\n", {}, scale},
        {kFactor + "1 scale_d: 0.5\n", {7}, " " + scale},
        {kFactor + "1\tscale_d: 0.5\n", {7}, "    \tscale_d: 0.5\n"}};
    const std::string other = "record {\n  key: \"x\"\n  value {\n" + scale + one + "  }\n}\n",
                      end = "  }\n}\n" + other;
    const std::string after = end + kHead + one + end;  // with a second record of the layer
    for (const auto& [old, values, rest] : rows) {
        std::string factors;
        for (int value : values) factors += kFactor + std::to_string(value) + "\n";
        ExpectEdit(Repeat(values), other + kHead + old + after, other + kHead + factors + rest + after);
    }
    ExpectEdit(Repeat<int>({1, 2}), kHead + one + "    scale_d: 3 tensor_balance_factor: 4\n" + kRest,
               kHead + one + kFactor + "2\n    scale_d: 3 \n" + kRest);
    ExpectEdit(Repeat<int>({7}), kHead + kFactor + "1", kHead + kFactor + "7\n    ");  // ends the file
    ExpectEdit(Repeat<int>({7}, "x"), kHead + one + kRest, kHead + "    x: 7\n" + one + kRest);
    // They stay where they do not open the block, and where they open only another one of the layer.
    for (const std::string& old : {"  tensor_balance_factor: 1\n" + one, scale + one, scale + "  }\n}\n" + kHead + one})
        ExpectEdit(Repeat<int>({7}), kHead + old + kRest, kHead + kFactor + "7\n" + old + kRest);
}

// A file, and what edits make of it: longer, longer by replacement, shorter.
const std::string kBlank(40, '\n'), kOld = kHead + kFactor + "1\n" + kRest + kBlank;
const std::pair<Edit, std::string> kEdits[] = {
    {Scale(2, 3), kHead + "    scale_d: 2\n    offset_d: 3\n" + kFactor + "1\n" + kRest + kBlank},
    {Repeat<int>({12, 345}), kHead + kFactor + "12\n" + kFactor + "345\n" + kRest + kBlank},
    {Repeat<float>({}), kHead + kRest + kBlank}};

TEST(DirectWriter, RefusesFiles) {
    std::signal(SIGXFSZ, SIG_IGN);
    constexpr std::size_t kLimit = std::size_t{1} << 31;
    const std::string tooLarge = " is too large: it must stay below 2 GiB.\n";
    for (const auto& [edit, edited] : kEdits) {
        const std::size_t more = kLimit - std::max(kOld.size(), edited.size());
        const std::tuple<Conditions, int, std::string> rows[] = {
            {{kByPath, std::string(4097, '/')}, STATUS_FILE_ERROR, "[ERROR]P: Invalid record file path.\n"},
            {{kByPath, "/"}, STATUS_FILE_ERROR, "[ERROR]P: Failed to open file.\n"},
            {{kByPath, "", kLimit - kOld.size()}, STATUS_FILE_ERROR, "[ERROR]P: file(FILE)" + tooLarge},
            {{O_RDWR, "", 0, edited.size() - 1}, STATUS_RUNTIME_ERROR, kNoWrite},
            {{O_RDWR, "", more}, STATUS_FILE_ERROR, "[ERROR]K: record file" + tooLarge},
            {{O_RDWR, "", 1}, STATUS_RUNTIME_ERROR, kNoRead},
            {{O_WRONLY}, STATUS_RUNTIME_ERROR, kNoRead},
            {{O_RDONLY}, STATUS_RUNTIME_ERROR, kNoWrite},
            {{O_RDWR | O_APPEND}, STATUS_RUNTIME_ERROR, kNoWrite},
            {{O_RDWR, "/dev/full"}, STATUS_RUNTIME_ERROR, kNoWrite}};
        for (const auto& [conditions, status, log] : rows) EXPECT_EQ(kOld, Apply(edit, kOld, conditions, status, log));
    }
}

}  // namespace
