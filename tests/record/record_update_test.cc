#include <pthread.h>
#include <tests/record/record_test_util.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <thread>

namespace {

const std::array<float, 3> kFloats = {0.5f, 0.25f, 0.125f};
const std::array<int, 3> kInts = {-1, 7, 0};

int Write(const std::string& layer, const std::string& file) {
    return KestTfOp::WriteDataToRecordFile(kFloats.data(), kInts.data(), layer, file, "INT8");
}

TEST(RecordUpdate, EachOperation) {
    const std::string prune = "prune_record {\n  x: \"{\"\n}\n";
    const std::string other = "record {\n  key: \"other\"\n  value {\n    scale_w: 9\n  }\n}\n";
    const std::string twin = "record {\n  key: \"conv1\"\n  value {\n    scale_d: 8\n  }\n}\n";
    const std::string old =  // every field but dst_type, lists longer than the new ones
        "    scale_d: 1\n    offset_d: 2\n    scale_w: 3\n    scale_w: 3\n    offset_w: 4\n    offset_w: 4\n"
        "    shift_bit: 5\n    shift_bit: 5\n    cluster: 6\n    skip_fusion: true\n    tensor_balance_factor: 7\n";
    const auto fields = [](const std::string& text) {
        return "record {\n  key: \"conv1\"\n  value {\n" + text + "  }\n}\n";
    };
    using Path = const std::string&;
    const struct {
        const char* name;
        std::function<int(Path, Path)> call;
        std::string fresh;                                      // fields of a new record
        std::vector<std::pair<std::string, std::string>> edit;  // of the old record
    } rows[] = {{"data",
                 [](Path layer, Path file) { return Write(layer, file); },
                 "    scale_d: 0.5\n    offset_d: -1\n    dst_type: \"INT8\"\n",
                 {{"scale_d: 1", "scale_d: 0.5"}, {"offset_d: 2", "offset_d: -1"}}},
                {"data, hide",
                 [](Path layer, Path file) {
                     return KestTfOp::WriteDataToRecordFile(kFloats.data(), kInts.data(), layer, file, "hide");
                 },
                 "    scale_d: 0.5\n    offset_d: -1\n",
                 {{"scale_d: 1", "scale_d: 0.5"}, {"offset_d: 2", "offset_d: -1"}}},
                {"weight",
                 [](Path layer, Path file) {
                     return KestTfOp::WriteWeightToRecordFile(kFloats.data(), kInts.data(), 1, layer, file);
                 },
                 "    scale_w: 0.5\n    offset_w: -1\n",
                 {{"    scale_w: 3\n    scale_w: 3\n", "    scale_w: 0.5\n"},
                  {"    offset_w: 4\n    offset_w: 4\n", "    offset_w: -1\n"}}},
                {"nuq",
                 [](Path layer, Path file) {
                     return KestTfOp::WriteNuqRecordToFile(kFloats.data(), kInts.data(), kInts.data(), 1, 3, layer,
                                                           file);
                 },
                 "    scale_w: 0.5\n    offset_w: -1\n    cluster: -1\n    cluster: 7\n    cluster: 0\n",
                 {{"    scale_w: 3\n    scale_w: 3\n", "    scale_w: 0.5\n"},
                  {"    offset_w: 4\n    offset_w: 4\n", "    offset_w: -1\n"},
                  {"    cluster: 6\n", "    cluster: -1\n    cluster: 7\n    cluster: 0\n"}}},
                {"shift, sign extended",
                 [](Path layer, Path file) { return KestTfOp::WriteShiftNToRecordFile(kInts.data(), 2, layer, file); },
                 "    shift_bit: 18446744073709551615\n    shift_bit: 7\n",
                 {{"shift_bit: 5\n    shift_bit: 5", "shift_bit: 18446744073709551615\n    shift_bit: 7"}}},
                {"balance",
                 [](Path layer, Path file) {
                     return KestTfOp::WriteTensorBalanceFactorToRecordFile(kFloats.data(), 2, layer, file);
                 },
                 "    tensor_balance_factor: 0.5\n    tensor_balance_factor: 0.25\n",
                 {{"tensor_balance_factor: 7", "tensor_balance_factor: 0.5\n    tensor_balance_factor: 0.25"}}},
                {"no items: the list goes",
                 [](Path layer, Path file) { return KestTfOp::WriteShiftNToRecordFile(nullptr, -1, layer, file); },
                 "",
                 {{"    shift_bit: 5\n    shift_bit: 5\n", ""}}}};
    TempDir directory;
    const std::string file = directory / "record.txt";
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        WriteText(file, prune + other);
        EXPECT_EQ("", LogOf([&] { EXPECT_EQ(STATUS_OK, row.call("conv1", file)); }));
        EXPECT_EQ(other + (row.fresh.empty() ? "record {\n  key: \"conv1\"\n}\n" : fields(row.fresh)) + prune,
                  ReadText(file));

        std::string edited = old;
        for (const auto& [from, to] : row.edit) KestTfOp::ConvertLayerName(edited, from, to);
        WriteText(file, other + fields(old) + twin);
        EXPECT_EQ(STATUS_OK, row.call("conv1", file));
        EXPECT_EQ(other + fields(edited) + twin, ReadText(file)) << "the first record of that key alone";

        EXPECT_EQ(RECORD_PATH_ERROR, row.call("conv1", directory / "missing"));
        EXPECT_EQ(RECORD_OPEN_ERROR, row.call("conv1", directory.Path()));
        for (const auto& [text, status] :
             {std::pair("x: 1 ", RECORD_UNKNOWN_FIELD), std::pair("record {", RECORD_DATA_ERROR)}) {
            WriteText(file, text);
            EXPECT_EQ(status, row.call("conv1", file));
            EXPECT_EQ(text, ReadText(file));
        }
        EXPECT_EQ(1, SemaphoreCount());
        EXPECT_EQ(1, directory.NumFiles());
    }
    WriteText(file, "record {\n  value {\n    scale_d: 1\n  }\n}\n");
    EXPECT_EQ(STATUS_OK, Write("", file));
    EXPECT_EQ(
        "record {\n  value {\n    scale_d: 1\n  }\n}\nrecord {\n  value {\n    scale_d: 0.5\n    offset_d: -1\n"
        "    dst_type: \"INT8\"\n  }\n}\n",
        ReadText(file))
        << "an unset key matches nothing, not even \"\"";
}

