#include <kest/record/proto_simulator/record_proto.h>

#include "bench.h"
#include "record.pb.h"

#include <fcntl.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/text_format.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

// The record file through libprotobuf's text format.

namespace bench {
namespace {

using google::protobuf::TextFormat;
using record_bench::File;

void Parse(const std::string& path, File& file) {
    google::protobuf::io::FileInputStream input(open(path.c_str(), O_RDONLY));
    input.SetCloseOnDelete(true);
    if (!TextFormat::Parse(&input, &file)) std::abort();
}

/// Through a temporary file, as kest does, but unsynced.
void Write(const File& file, const std::string& path) {
    const std::string temporary = path + ".tmp";
    {
        google::protobuf::io::FileOutputStream output(open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666));
        output.SetCloseOnDelete(true);
        if (!TextFormat::Print(file, &output)) std::abort();
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) std::abort();
}

void Update(File& file, const std::string& layerName) {
    for (record_bench::Record& record : *file.mutable_record()) {
        if (record.key() != layerName) continue;
        record_bench::Value& value = *record.mutable_value();
        value.clear_scale_w();
        value.clear_offset_w();
        for (int i = 0; i < kNumFactors; ++i) value.add_scale_w(0.1f);
        for (int i = 0; i < kNumFactors; ++i) value.add_offset_w(1);
        return;
    }
    std::abort();
}

/// What both printers make of the two parsers' results has to be read alike.
void RequireSameFile(const File& file, const std::string& path) {
    kest_tf::InnerData root("InnerScaleOffsetRecord", kest_tf::FIELD_MESSAGE, 0);
    kest_tf::ParseRecordFile(path, root);
    File fromKest;
    TextFormat::ParseFromString(root.Dump(), &fromKest);
    RequireSame(root.records.size() == static_cast<std::size_t>(file.record_size()) &&
                    fromKest.SerializeAsString() == file.SerializeAsString(),
                path.c_str());
}

}  // namespace

void AddProtobufRows(std::size_t numLayers) {
    const auto add = [=](const char* what, auto setUp) {
        AddRow(what, std::to_string(numLayers) + " layers", "protobuf", static_cast<double>(numLayers), 0,
               [=](benchmark::State& state) {
                   auto body = setUp(state);
                   body(state);
                   return body;
               });
    };
    const auto parsed = [=] {
        auto file = std::make_shared<File>();
        Parse(RecordFile(numLayers), *file);
        return file;
    };
    add("record parse", [=](benchmark::State& state) {
        const std::string path = RecordFile(numLayers);
        if (numLayers == kNumLayers[0]) RequireSameFile(*parsed(), path);
        const auto run = [=] {
            File file;
            Parse(path, file);
        };
        state.counters["bytes_per_item"] = PeakMemory(run) / static_cast<double>(numLayers);
        return [=](auto&) { run(); };
    });
    add("record dump", [=](auto&) {
        return [file = parsed()](auto&) {
            std::string text;
            TextFormat::PrintToString(*file, &text);
            benchmark::DoNotOptimize(text);
        };
    });
    add("record write", [=](auto&) { return [file = parsed()](auto&) { Write(*file, RecordPath("written")); }; });
    add("record update", [=](auto&) {
        const std::string path = RecordPath("updated");
        Write(*parsed(), path);
        return [=](auto&) {
            File file;
            Parse(path, file);
            Update(file, LayerName(numLayers / 2));
            Write(file, path);
        };
    });
}

}  // namespace bench
