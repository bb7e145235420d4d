#include <kest/kernel_frame/log_sink.h>
#include <kest/record/direct_writer.h>
#include <tests/faults/shim.h>
#include <tests/record/record_test_util.h>

#include <climits>
#include <map>
#include <set>
#include <utility>

// One call or allocation after the other fails in each operation on record files, once and from then on, until the
// operation makes no further one.

namespace {

/// By the call that fails, "" for the others: all that an operation may return and print.
using Promises = std::map<std::string, std::set<std::string>>;

/// What an operation works on. Strings that it takes by value are moved, so that all allocations in it are its own.
struct Arguments {
    std::string path, layer, field;
    int fd;
    std::string content;
    unsigned char* Bytes() { return reinterpret_cast<unsigned char*>(content.data()); }
};

enum class Kind { kReplaces, kReads, kCreates, kEditsInPlace };

struct Operation {
    std::string name;
    Promises promises;
    std::function<int(Arguments&)> run;
    Kind kind = Kind::kReplaces;
};

const std::string kField = "tensor_balance_factor", kFactor = "    " + kField + ": 1\n";
const std::string kOld = Record("conv1", kFactor + kFactor + kFactor + "    scale_d: +1.5\n    scale_w: 1\n") +
                         "prune_record { x }\n" + std::string(300, '\n');
const std::string kNone = "no file";

/// Of the direct writer by path and by descriptor.
Promises OfWriter(const std::string& writer, const std::string& kernel, const std::string& what,
                  const std::string& layer = "conv1") {
    const auto file = [&](const char* text) { return "-65529 [ERROR][" + writer + "] " + text + ".\n"; };
    const auto kernelFails = [&](const char* to) {
        return "-65528 [ERROR][" + kernel + "] Failed to " + to + ".[ERROR][" + writer + "] Write " + what + " to \"" +
               layer + "\" failed.\n";
    };
    const std::string noWrite = kernelFails("write file");
    return {{"realpath", {file("Invalid record file path")}},
            {"openat", {file("Failed to open file"), noWrite}},
            {"fstat", {file("Failed to stat file"), noWrite}},
            {"read", {file("Failed to read file"), noWrite}},
            {"close", {file("Failed to close file"), noWrite}},
            {"new", {"-65528 [ERROR][" + writer + "] Failed to allocate memory.", kernelFails("allocate memory")}},
            {"", {noWrite}}};
}
Promises OfKernel(const std::string& kernel, const std::string& position) {
    const std::string start = "-65528 [ERROR][" + kernel + "] Failed to ", offset = position.empty() ? "." : " offset.";
    return {{"lseek", {start + position + "read file" + offset, start + position + "write file" + offset}},
            {"read", {start + "read file."}},
            {"new", {start + "allocate memory."}},
            {"", {start + "write file."}}};
}

std::vector<Operation> Operations() {
    const Promises ofUpdate = {{"realpath", {"5 "}}, {"new", {"13 ", "bad_alloc"}}, {"", {"6 "}}};
    const Promises ofWrite = {{"new", {"bad_alloc"}}, {"", {"6 "}}};
    const Promises ofScale = OfWriter("RecordScaleOffsetKernel", "RecordScaleOffsetData", "scale_d and offset_d");
    const Promises ofValues = OfWriter("RecordRepeatData", "RecordRepeatDataKernel", kField);
    Promises ofNoLayer = OfWriter("RecordScaleOffsetKernel", "RecordScaleOffsetData", "scale_d and offset_d", "x");
    ofNoLayer["close"] = {
        "-65529 [ERROR][RecordScaleOffsetData] Cannot find \"x\" in record file.\n"
        "[ERROR][RecordScaleOffsetKernel] Failed to close file.\n"};
    static Root root;
    root.AddRecord()->SetKey("conv1");
    const auto write = [](auto& a) { return kest_tf::WriteToRecordFile(root, a.path); };
    const auto parse = [](auto& a) {
        Root parsed;
        const int status = kest_tf::ParseRecordFile(a.path, parsed);
        const std::size_t size = parsed.records.size() + parsed.pruneRecords.size();
        return status == STATUS_OK ? (size == 2 ? 0 : 99) : status != RECORD_DATA_ERROR && size != 0 ? 98 : status;
    };
    const util::QuantizeFactor<int> scale{0.5f, -3, {}, "data", 10}, factors{0, 0, {1, 2}, kField, 0};
    const util::QuantizeFactor<float> noFactors{0, 0, {}, kField, 0};
    const auto repeat = [](const auto& values) {
        return [=](auto& a) {
            return util::RecordRepeatData(std::move(a.path), std::move(a.layer), values, std::move(a.field));
        };
    };
    const auto fromAddresses = [](auto& a) {
        const char *const path = a.path.c_str(), *const layer = a.layer.c_str();
        float value = 1;
        int offset = 2;
        return RecordScaleOffsetWeight(AsString(path), AsString(layer), {1, &value}, {1, &offset});
    };
    std::vector<Operation> all = {
        {"parse", ofUpdate, parse, Kind::kReads},
        {"write", ofWrite, write},
        {"write a new file", ofWrite, write, Kind::kCreates},
        {"insert a scale", ofScale, [=](auto& a) { return util::RecordScaleOffsetKernel(a.path, a.layer, scale); }},
        {"insert a scale, plain", ofScale, fromAddresses},
        {"insert into no layer", ofNoLayer, [=](auto& a) { return util::RecordScaleOffsetKernel(a.path, "x", scale); }},
        {"fewer factors", ofValues, repeat(std::vector<int>{7})},
        {"more factors", ofValues, repeat(std::vector<float>{1, 2, 3, 4})},
        {"insert a scale in place", OfKernel("RecordScaleOffsetData", ""),
         [=](auto& a) { return util::RecordScaleOffsetData(a.fd, a.Bytes(), a.content.size(), "conv1", scale); },
         Kind::kEditsInPlace},
        {"fewer factors in place", OfKernel("RecordRepeatDataKernel", "reposition "),
         [=](auto& a) { return util::RecordRepeatDataKernel(a.fd, a.Bytes(), a.content.size(), "conv1", factors); },
         Kind::kEditsInPlace},
        {"no factors in place", OfKernel("RecordRepeatDataKernel", "reposition "),
         [=](auto& a) { return util::RecordRepeatDataKernel(a.fd, a.Bytes(), a.content.size(), "conv1", noFactors); },
         Kind::kEditsInPlace}};
    for (const std::string layer : {"conv1", "a_new_layer_whose_name_no_string_holds_without_an_allocation"}) {
        for (const auto& update : kUpdates)
            all.push_back({"update " + std::to_string(&update - kUpdates) + " of " + layer, ofUpdate,
                           [=](auto& a) { return update(layer, a.path); }});
    }
    return all;
}

char printed[4096];

/// Keeps a line, without the number of its source line.
void Print(const char* line) {
    const char* number = std::strchr(std::strchr(line, ']') + 1, ']') + 1;
    std::strncat(printed, line, static_cast<std::size_t>(number - line));
    std::strcat(printed, std::strchr(number, ']') + 1);
}

constexpr long kEver = -1;

// Failures that never show, since the library tries again, and those that it has another way around.
const std::set<int> kHidden = {EINTR, EEXIST}, kAvoided = {EACCES, EROFS, EPERM, EBUSY, EINVAL};

/// The calls, the first of them that any other failure of fails the operation, and how they fail.
constexpr int kNever = INT_MAX;
constexpr struct Call {
    const char* name;
    int vital;
    int errors[7];
} kCalls[] = {{"sem_wait", 0, {EINTR}},
              {"openat", 0, {EIO, EMFILE, EINTR}},
              {"create", 0, {EIO, ENOSPC, EACCES, EROFS, EINTR, EEXIST}},
              {"flock", kNever, {ENOLCK, EOPNOTSUPP, EINTR}},
              {"realpath", 0, {EIO, ENOMEM}},
              {"readlink", 0, {EIO, ENOMEM}},
              {"stat", 0, {EIO}},
              {"fstat", kNever, {EIO}},
              {"faccessat", 0, {EIO}},
              {"read", 0, {EIO, EINTR}},
              {"write", 0, {EIO, ENOSPC, EINTR}},
              {"lseek", 0, {EIO}},
              {"ftruncate", 0, {EIO, EINTR}},
              {"fchown", 0, {EIO, EPERM, EINVAL}},
              {"fchmod", 0, {EIO}},
              {"fsync", 0, {EIO, ENOSPC, EINTR}},
              {"close", kNever, {EIO, EINTR}},
              {"close written", 0, {EIO, EINTR}},
              {"renameat", 0, {EIO, ENOSPC, EPERM, EBUSY}},
              {"unlinkat", 0, {EIO}},
              {"new", 0, {ENOMEM}}};

/// Walks over the calls of operations on a record file behind a symbolic link.
class Walk {
public:
    Walk() {
        std::filesystem::create_symlink("record.txt", link_);
        faults[2] = {"write", kShort, kEver};
        faults[3] = {"read", kShort, kEver};
    }

