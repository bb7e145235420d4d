#include <kest/activation_calib/ifmr.h>
#include <kest/kernel_frame/log_capture.h>
#include <kest/kernel_frame/scale.h>
#include <kest/op_kernels/fast_softmax.h>
#include <kest/prune_balance/channel_prune.h>
#include <kest/prune_balance/selective_mask.h>
#include <kest/weight_quant/arq.h>
#include <kest/weight_quant/nuq.h>
#include <kest/weight_quant/search_n.h>
#include <kest/weight_quant/ulq.h>
#include <omp.h>
#include <sys/resource.h>
#include <tests/record/record_test_util.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <new>
#include <thread>

namespace {

using util::ThreadPoolDevice;

/// What a call works on: n values, an output for each, and factors.
struct Work {
    Work(int length, unsigned int seed, const std::string& directory)
        : n(length), values(MixedValues<float>(length, seed)), file(directory + "/" + std::to_string(seed)) {
        WriteText(file, "");
    }
    const int n;
    std::vector<float> values;
    std::vector<float> outputs = std::vector<float>(values.size());
    std::vector<float> factors = std::vector<float>(64, 1.25f);
    std::vector<int> offsets = std::vector<int>(64, -5);
    float* const x = values.data();
    float* const out = outputs.data();
    std::string text;
    const std::string file;

    util::FloatData Scales(unsigned int length) { return {length, factors.data()}; }
    util::IntData Offsets(unsigned int length) { return {length, offsets.data()}; }
};

const struct Job {
    const char* name;
    bool takesMemory;
    int n;
    int (*call)(Work& work);
} kJobs[] = {
    {"ARQ", false, 1 << 16,
     [](Work& w) {
         return KestCommon::ArqQuant(w.x, w.n, {8, true, true}, w.Scales(64), w.Offsets(64));
     }},
    {"NUQ", true, 4096,
     [](Work& w) {
         return KestCommon::NuqQuant(w.x, w.n, {16, true, 2}, w.Scales(8), w.Offsets(8));
     }},
    {"IFMR", true, 8192,
     [](Work& w) {
         return KestCommon::IfmrQuant(w.x, w.n, {0, 8, true, 0.7f, 1.3f, 0.01f, 0.9f, 0.9f}, w.Scales(1), w.Offsets(1));
     }},
    {"shift search", true, 1024,
     [](Work& w) {
         std::vector<int> row;
         for (const float x : w.values) row.push_back(static_cast<int>(x * 1e5f));
         w.offsets.clear();
         return KestCommon::SearchShiftBits(std::vector<std::vector<int>>(16, row), w.offsets);
     }},
    {"ULQ", false, (1 << 17) + 5,
     [](Work& w) {
         KestCommon::Ulq(w.x, w.out, w.n, w.Scales(1), w.Offsets(1), 4);
         return 0;
     }},
    {"softmax", false, 384 * 100,
     [](Work& w) {
         static KestTfOp::SoftmaxParam param{0.5f, 0.125f, -4, 1, 384 * 100, {100, 384}};
         return KestTfOp::FastSoftmaxFunctor<ThreadPoolDevice, float>()(w.x, w.out, param);
     }},
    {"channel pruning", true, 1 << 17,
     [](Work& w) {
         const KestCommon::ComputeRemainOut<ThreadPoolDevice, float> prune;
         return prune({w.x}, {w.n}, {2048}, {64, {}, 1, {64}, {20}}, {w.out});
     }},
    {"N-of-M mask", true, 1 << 16,
     [](Work& w) {
         const SelectiveMaskGenKernel::ComputeMask<ThreadPoolDevice, float> choose;
         return choose(w.x, w.factors.data(), std::vector<float>(w.n).data(), {0, 4, 2, {64, 1024}}, w.out);
     }},
    {"failure", true, 0,
     [](Work& w) {
         const util::LogCapture capture;
         const int status = util::ProcessScale(w.factors[0] = kInf);
         w.text = capture.lines;
         return status;
     }},
    {"record update", true, 64,
     [](Work& w) {
         const int status = KestTfOp::WriteWeightToRecordFile(w.x, w.offsets.data(), w.n, "conv1", w.file);
         w.text = status == STATUS_OK ? ReadText(w.file) : "";
         return status;
     }},
};

/// The memory that a call may still take, if not negative.
long headroom = -1;

void LimitAddressSpace(rlim_t bytes) {
    const rlimit limit{bytes, RLIM_INFINITY};
    if (setrlimit(RLIMIT_AS, &limit) != 0) std::abort();
}

/// Leaves `headroom` bytes to take: nothing of the heap, and no more address space than that.
__attribute__((noinline)) void TakeAllBut() {
    char stack[1 << 20];  // of the calls to come, which may not grow either
    for (std::size_t i = 0; i < sizeof stack; i += 512) *const_cast<volatile char*>(stack + i) = 0;
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const auto used = static_cast<rlim_t>(pages * sysconf(_SC_PAGESIZE));
    LimitAddressSpace(used);
    for (std::size_t size = 1 << 20; size > 0; size = size > 4096 ? size / 2 : size - 16)
        while (void* volatile block = std::malloc(size)) static_cast<void>(block);
    LimitAddressSpace(used + static_cast<rlim_t>(headroom));
}

class Load : public testing::Test {
protected:
    /// Sets what the first seeds give on one thread.
    void Expect(unsigned int numSeeds) {
        omp_set_num_threads(1);
        while (expected_.size() < numSeeds) expected_.push_back(RunAll(static_cast<unsigned int>(expected_.size())));
        omp_set_num_threads(numThreads_);
    }

