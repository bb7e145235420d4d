#include <kest/record/proto_simulator/record_proto.h>
#include <kest/record/proto_simulator/record_writer.h>
#include <kest/record/record_update.h>

#include "bench.h"

#include <malloc.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

namespace {

bool syncEnabled = true;  // whether fsync does anything in this process, the library included

}  // namespace

// Takes the place of the C library's, for the shared libraries too.
extern "C" int fsync(int fd) {
    return syncEnabled ? static_cast<int>(syscall(SYS_fsync, fd)) : 0;
}

namespace bench {
namespace {

struct Tree : kest_tf::InnerData {
    Tree() : InnerData("InnerScaleOffsetRecord", kest_tf::FIELD_MESSAGE, 0) {}
};

/// The directory of this run, deleted at its end.
class Directory {
public:
    Directory() {
        std::string pattern = std::filesystem::temp_directory_path() / "kest_bench_XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) std::abort();
        path_ = pattern;
    }
    ~Directory() { std::filesystem::remove_all(path_); }
    const std::filesystem::path& Path() const { return path_; }

private:
    std::filesystem::path path_;
};

void Require(int status) {
    if (status == STATUS_OK) return;
    std::fprintf(stderr, "status %d\n", status);
    std::exit(1);
}

std::size_t StatusBytes(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(name, 0) == 0) return 1024 * std::stoul(line.substr(name.size()));
    }
    return 0;
}

}  // namespace

std::string RecordPath(const std::string& name) {
    static const Directory directory;
    return directory.Path() / name;
}

std::string LayerName(std::size_t layer) {
    return "block" + std::to_string(layer % 16) + "/conv" + std::to_string(layer);
}

std::string RecordFile(std::size_t numLayers) {
    const std::string path = RecordPath(std::to_string(numLayers));
    if (std::filesystem::exists(path)) return path;
    Tree root;
    const float* x = NormalData(kMedium.n);
    for (std::size_t layer = 0; layer < numLayers; ++layer) {
        kest_tf::RecordData* record = root.AddRecord();
        record->SetKey(LayerName(layer));
        record->Value()->SetScaleD(x[layer] * x[layer]);
        record->Value()->SetOffsetD(static_cast<int>(layer % 256) - 128);
        for (std::size_t c = 0; c < kNumFactors; ++c)
            record->Value()->AddScaleW(0.01f * x[(layer + c * c) % kMedium.n]);
        for (std::size_t c = 0; c < kNumFactors; ++c) record->Value()->AddOffsetW(static_cast<int>(c) - 128);
    }
    Require(kest_tf::WriteToRecordFile(root, path));
    return path;
}

double PeakMemory(const std::function<void()>& work) {
    malloc_trim(0);
    if (!(std::ofstream("/proc/self/clear_refs") << 5 << std::flush)) return 0;  // sets the peak to the present size
    const std::size_t before = StatusBytes("VmRSS:");
    work();
    return static_cast<double>(StatusBytes("VmHWM:") - before);
}

void AddRecordRows(std::size_t numLayers) {
    const auto add = [=](const char* what, bool sync, auto setUp) {
        AddRow(what, std::to_string(numLayers) + " layers", "kest", static_cast<double>(numLayers), 0,
               [=](benchmark::State& state) {
                   syncEnabled = sync;
                   auto body = setUp(state);
                   body(state);  // the heap grows here, not in the first of few iterations
                   return body;
               });
    };
    const auto parse = [=](Tree& root) { Require(kest_tf::ParseRecordFile(RecordFile(numLayers), root)); };
    const auto parsed = [=] {
        auto root = std::make_shared<Tree>();
        parse(*root);
        return root;
    };
    add("record parse", false, [=](benchmark::State& state) {
        const auto run = [=] {
            Tree root;
            parse(root);
        };
        state.counters["bytes_per_item"] = PeakMemory(run) / static_cast<double>(numLayers);
        return [=](auto&) { run(); };
    });
    add("record dump", false,
        [=](auto&) { return [root = parsed()](auto&) { benchmark::DoNotOptimize(root->Dump()); }; });
    for (const bool sync : {false, true}) {
        add(sync ? "record write synced" : "record write", sync, [=](auto&) {
            return [root = parsed()](auto&) { Require(kest_tf::WriteToRecordFile(*root, RecordPath("written"))); };
        });
        add(sync ? "record update synced" : "record update", sync, [=](auto&) {
            const std::string path = RecordPath("updated");
            std::filesystem::copy_file(RecordFile(numLayers), path, std::filesystem::copy_options::overwrite_existing);
            const std::vector<float> scale(kNumFactors, 0.1f);
            const std::vector<int> offset(kNumFactors, 1);
            return [=](auto&) {
                Require(KestTfOp::WriteWeightToRecordFile(scale.data(), offset.data(), kNumFactors,
                                                          LayerName(numLayers / 2), path));
            };
        });
    }
    AddRow("record fsync", std::to_string(numLayers) + " layers", "kest", static_cast<double>(numLayers), 0,
           [=](auto&) {
               syncEnabled = true;
               return [text = parsed()->Dump()](benchmark::State& state) {
                   state.PauseTiming();
                   std::FILE* file = std::fopen(RecordPath("synced").c_str(), "w");
                   std::fwrite(text.data(), 1, text.size(), file);
                   std::fflush(file);
                   state.ResumeTiming();
                   Require(fsync(fileno(file)));
                   state.PauseTiming();
                   std::fclose(file);
                   state.ResumeTiming();
               };
           });
}

}  // namespace bench