    void Over(const Operation& operation) {
        operation_ = &operation;
        old_ = operation.kind == Kind::kCreates ? kNone : kOld;
        faults[1] = {};
        Step({});  // what is allocated once and stays
        success_ = Step({});
        edited_ = Content();
        const bool isInPlace = operation.kind == Kind::kEditsInPlace;
        OverCalls({}, isInPlace);
        if (isInPlace || operation.kind == Kind::kReads) return;
        OverCalls({"create", EACCES, kEver}, true);
        OverCalls({"renameat", EIO, kEver}, false);  // never done, but cleaned up
    }

    std::map<std::string, long> numFailed;  // by call

private:
    std::string Content() const { return std::filesystem::exists(file_) ? ReadText(file_) : kNone; }

    /// Runs the operation. What it returns and prints, or "bad_alloc".
    std::string Step(const Fault& fault) {
        if (old_ == kNone) {
            std::filesystem::remove(file_);
        } else {
            if (Content() != old_) WriteText(file_, old_);
            isRoot_ = chown(file_.c_str(), 1234, 2345) == 0;
            chmod(file_.c_str(), 01640);
        }
        const int fd = open(link_.c_str(), O_RDWR);
        const std::size_t bytesBefore = liveBytes;
        int status = 0;
        bool isThrown = false;
        printed[0] = '\0';
        {
            Arguments arguments{link_, "conv1", kField, fd, kOld};
            faults[0] = fault;
            isUnsynced = false;
            try {
                status = operation_->run(arguments);
            } catch (const std::bad_alloc&) {
                isThrown = true;
            }
            hasFailed_ = std::exchange(faults[0], {}).fired > 0;
        }
        close(fd);
        if (liveBytes != bytesBefore || NumOpenFiles() != numOpen_ || SemaphoreCount() != 1) {
            ADD_FAILURE() << operation_->name << ": " << fault.call << " " << fault.before
                          << ": memory leaks, a descriptor is open or the semaphore held";
            std::exit(1);  // the next one would wait for ever
        }
        return isThrown ? "bad_alloc" : std::to_string(status) + " " + printed;
    }