TEST(RecordUpdate, EightThreads) {
    TempDir directory;
    const std::string file = directory / "record.txt";
    WriteText(file, "");
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 10; ++i) {
                const std::string layer = std::to_string(t) + "/" + std::to_string(i);
                if (Write(layer, file) != STATUS_OK) ++failures;
                if (KestTfOp::WriteShiftNToRecordFile(&i, 1, layer, file) != STATUS_OK) ++failures;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, failures);
    Root root;
    ASSERT_EQ(STATUS_OK, kest_tf::ParseRecordFile(file, root));
    EXPECT_EQ(80u, root.records.size());
    for (const auto* record : root.records)
        EXPECT_EQ(1u, record->Value()->Dump().find("  shift_bit") / 100 + 1) << record->Value()->Dump();
    EXPECT_EQ(1, SemaphoreCount());
}

TEST(RecordUpdate, InterruptedWaitGoesOn) {
    TempDir directory;
    const std::string file = directory / "record.txt";
    WriteText(file, "");
    static std::atomic<int> signals;
    signals = 0;
    struct sigaction action = {}, before = {};
    action.sa_handler = [](int) { ++signals; };
    sigaction(SIGUSR1, &action, &before);  // without SA_RESTART
    sem_t& semaphore = KestTfOp::Initializer::GetInstance().semaphore;
    sem_wait(&semaphore);
    int status = -1;
    std::thread update([&] { status = Write("conv1", file); });
    for (int i = 1; i <= 5; ++i) {
        pthread_kill(update.native_handle(), SIGUSR1);
        while (signals < i) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ("", ReadText(file)) << "it went ahead without the semaphore";
    sem_post(&semaphore);
    update.join();
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_EQ(STATUS_OK, status);
    EXPECT_NE("", ReadText(file));
    EXPECT_EQ(1, SemaphoreCount());
}

TEST(RecordUpdate, ValueCheck) {
    const float denormal = std::nextafter(FLT_MIN, 0.0f);
    for (float x : {0.0f, 1e-39f, denormal, kInf})
        EXPECT_FALSE(KestTfOp::ValueCheck(x) || KestTfOp::ValueCheck(-x)) << x;
    for (float x : {FLT_MIN, 1.0f, FLT_MAX, kNan})
        EXPECT_TRUE(KestTfOp::ValueCheck(x) && KestTfOp::ValueCheck(-x)) << x;
}

TEST(RecordUpdate, ComputeDeqScale) {
    sem_t& semaphore = KestTfOp::Initializer::GetInstance().semaphore;
    const struct {
        std::vector<float> scaleW;
        float scaleD;
        int status;
        std::vector<float> deqScale;
    } rows[] = {{{1.0f, 1e-10f, 2.0f}, 1e-30f, DEQ_SCALE_ERROR, {1e-30f, 1e-30f * 1e-10f, 7}},
                {{1e30f}, 1e30f, DEQ_SCALE_ERROR, {kInf}},
                {{0.5f, 3.0f}, 0.1f, STATUS_OK, {0.05f, 0.1f * 3.0f}},
                {{}, 1.0f, STATUS_OK, {}}};
    for (const auto& row : rows) {
        std::vector<float> deqScale(row.scaleW.size(), 7);
        sem_wait(&semaphore);
        const int length = static_cast<int>(deqScale.size());
        EXPECT_EQ(row.status, KestTfOp::ComputeDeqScale(deqScale.data(), row.scaleW.data(), row.scaleD, length));
        ExpectSameBits(row.deqScale, deqScale);
        EXPECT_EQ(row.status == STATUS_OK ? 0 : 1, SemaphoreCount()) << "posted on failure alone";
        if (row.status == STATUS_OK) sem_post(&semaphore);
    }
}

TEST(RecordUpdate, ConvertLayerName) {
    const std::array<const char*, 4> rows[] = {{"a/b/c", "/", "_", "a_b_c"}, {"aa", "a", "aa", "aaaa"},
                                               {"/a//", "/", "", "a"},       {"aaa", "aa", "b", "ba"},
                                               {"abc", "x", "y", "abc"},     {"abc", "", "y", "abc"}};
    for (const auto& [name, from, to, result] : rows) {
        std::string converted = name;
        KestTfOp::ConvertLayerName(converted, from, to);
        EXPECT_EQ(result, converted);
    }
}

}  // namespace
