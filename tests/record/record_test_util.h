#ifndef KEST_TESTS_RECORD_RECORD_TEST_UTIL_H_
#define KEST_TESTS_RECORD_RECORD_TEST_UTIL_H_

#include <kest/record/proto_simulator/record_writer.h>
#include <kest/record/record_update.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <tests/record/parse.h>
#include <tests/test_util.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <locale>
#include <sstream>

/// A directory of the test's own that every user may write to; goes with the object.
class TempDir {
public:
    explicit TempDir(const std::filesystem::path& parent = std::filesystem::temp_directory_path())
        : path_(parent / "kest-XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr || chmod(path_.c_str(), 0777) != 0) std::abort();
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    const std::string& Path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    long NumFiles() const { return std::distance(std::filesystem::directory_iterator(path_), {}); }

private:
    std::string path_;
};

inline std::string ReadText(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}
inline void WriteText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline std::vector<std::string> Words(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

/// The words of a text with one blank between them, which makes a record fit on a line.
inline std::string Flat(const std::string& text) {
    std::string flat;
    for (const std::string& word : Words(text)) flat += (flat.empty() ? "" : " ") + word;
    return flat;
}

/// The entry of a layer, as it is written.
inline std::string Record(const std::string& layer, const std::string& lines) {
    return "record {\n  key: \"" + layer + "\"\n  value {\n" + lines + "  }\n}\n";
}

const float kFloats[] = {0.5f, 2};
const int kInts[] = {-1, 7};
const std::function<int(const std::string& layer, const std::string& file)> kUpdates[] = {
    [](auto&... names) { return KestTfOp::WriteDataToRecordFile(kFloats, kInts, names..., "INT8"); },
    [](auto&... names) { return KestTfOp::WriteDataToRecordFile(kFloats, kInts, names..., "hide"); },
    [](auto&... names) { return KestTfOp::WriteWeightToRecordFile(kFloats, kInts, 1, names...); },
    [](auto&... names) { return KestTfOp::WriteNuqRecordToFile(kFloats + 1, kInts + 1, kInts, 1, 2, names...); },
    [](auto&... names) { return KestTfOp::WriteShiftNToRecordFile(kInts, 2, names...); },
    [](auto&... names) { return KestTfOp::WriteTensorBalanceFactorToRecordFile(kFloats, 2, names...); },
    [](auto&... names) { return KestTfOp::WriteShiftNToRecordFile(kInts, -1, names...); }};

/// For what some callers pass: the address of a character pointer in place of a string.
inline const std::string& AsString(const char* const& text) {
    return reinterpret_cast<const std::string&>(text);
}

/// Runs `body` in a process of its own.
inline pid_t Start(const std::function<void()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        body();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    return child;
}
inline int End(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

/// While it lives, the C++ and, where there is one, the C locale write numbers like 1.234,5.
class CommaLocale {
public:
    CommaLocale() {
        if (std::setlocale(LC_ALL, "de_DE.UTF-8") == nullptr) std::setlocale(LC_ALL, "fr_FR.UTF-8");
    }
    ~CommaLocale() { std::locale::global(before_); }  // the C locale as well

private:
    struct Comma : std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before_ = std::locale::global(std::locale(std::locale::classic(), new Comma));
};

inline long NumOpenFiles() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

/// 1 while no update runs.
inline int SemaphoreCount() {
    int count = -1;
    sem_getvalue(&KestTfOp::Initializer::GetInstance().semaphore, &count);
    return count;
}

#endif  // KEST_TESTS_RECORD_RECORD_TEST_UTIL_H_