    /// `stays` fails all the time. Of a file written in place, the old bytes cannot be put back if writing never works
    /// again.
    void OverCalls(const Fault& stays, bool isInPlace) {
        const std::set<std::string> writing = {"write", "lseek", "ftruncate"};
        faults[1] = stays;
        usual_ = Step({});
        for (const Call& call : kCalls) {
            const bool mayEverFail = !isInPlace || writing.count(call.name) == 0;
            for (const int* error = call.errors; *error != 0; ++error) {
                const bool isHidden = kHidden.count(*error) == 1;
                OverCall(call, {call.name, *error, isHidden ? 3 : 1});
                if (mayEverFail && !isHidden) OverCall(call, {call.name, *error, kEver});
            }
        }
    }

    void OverCall(const Call& call, Fault fault) {
        for (;; ++fault.before) {
            const std::string outcome = Step(fault);
            if (!hasFailed_ || testing::Test::HasFailure()) break;
            ++numFailed[call.name];
            SCOPED_TRACE(testing::Message()
                         << operation_->name << ": " << call.name << " " << fault.before << " fails with "
                         << fault.error << ", times: " << fault.times << ", all the time: " << faults[1].call);
            const bool isDone = outcome[0] == '0', isAvoided = kAvoided.count(fault.error) == 1;
            const auto promise = operation_->promises.find(call.name), others = operation_->promises.find("");
            EXPECT_TRUE(outcome == (isDone ? success_ : usual_) ||
                        (promise != operation_->promises.end() ? promise : others)->second.count(outcome) == 1)
                << outcome;
            if (kHidden.count(fault.error) == 1 || (isAvoided && usual_[0] == '0' && old_ != kNone)) {
                EXPECT_EQ(usual_, outcome);
            } else if (!isAvoided && fault.before >= call.vital) {
                EXPECT_FALSE(isDone);
            }
            EXPECT_FALSE(isDone && isUnsynced && operation_->kind != Kind::kEditsInPlace);
            ExpectWhole(isDone ? edited_ : old_, call.name);
            EXPECT_EQ(usual_, Step({})) << "the next one";
        }
    }

