#include <fnmatch.h>
#include <kest/kernel_frame/log_sink.h>
#include <kest/record/direct_writer.h>
#include <kest/record/record_lock.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <tests/record/record_test_util.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

// Several processes and one record file.

namespace {

/// One line `value` for each of a field of a layer, in a file that both writers know.
std::string Lines(const char* field, int value, int count) {
    std::string lines;
    for (int i = 0; i < count; ++i) lines += "    " + std::string(field) + ": " + std::to_string(value) + "\n";
    return lines;
}

/// An update, a direct write and a change of the tree by each of sixteen threads in four processes, ten times over.
TEST(Processes, LoseNoChange) {
    constexpr int kNumProcesses = 4, kNumThreads = 4, kRounds = 10;
    TempDir directory;
    const std::string file = directory / "record.txt";
    std::string old, changed;
    for (int i = 0; i < kNumProcesses * kNumThreads; ++i) {
        const std::string layer = "layer" + std::to_string(i);
        old += Record(layer, "    dst_type: \"x\"\n");
        changed += Record(
            layer, "    offset_d: 9\n    shift_bit: 9\n" + Lines("cluster", 7, kRounds) + "    dst_type: \"x\"\n");
    }
    WriteText(file, old);
    sem_t& semaphore = KestTfOp::Initializer::GetInstance().semaphore;
    const auto change = [&](const std::string& layer) {
        for (int round = 0; round < kRounds; ++round) {
            EXPECT_EQ(STATUS_OK, KestTfOp::WriteShiftNToRecordFile(&round, 1, layer, file));
            if (round % 2 == 0) sem_wait(&semaphore);  // as one does who keeps direct writes and updates apart
            EXPECT_EQ(STATUS_OK, util::RecordRepeatData<int>(file, layer, {7}, "cluster"));
            if (round % 2 == 0) sem_post(&semaphore);
            Root root;
            const KestTfOp::RecordLock lock(file);
            EXPECT_EQ(STATUS_OK, kest_tf::ParseRecordFile(file, root));
            for (auto* record : root.records)
                if (record->Dump().find('"' + layer + '"') != std::string::npos) record->Value()->SetOffsetD(round);
            EXPECT_EQ(STATUS_OK, kest_tf::WriteToRecordFile(root, file));
        }
    };
    auto lock = std::make_unique<KestTfOp::RecordLock>(file);
    End(Start([&] { lock.reset(); }));  // leaves the scope, and must not release it for its parent
    const int other = open(directory.Path().c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(-1, flock(other, LOCK_EX | LOCK_NB));
    close(other);
    const pid_t idle = Start([] { pause(); });  // has the lock's descriptor, and must not keep the lock
    lock.reset();
    std::vector<pid_t> children;
    for (int p = 0; p < kNumProcesses; ++p) {
        children.push_back(Start([&] {
            util::SetLogSink([](const char*) {});
            std::vector<std::thread> threads;
            for (int t = 0; t < kNumThreads; ++t)
                threads.emplace_back(change, "layer" + std::to_string(kNumThreads * p + t));
            for (std::thread& thread : threads) thread.join();
        }));
    }
    for (const pid_t child : children) EXPECT_EQ(0, End(child));
    kill(idle, SIGKILL);
    End(idle);
    Root root;
    EXPECT_EQ(STATUS_OK, kest_tf::ParseRecordFile(file, root));
    EXPECT_EQ(changed, root.Dump());
    EXPECT_EQ(1, directory.NumFiles());
}

/// The file after `n` changes: odd ones by an update, even ones directly.
std::string TextAfter(int n) {
    return Record("conv1", Lines("tensor_balance_factor", n, 1 + n % 100));
}

void MakeChange(int n, const std::string& file) {
    const std::vector<int> ints(1 + n % 100, n);
    const std::vector<float> floats(ints.begin(), ints.end());
    const int length = static_cast<int>(ints.size());
    EXPECT_EQ(STATUS_OK, n % 2 == 0
                             ? util::RecordRepeatData(file, "conv1", ints, "tensor_balance_factor")
                             : KestTfOp::WriteTensorBalanceFactorToRecordFile(floats.data(), length, "conv1", file));
}

/// Kills a process that makes one change after the other, and has the next one go on.
TEST(Processes, KilledAtAnyMomentLeaveTheFileWhole) {
    const char* setting = std::getenv("KEST_KILLS");
    const int numKills = setting != nullptr ? std::atoi(setting) : 300;
    TempDir directory;
    const std::string file = directory / "record.txt";
    void* const shared = mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, shared);
    auto& numChanges = *new (shared) std::atomic<int>{2};
    WriteText(file, TextAfter(2));
    std::mt19937 random(1);
    for (int kill = 0; kill < numKills && !HasFailure(); ++kill) {
        const pid_t child = Start([&] {
            util::SetLogSink([](const char*) {});
            while (!HasFailure()) MakeChange(++numChanges, file);
        });
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
        ::kill(child, SIGKILL);
        EXPECT_TRUE(WIFSIGNALED(End(child)));
        const std::string content = ReadText(file);
        if (content != TextAfter(numChanges)) --numChanges;  // the last one was not made
        EXPECT_EQ(TextAfter(numChanges), content);
    }
    // What the dead left is named as documented and stands in nobody's way.
    int numTemporaries = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory.Path()))
        numTemporaries += fnmatch(".kest-[0-9]*-[0-9]*.tmp", entry.path().filename().c_str(), 0) == 0;
    EXPECT_EQ(1 + numTemporaries, directory.NumFiles());
    MakeChange(++numChanges, file);
    MakeChange(++numChanges, file);
    EXPECT_EQ(TextAfter(numChanges), ReadText(file));
    std::printf("%d kills, %d changes, %d temporary files left\n", numKills, numChanges.load(), numTemporaries);
}

}  // namespace
