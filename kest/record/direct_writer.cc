#include <kest/record/direct_writer.h>

#include <kest/kernel_frame/log.h>
#include <kest/kernel_frame/numeric_helpers.h>
#include <kest/record/proto_simulator/file_io.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace util {

template struct KEST_EXPORT QuantizeFactor<int>;  // before its first use, or its visibility is settled

namespace {

constexpr std::size_t kMaxFileSize = INT_MAX;  // bytes

/// The text of a number as a stream in the classic locale writes it.
std::string NumberText(float value, int precision) {
    char text[64];
    return {
        text,
        std::to_chars(text, text + sizeof text, static_cast<double>(value), std::chars_format::general, precision).ptr};
}

std::string ValueText(int value) {
    return std::to_string(value);
}

std::string ValueText(float value) {
    constexpr std::size_t kWidth = 16;
    const std::string text = NumberText(value, 6);
    return std::string(kWidth - std::min(kWidth, text.size()), ' ') + text;
}

template <typename T>
std::string ScaleOffsetLines(const QuantizeFactor<T>& factor) {
    const std::string suffix = factor.name == "data" ? "_d: " : "_w: ";
    std::string lines = "    scale" + suffix + NumberText(factor.scale, 10) + "\n    offset" + suffix +
                        std::to_string(factor.offset) + "\n";
    if (factor.dataType != 0) lines += "    op_data_type: '" + OnnxTypeToString(factor.dataType) + "'\n";
    return lines;
}

template <typename T>
std::string ValueLines(const QuantizeFactor<T>& factor) {
    std::string lines;
    for (const T& value : factor.values) lines += "    " + factor.name + ": " + ValueText(value) + "\n";
    return lines;
}

/// The opening of a value block: new lines, then what stays of the text behind it.
struct Edit {
    std::size_t at;  // where the block's text begins in the file
    std::string lines;
    bool replacesList;  // the block begins with balance factors and they are what is written: the old ones go
};

constexpr std::string_view kBalanceFactor = "tensor_balance_factor";

/// False if no record of the layer opens in `content`.
bool FindBlock(std::string_view content, const char* layerName, Edit& edit) {
    const std::string_view text = content.substr(0, content.find('\0'));
    const std::string header = "key: \"" + std::string(layerName) + "\"\n  value {\n";
    const std::size_t found = text.find(header);
    if (found == std::string_view::npos) return false;
    edit.at = found + header.size();
    const std::string_view block = text.substr(edit.at);
    edit.replacesList = block.substr(0, 4) == "    " && block.substr(4, kBalanceFactor.size()) == kBalanceFactor;
    return true;
}

/// Appends to `text` the bytes that follow edit.at once the edit is made, of those that do, `tail`, now. Where the list
/// is replaced these are all but the balance factors of the value block that `tail` begins in; lines that hold nothing
/// else go with them.
void AppendTail(const Edit& edit, std::string_view tail, std::string& text) {
    constexpr const char* kBlanks = " \t\n\r";
    const auto orEnd = [&](std::size_t position) { return std::min(position, tail.size()); };
    std::size_t copied = 0;
    std::size_t at = edit.replacesList ? orEnd(tail.find_first_not_of(kBlanks)) : tail.size();
    while (at < tail.size() && tail[at] != '}') {
        const std::size_t nameEnd = orEnd(tail.find_first_of(" \t\n\r:{", at));
        const std::size_t colon = orEnd(tail.find(':', nameEnd));
        const std::size_t end = orEnd(tail.find_first_of(kBlanks, tail.find_first_not_of(kBlanks, colon + 1)));
        if (tail.substr(at, nameEnd - at) == kBalanceFactor) {
            std::size_t line = at;
            while (line > 0 && tail[line - 1] == ' ') --line;
            const bool isAlone = (line == 0 || tail[line - 1] == '\n') && end < tail.size() && tail[end] == '\n';
            text.append(tail, copied, (isAlone ? line : at) - copied);
            copied = isAlone ? end + 1 : end;
        }
        at = orEnd(tail.find_first_not_of(kBlanks, end));
    }
    text.append(tail, copied);
}

bool Position(int fd, std::size_t at) {
    return lseek(fd, static_cast<off_t>(at), SEEK_SET) >= 0;
}

/// Reads exactly `size` bytes.
bool ReadAll(int fd, char* bytes, std::size_t size) {
    while (size > 0) {
        const ssize_t count = read(fd, bytes, size);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        bytes += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

enum class Step { kDone, kReadPosition, kRead, kWritePosition, kWrite };

/// Makes the edit in an open file of `size` bytes. After a failed write the old bytes and the old length are put back.
Step EditInPlace(int fd, std::size_t size, const Edit& edit) {
    std::string tail(size - edit.at, '\0');
    if (!Position(fd, edit.at)) return Step::kReadPosition;
    if (!ReadAll(fd, tail.data(), tail.size())) return Step::kRead;
    std::string newTail;
    AppendTail(edit, tail, newTail);
    if ((fcntl(fd, F_GETFL) & O_APPEND) != 0) return Step::kWrite;  // each write would go to the end
    struct stat old;
    const bool hasLength = fstat(fd, &old) == 0 && S_ISREG(old.st_mode);

    const std::size_t moved = edit.at + edit.lines.size();
    if (!Position(fd, moved)) return Step::kWritePosition;
    Step failed = Step::kDone;
    if (!kest_tf::WriteAll(fd, newTail)) {
        failed = Step::kWrite;
    } else if (!Position(fd, edit.at)) {
        failed = Step::kWritePosition;
    } else if (!kest_tf::WriteAll(fd, edit.lines)) {
        failed = Step::kWrite;
    } else if (moved + newTail.size() < size && !kest_tf::Truncate(fd, moved + newTail.size())) {
        failed = Step::kWrite;
    }
    if (failed != Step::kDone && hasLength) {
        if (Position(fd, edit.at)) kest_tf::WriteAll(fd, tail);
        kest_tf::Truncate(fd, static_cast<std::size_t>(old.st_size));
    }
    return failed;
}

/// One of the two writers: the functions that its log lines name, and what it writes.
struct Writer {
    const char* function;
    const char* kernel;
    bool writesValues;
};
constexpr Writer kScaleOffsetWriter{"RecordScaleOffsetKernel", "RecordScaleOffsetData", false};
constexpr Writer kValueWriter{"RecordRepeatData", "RecordRepeatDataKernel", true};

int Fail(const char* function, int line, int status, const char* message) {
    Log("ERROR", function, line, "%s", message);
    return status;
}

template <typename T>
int PlanEdit(const Writer& writer, std::string_view content, const char* layerName, const QuantizeFactor<T>& factor,
             Edit& edit) {
    edit.lines = writer.writesValues ? ValueLines(factor) : ScaleOffsetLines(factor);
    if (content.size() > kMaxFileSize || edit.lines.size() > kMaxFileSize - content.size()) {
        return Fail(writer.kernel, __LINE__, STATUS_FILE_ERROR,
                    "record file is too large: it must stay below 2 GiB.\n");
    }
    if (!FindBlock(content, layerName, edit)) {
        Log("ERROR", writer.kernel, __LINE__, "Cannot find \"%s\" in record file.\n", layerName);
        return STATUS_RUNTIME_ERROR;
    }
    edit.replacesList = edit.replacesList && writer.writesValues && factor.name == kBalanceFactor;
    return STATUS_OK;
}

/// Plans the edit and has `apply` make it.
template <typename T, typename Apply>
int PlanAndApply(const Writer& writer, std::string_view content, const char* layerName, const QuantizeFactor<T>& factor,
                 Apply apply) try {
    Edit edit{};
    const int status = PlanEdit(writer, content, layerName, factor, edit);
    if (status != STATUS_OK) return status;
    const char* failure = apply(edit);
    return failure == nullptr ? STATUS_OK : Fail(writer.kernel, __LINE__, STATUS_RUNTIME_ERROR, failure);
} catch (const std::bad_alloc&) {
    return Fail(writer.kernel, __LINE__, STATUS_RUNTIME_ERROR, "Failed to allocate memory.");
}

template <typename T>
int EditOpenFile(const Writer& writer, int fd, const unsigned char* content, std::size_t size, const char* layerName,
                 const QuantizeFactor<T>& factor) {
    const std::string_view text(reinterpret_cast<const char*>(content), size);
    return PlanAndApply(writer, text, layerName, factor, [&](const Edit& edit) -> const char* {
        switch (EditInPlace(fd, size, edit)) {
            case Step::kReadPosition:
                if (writer.writesValues) return "Failed to reposition read file offset.";
                [[fallthrough]];
            case Step::kRead:
                return "Failed to read file.";
            case Step::kWritePosition:
                if (writer.writesValues) return "Failed to reposition write file offset.";
                [[fallthrough]];
            case Step::kWrite:
                return "Failed to write file.";
            case Step::kDone:
                break;
        }
        return nullptr;
    });
}

/// What both writers do with the file at a path.
template <typename T>
int EditFileAt(const Writer& writer, const std::string& recordFile, const char* layerName,
               const QuantizeFactor<T>& factor) {
    const auto fail = [&](int line, int status, const char* message) {
        return Fail(writer.function, line, status, message);
    };
    constexpr std::size_t kMaxPath = 4096;
    const kest_tf::DirectoryLock lock(recordFile.c_str());
    if (recordFile.size() > kMaxPath || lock.Status() == RECORD_PATH_ERROR)
        return fail(__LINE__, STATUS_FILE_ERROR, "Invalid record file path.\n");
    const char* const path = lock.Path();
    kest_tf::File file(AT_FDCWD, path, O_RDWR);
    if (lock.Status() != STATUS_OK || !file.IsOpen())
        return fail(__LINE__, STATUS_FILE_ERROR, "Failed to open file.\n");
    struct stat status;
    if (fstat(file.Get(), &status) != 0) return fail(__LINE__, STATUS_FILE_ERROR, "Failed to stat file.\n");
    const auto size = static_cast<std::size_t>(status.st_size);
    if (size > kMaxFileSize) {
        Log("ERROR", writer.function, __LINE__, "file(%s) is too large: it must stay below 2 GiB.\n",
            recordFile.c_str());
        return STATUS_FILE_ERROR;
    }
    if (size == 0 && !writer.writesValues) {
        Log("ERROR", writer.function, __LINE__, "file(%s) size is zero.\n", recordFile.c_str());
        return STATUS_FILE_ERROR;
    }
    const std::unique_ptr<char[]> content(new (std::nothrow) char[size + 1]);
    if (content == nullptr) return fail(__LINE__, STATUS_RUNTIME_ERROR, "Failed to allocate memory.");
    if (!ReadAll(file.Get(), content.get(), size)) return fail(__LINE__, STATUS_FILE_ERROR, "Failed to read file.\n");

    const std::string_view text(content.get(), size);
    bool isClosed = true;
    const int outcome = PlanAndApply(writer, text, layerName, factor, [&](const Edit& edit) -> const char* {
        std::string edited;
        edited.reserve(size + edit.lines.size());
        edited.append(text, 0, edit.at).append(edit.lines);
        AppendTail(edit, text.substr(edit.at), edited);
        isClosed = file.Close();  // before the new file takes the old one's place: no failure comes after that
        return !isClosed || kest_tf::ReplaceFile(path, edited) == STATUS_OK ? nullptr : "Failed to write file.";
    });
    if (file.IsOpen()) isClosed = file.Close();
    if (!isClosed) return fail(__LINE__, STATUS_FILE_ERROR, "Failed to close file.\n");
    const bool isDone = outcome == STATUS_OK;
    Log(isDone ? "INFO" : "ERROR", writer.function, __LINE__, "Write %s to \"%s\" %s.\n",
        writer.writesValues ? factor.name.c_str() : "scale_d and offset_d", layerName, isDone ? "success" : "failed");
    return outcome;
}

/// A string of a caller who may have put the address of a character pointer in its place.
std::string TextOf(const std::string& text) {
    const char* characters = text.c_str();
    return characters == nullptr ? std::string() : std::string(characters);
}

/// RecordScaleOffsetKernel for strings read by TextOf.
int WriteScaleOffset(const std::string& recordFile, const std::string& layerName,
                     const QuantizeFactor<int>& factor) try {
    return RecordScaleOffsetKernel(TextOf(recordFile), TextOf(layerName), factor);
} catch (const std::bad_alloc&) {
    return Fail(kScaleOffsetWriter.function, __LINE__, STATUS_RUNTIME_ERROR, "Failed to allocate memory.");
}

}  // namespace

template <typename T>
int RecordScaleOffsetKernel(const std::string& recordFile, const std::string& layerName,
                            const QuantizeFactor<T>& factor) {
    return EditFileAt(kScaleOffsetWriter, recordFile, layerName.c_str(), factor);
}

template <typename T>
int RecordRepeatData(std::string recordFile, std::string layerName, const std::vector<T>& values,
                     std::string name) try {
    const QuantizeFactor<T> factor{0, 0, values, std::move(name), 0};
    return EditFileAt(kValueWriter, recordFile, layerName.c_str(), factor);
} catch (const std::bad_alloc&) {
    return Fail(kValueWriter.function, __LINE__, STATUS_RUNTIME_ERROR, "Failed to allocate memory.");
}

template <typename T>
int RecordScaleOffsetData(int fd, unsigned char* content, unsigned long size, const char* layerName,
                          const QuantizeFactor<T>& factor) {
    return EditOpenFile(kScaleOffsetWriter, fd, content, size, layerName, factor);
}

template <typename T>
int RecordRepeatDataKernel(int fd, const unsigned char* content, unsigned long size, const char* layerName,
                           const QuantizeFactor<T>& factor) {
    return EditOpenFile(kValueWriter, fd, content, size, layerName, factor);
}

template KEST_EXPORT int RecordScaleOffsetKernel(const std::string&, const std::string&, const QuantizeFactor<int>&);
template KEST_EXPORT int RecordScaleOffsetData(int, unsigned char*, unsigned long, const char*,
                                               const QuantizeFactor<int>&);
#define INSTANTIATE(T)                                                                                       \
    template KEST_EXPORT int RecordRepeatData(std::string, std::string, const std::vector<T>&, std::string); \
    template KEST_EXPORT int RecordRepeatDataKernel(int, const unsigned char*, unsigned long, const char*,   \
                                                    const QuantizeFactor<T>&)
INSTANTIATE(int);
INSTANTIATE(float);
#undef INSTANTIATE

}  // namespace util

int RecordScaleOffset(const std::string& recordFile, const std::string& layerName, const util::FloatData& scale,
                      const util::IntData& offset, int dataType) {
    const util::QuantizeFactor<int> factor{scale.data[0], offset.data[0], {}, "data", dataType};
    return util::WriteScaleOffset(recordFile, layerName, factor);
}

int RecordScaleOffsetWeight(const std::string& recordFile, const std::string& layerName, const util::FloatData& scale,
                            const util::IntData& offset) {
    const util::QuantizeFactor<int> factor{scale.data[0], offset.data[0], {}, "weight", 0};
    return util::WriteScaleOffset(recordFile, layerName, factor);
}