    void ExpectWhole(const std::string& content, const std::string& call) {
        EXPECT_EQ(content, Content());
        EXPECT_TRUE(std::filesystem::is_symlink(link_));
        struct stat status = {};
        const bool exists = stat(file_.c_str(), &status) == 0;
        EXPECT_TRUE(old_ == kNone ||
                    ((status.st_mode & 07777) == 01640 && (!isRoot_ || status.st_uid == 1234 || call == "fchown")));
        for (const auto& entry : std::filesystem::directory_iterator(directory_.Path())) {
            if (call == "unlinkat" && entry.path().extension() == ".tmp") std::filesystem::remove(entry);
        }
        EXPECT_EQ(exists ? 2 : 1, directory_.NumFiles());
    }

    // In memory, if there is such a file system: a disk takes its time for each renaming.
    TempDir directory_{std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path()};
    const long numOpen_ = NumOpenFiles();
    const std::string file_ = directory_ / "record.txt", link_ = directory_ / "link";
    const Operation* operation_ = nullptr;
    std::string old_, edited_, success_, usual_;
    bool hasFailed_ = false, isRoot_ = false;
};

TEST(Faults, Walk) {
    const util::LogSink sink = util::SetLogSink(Print);
    Walk walk;
    for (const Operation& operation : Operations()) walk.Over(operation);
    util::SetLogSink(sink);
    long sum = 0;
    for (const Call& call : kCalls) {
        EXPECT_TRUE(walk.numFailed[call.name] > 0 || HasFailure()) << call.name << " never failed";
        sum += walk.numFailed[call.name];
    }
    std::printf("%ld fault points\n", sum);
}

TEST(Faults, ClosingAPipe) {
    TempDir directory;
    const std::string pipe = directory / "pipe";
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    const int reader = open(pipe.c_str(), O_RDWR);
    faults[0] = {"close written", EIO, 1};
    Root root;
    EXPECT_EQ(RECORD_OPEN_ERROR, kest_tf::WriteToRecordFile(root, pipe));
    EXPECT_EQ(1, std::exchange(faults[0], {}).fired);
    close(reader);
}

}  // namespace