    /// The status of a call and all that it leaves behind, as bytes.
    std::string Run(const Job& job, unsigned int seed) const {
        Work work(job.n, seed, directory_.Path());
        if (headroom >= 0) TakeAllBut();
        const int status = job.call(work);
        if (headroom >= 0) LimitAddressSpace(RLIM_INFINITY);
        std::string bytes = std::to_string(status) + work.text;
        for (const auto* data : {&work.values, &work.outputs, &work.factors})
            bytes.append(reinterpret_cast<const char*>(data->data()), data->size() * sizeof(float));
        return bytes.append(reinterpret_cast<const char*>(work.offsets.data()), work.offsets.size() * sizeof(int));
    }

    std::vector<std::string> RunAll(unsigned int seed) const {
        std::vector<std::string> results;
        for (const Job& job : kJobs) results.push_back(Run(job, seed));
        return results;
    }

    /// How a child process ends that calls `body`: its status, or 128 and its signal. One that hangs is killed.
    template <typename Body>
    int InChild(Body body) const {
        const int status = End(Start([&] {
            alarm(60);
            omp_set_num_threads(1);
            _exit(body());
        }));
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    const int numThreads_ = omp_get_max_threads();
    const TempDir directory_;
    std::vector<std::vector<std::string>> expected_;  // of each seed, by one thread
};

TEST_F(Load, SixtyFourThreadsAtOnce) {
    Expect(64);
    std::vector<std::vector<std::string>> actual(64);
    std::vector<std::thread> threads;
    for (unsigned int seed = 0; seed < 64; ++seed) threads.emplace_back([&, seed] { actual[seed] = RunAll(seed); });
    for (std::thread& thread : threads) thread.join();
    for (unsigned int seed = 0; seed < 64; ++seed)
        for (std::size_t j = 0; j < std::size(kJobs); ++j)
            EXPECT_TRUE(expected_[seed][j] == actual[seed][j]) << kJobs[j].name << ", seed " << seed;
}

#ifndef KEST_TEST_SANITIZED  // a sanitizer's own locks do not survive a fork, and it needs terabytes of address space

TEST_F(Load, ForkWhileOthersCompute) {
    Expect(8);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (unsigned int seed = 8; seed < 12; ++seed)
        threads.emplace_back([&, seed] {
            while (!stop)
                for (std::size_t j = 0; j + 1 < std::size(kJobs); ++j) Run(kJobs[j], seed);  // not the update
        });
    for (unsigned int seed = 0; seed < 8; ++seed)
        EXPECT_EQ(0, InChild([&] { return RunAll(seed) == expected_[seed] ? 0 : 1; })) << "seed " << seed;
    stop = true;
    for (std::thread& thread : threads) thread.join();
}

#ifndef __clang__  // LLVM's OpenMP runtime needs memory even to tell the number of threads, and crashes without

TEST_F(Load, TightAddressSpace) {
    Expect(1);
    enum End { kRight, kOutOfMemory, kWrong };
    for (std::size_t j = 0; j < std::size(kJobs); ++j) {
        int counts[kWrong] = {};
        for (headroom = 0; headroom <= 1 << 20; headroom = headroom * 2 + 4096) {
            const int end = InChild([&] {
                try {
                    const std::string result = Run(kJobs[j], 0);
                    if (result == expected_[0][j]) return kRight;
                    return result.find(std::to_string(RECORD_DATA_ERROR)) == 0 ? kOutOfMemory : kWrong;
                } catch (const std::bad_alloc&) {
                    return kOutOfMemory;
                }
            });
            ASSERT_LT(end, kWrong) << kJobs[j].name << ", " << headroom << " bytes left";
            ++counts[end];
        }
        EXPECT_LT(0, counts[kRight]) << kJobs[j].name;
        EXPECT_EQ(kJobs[j].takesMemory, counts[kOutOfMemory] > 0) << kJobs[j].name;
    }
    headroom = -1;
}

#endif
#endif

}  // namespace
